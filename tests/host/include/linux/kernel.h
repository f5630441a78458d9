/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the kernel's general helpers. */
#ifndef UCFG_SHIM_LINUX_KERNEL_H
#define UCFG_SHIM_LINUX_KERNEL_H

#include <limits.h>
#include <stdio.h>	/* sscanf, snprintf, scnprintf's base */
#include <stdlib.h>
#include <linux/compiler.h>
#include <linux/printk.h>
#include <linux/stddef.h>
#include <linux/types.h>

#define ARRAY_SIZE(arr)	(sizeof(arr) / sizeof((arr)[0]))

#define U8_MAX		((u8)~0U)
#define U16_MAX		((u16)~0U)
#define U32_MAX		((u32)~0U)
#define U64_MAX		((u64)~0ULL)
#define S32_MAX		((s32)(U32_MAX >> 1))
#define S32_MIN		((s32)(-S32_MAX - 1))

#ifndef __cplusplus
#define min(x, y) ({ __typeof__(x) _x = (x); __typeof__(y) _y = (y);	\
		     (void)(&_x == &_y); _x < _y ? _x : _y; })
#define max(x, y) ({ __typeof__(x) _x = (x); __typeof__(y) _y = (y);	\
		     (void)(&_x == &_y); _x > _y ? _x : _y; })
#endif
#define min_t(type, x, y) ({ type _x = (x); type _y = (y); _x < _y ? _x : _y; })
#define max_t(type, x, y) ({ type _x = (x); type _y = (y); _x > _y ? _x : _y; })
#define clamp_t(type, v, lo, hi) min_t(type, max_t(type, v, lo), hi)
#define DIV_ROUND_UP(n, d) (((n) + (d) - 1) / (d))

#define container_of(ptr, type, member)					\
	((type *)(void *)((char *)(ptr) - offsetof(type, member)))

#define u64_to_user_ptr(x)	((void __user *)(uintptr_t)(x))

static inline long simple_strtol(const char *cp, char **endp,
				 unsigned int base)
{
	return strtol(cp, endp, (int)base);
}

static inline unsigned long simple_strtoul(const char *cp, char **endp,
					   unsigned int base)
{
	return strtoul(cp, endp, (int)base);
}

#ifdef __cplusplus
extern "C" {
#endif
/* Kernel kstrto*(): whole string (one trailing newline allowed), 0 or
 * -EINVAL / -ERANGE.
 */
int kstrtoint(const char *s, unsigned int base, int *res);
int kstrtouint(const char *s, unsigned int base, unsigned int *res);
#define kstrtou32 kstrtouint
#define kstrtos32 kstrtoint
#ifdef __cplusplus
}
#endif

#endif
