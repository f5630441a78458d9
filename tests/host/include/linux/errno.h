/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the system's errno values plus the kernel-internal ones. */
#ifndef UCFG_SHIM_LINUX_ERRNO_H
#define UCFG_SHIM_LINUX_ERRNO_H

#include_next <linux/errno.h>

#define ERESTARTSYS	512
#define EPROBE_DEFER	517
#define ENOTSUPP	524

#endif
