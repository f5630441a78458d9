/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: kernel mutexes over error-checking pthread mutexes. Locking a
 * mutex the thread already holds, or releasing one it does not hold, is a
 * recorded violation (the kernel would deadlock or warn).
 */
#ifndef UCFG_SHIM_LINUX_MUTEX_H
#define UCFG_SHIM_LINUX_MUTEX_H

#include <pthread.h>
#include <linux/types.h>
#include "ucfg_tb/shim.h"

struct mutex {
	pthread_mutex_t m;
	int locked;	/* read with __atomic builtins only */
};

#define __MUTEX_INITIALIZER(lockname)					\
	{ PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP, 0 }
#define DEFINE_MUTEX(mutexname)						\
	struct mutex mutexname = __MUTEX_INITIALIZER(mutexname)

struct lock_class_key {
	int dummy;
};

#define mutex_init(lock)		tb_mutex_init(lock)
#define __mutex_init(lock, name, key)	tb_mutex_init(lock)
#define mutex_lock(lock)		tb_mutex_lock(lock)
#define mutex_lock_interruptible(lock)	(tb_mutex_lock(lock), 0)
#define mutex_trylock(lock)		tb_mutex_trylock(lock)
#define mutex_unlock(lock)		tb_mutex_unlock(lock)
#define mutex_destroy(lock)		tb_mutex_destroy(lock)
#define mutex_is_locked(lock)						\
	(__atomic_load_n(&(lock)->locked, __ATOMIC_ACQUIRE) != 0)

#endif
