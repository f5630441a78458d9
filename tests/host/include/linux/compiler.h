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

/*
 * The kernel's marked accesses, as relaxed atomics: single accesses that
 * the compiler neither tears nor merges, and that ThreadSanitizer, like the
 * kernel's own race detector, does not count as data races.
 */
#define READ_ONCE(x)	__atomic_load_n(&(x), __ATOMIC_RELAXED)
#define WRITE_ONCE(x, val)						\
	do {								\
		__typeof__(x) _wo_val = (val);				\
		__atomic_store_n(&(x), _wo_val, __ATOMIC_RELAXED);	\
	} while (0)
/* asm/barrier.h: one-way barriers on a single access. */
#define smp_load_acquire(p)	__atomic_load_n((p), __ATOMIC_ACQUIRE)
#define smp_store_release(p, v)						\
	do {								\
		__typeof__(*(p)) _sr_val = (v);				\
		__atomic_store_n((p), _sr_val, __ATOMIC_RELEASE);	\
	} while (0)

#endif
