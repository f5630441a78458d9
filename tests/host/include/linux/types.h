/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: kernel integer types over the system's __u32 & co. */
#ifndef UCFG_SHIM_LINUX_TYPES_H
#define UCFG_SHIM_LINUX_TYPES_H

#include_next <linux/types.h>	/* __u8 .. __u64, __s8 .. __s64, __le32 ... */
#include <linux/stddef.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>		/* ssize_t, pid_t, uid_t, dev_t, loff_t */

typedef __u8 u8;
typedef __u16 u16;
typedef __u32 u32;
typedef __u64 u64;
typedef __s8 s8;
typedef __s16 s16;
typedef __s32 s32;
typedef __s64 s64;

typedef u64 phys_addr_t;
typedef u64 resource_size_t;
typedef unsigned short umode_t;
typedef unsigned int gfp_t;
typedef void *fl_owner_t;

#endif
