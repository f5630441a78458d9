/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the system's ioctl number macros. */
#ifndef UCFG_SHIM_LINUX_IOCTL_H
#define UCFG_SHIM_LINUX_IOCTL_H

#include_next <linux/ioctl.h>

#endif
