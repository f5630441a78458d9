/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the host build stands for the target kernel, Linux 5.10. */
#ifndef UCFG_SHIM_LINUX_VERSION_H
#define UCFG_SHIM_LINUX_VERSION_H

#define KERNEL_VERSION(a, b, c) (((a) << 16) + ((b) << 8) + ((c) > 255 ? 255 : (c)))
#define LINUX_VERSION_CODE KERNEL_VERSION(5, 10, 0)

#endif
