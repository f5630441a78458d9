/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: offsetof, sizeof_field and the kernel's NULL. */
#ifndef UCFG_SHIM_LINUX_STDDEF_H
#define UCFG_SHIM_LINUX_STDDEF_H

#include_next <linux/stddef.h>
#include <stddef.h>

/*
 * The kernel spells NULL ((void *)0) in C; messages that print a stringified
 * condition (__stringify(NULL)) depend on exactly that spelling.
 */
#ifndef __cplusplus
#undef NULL
#define NULL ((void *)0)
#endif

#ifndef sizeof_field
#define sizeof_field(TYPE, MEMBER) sizeof((((TYPE *)0)->MEMBER))
#endif

#endif
