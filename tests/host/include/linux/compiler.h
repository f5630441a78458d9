/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: annotations and single-access helpers. */
#ifndef UCFG_SHIM_LINUX_COMPILER_H
#define UCFG_SHIM_LINUX_COMPILER_H

#include <sys/cdefs.h>

#define __iomem
#define __user
#define __force
#define __kernel
#define __rcu
#define __must_check	__attribute__((warn_unused_result))
#define __maybe_unused	__attribute__((unused))
#define __always_unused	__attribute__((unused))
#define __aligned(x)	__attribute__((aligned(x)))
#define __packed	__attribute__((packed))
#define __printf(a, b)	__attribute__((format(printf, a, b)))
#ifndef __always_inline
#define __always_inline	inline __attribute__((always_inline))
#endif
#ifndef noinline
#define noinline	__attribute__((noinline))
#endif
#define likely(x)	__builtin_expect(!!(x), 1)
#define unlikely(x)	__builtin_expect(!!(x), 0)
#define barrier()	__asm__ __volatile__("" : : : "memory")

#define READ_ONCE(x)	(*(const volatile __typeof__(x) *)&(x))
#define WRITE_ONCE(x, val)						\
	do {								\
		*(volatile __typeof__(x) *)&(x) = (val);		\
	} while (0)

#endif
