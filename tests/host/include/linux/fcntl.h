/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: open flags (O_RDONLY, ...) come from the C library. */
#ifndef UCFG_SHIM_LINUX_FCNTL_H
#define UCFG_SHIM_LINUX_FCNTL_H

#include <fcntl.h>

#endif
