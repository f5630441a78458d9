/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: stringification after macro expansion, as in the kernel. */
#ifndef UCFG_SHIM_LINUX_STRINGIFY_H
#define UCFG_SHIM_LINUX_STRINGIFY_H

#include <linux/stddef.h>	/* NULL must be the kernel's spelling */

#define __stringify_1(x...)	#x
#define __stringify(x...)	__stringify_1(x)

#endif
