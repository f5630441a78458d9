/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The C interface between the kernel-API shim headers and the test bed.
 *
 * Every kernel service the module uses in the host build ends up in one of
 * these functions, implemented in C++ by the test bed (simulators, fault
 * injection, accounting). The shim headers only map kernel names onto them;
 * none of them holds logic of the module. Nothing outside the shim headers
 * and the test bed should call a tb_* function directly.
 */
#ifndef UCFG_TB_SHIM_H
#define UCFG_TB_SHIM_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Log levels of the captured kernel log (kernel numbering). */
#define TB_LOG_ERR	3
#define TB_LOG_WARNING	4
#define TB_LOG_NOTICE	5
#define TB_LOG_INFO	6
#define TB_LOG_DEBUG	7

__attribute__((format(printf, 2, 3)))
void tb_printk(int level, const char *fmt, ...);
/* printk() with an optional KERN_* prefix in fmt. */
__attribute__((format(printf, 1, 2)))
int tb_printk_raw(const char *fmt, ...);

/* Records a violation of the kernel API contract; fails the current test. */
__attribute__((format(printf, 1, 2)))
void tb_violation(const char *fmt, ...);

struct task_struct;
struct task_struct *tb_current(void);

/* Memory. */
void *tb_alloc(size_t size, unsigned int gfp, int kind);
void tb_free(const void *ptr, int kind);
#define TB_ALLOC_VMALLOC 1
#define TB_ALLOC_KMALLOC 2

/* Registers. */
void *tb_ioremap(uint64_t phys, size_t size);
void tb_iounmap(volatile void *addr);
uint32_t tb_readl(const volatile void *addr);
void tb_writel(uint32_t value, volatile void *addr);

/* User memory. */
bool tb_access_ok(const void *addr, unsigned long size);
unsigned long tb_copy_from_user(void *to, const void *from, unsigned long n);
unsigned long tb_copy_to_user(void *to, const void *from, unsigned long n);

/* RCU read-side nesting. */
void tb_rcu_read_lock(void);
void tb_rcu_read_unlock(void);

/* Sleeping. */
void tb_msleep(unsigned int ms);

/* Mutexes (struct mutex of <linux/mutex.h>). */
struct mutex;
void tb_mutex_init(struct mutex *lock);
void tb_mutex_lock(struct mutex *lock);
int tb_mutex_trylock(struct mutex *lock);
void tb_mutex_unlock(struct mutex *lock);
void tb_mutex_destroy(struct mutex *lock);

#ifdef __cplusplus
}
#endif

#endif /* UCFG_TB_SHIM_H */
