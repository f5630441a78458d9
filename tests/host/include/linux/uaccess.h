/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: user memory is ordinary host memory, with faults the test
 * marks (tb::user). The copies return the number of bytes NOT copied;
 * copy_from_user() zero-fills what it did not copy.
 */
#ifndef UCFG_SHIM_LINUX_UACCESS_H
#define UCFG_SHIM_LINUX_UACCESS_H

#include <linux/types.h>
/* As in the kernel, where these arrive through the header's own includes. */
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/compiler.h>
#include <linux/errno.h>
#include "ucfg_tb/shim.h"

#define access_ok(addr, size)	tb_access_ok((const void *)(addr), (size))

static inline unsigned long __must_check
copy_from_user(void *to, const void __user *from, unsigned long n)
{
	return tb_copy_from_user(to, from, n);
}

static inline unsigned long __must_check
copy_to_user(void __user *to, const void *from, unsigned long n)
{
	return tb_copy_to_user(to, from, n);
}

#define get_user(x, ptr) ({						\
	__typeof__(*(ptr)) __gu_val;					\
	int __gu_err = tb_copy_from_user(&__gu_val, (ptr),		\
					 sizeof(__gu_val)) ? -EFAULT : 0; \
	(x) = __gu_err ? (__typeof__(*(ptr)))0 : __gu_val;		\
	__gu_err; })

#define put_user(x, ptr) ({						\
	__typeof__(*(ptr)) __pu_val = (x);				\
	tb_copy_to_user((ptr), &__pu_val, sizeof(__pu_val)) ? -EFAULT : 0; })

#endif
