/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel API the module uses, mapped onto user space.
 *
 * Every kernel header the module includes is a stub under its kernel name
 * that includes this file, so the module's own sources build unchanged as
 * user-space C: for the host tests and for the offline image tool. What is
 * plain mapping (types, compiler words, string helpers, SHA-256 of the
 * host's libcrypto) is done here; every service that comes from outside the
 * module (memory, the log, the flash, the current task, mutexes, registers,
 * files, sleeping, the control module) ends in a shim_* hook that the test
 * bed implements with simulators and fault injection, and the image tool
 * with plain services. Nothing here knows anything of the module.
 *
 * C++ code (the test bed, the image tool's runtime) sees the types and the
 * hooks only; the kernel's macros would clash with its library.
 */
#ifndef UCFG_SHIM_H
#define UCFG_SHIM_H

#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <linux/types.h>
#include <linux/errno.h>
#include <linux/ioctl.h>
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef __u8 u8;
typedef __u16 u16;
typedef __u32 u32;
typedef __u64 u64;
typedef __s8 s8;
typedef __s16 s16;
typedef __s32 s32;
typedef __s64 s64;
typedef u64 phys_addr_t;
typedef unsigned int gfp_t;
typedef unsigned short umode_t;

/* Files, the current task, its credentials and executable. */
struct inode {
	umode_t i_mode;
	unsigned long i_ino;
	struct super_block *i_sb;
};
struct qstr {
	u32 len;
	const unsigned char *name;
};
struct dentry {
	struct qstr d_name;
	const char *shim_path;	/* what d_path() renders */
};
struct path {
	struct vfsmount *mnt;
	struct dentry *dentry;
};
struct file {
	struct path f_path;
	struct inode *f_inode;
	void *private_data;
};
struct mm_struct {
	struct file *exe_file;
};
typedef struct kuid {
	uid_t val;
} kuid_t;
struct cred {
	kuid_t uid;
};
struct task_struct {
	char comm[16];
	pid_t pid;
	struct mm_struct *active_mm;
	const struct cred *cred;
	struct fs_struct *fs;
	u64 shim_caps;
};
struct mutex {
	pthread_mutex_t m;
};
struct cdev {
	int unused;
};
struct crypto_shash {
	int unused;
};
struct shash_desc {
	struct crypto_shash *tfm;
	SHA256_CTX ctx;
};
struct name_snapshot {
	struct qstr name;
	unsigned char inline_name[256];
};

/* The hooks. */
__attribute__((format(printf, 2, 3))) void shim_printk(int level, const char *fmt, ...);
void *shim_alloc(size_t size, gfp_t gfp);
void shim_free(const void *p);
struct task_struct *shim_current(void);
extern struct task_struct init_task;
void shim_mutex_init(struct mutex *lock);
void shim_mutex_lock(struct mutex *lock);
void shim_mutex_unlock(struct mutex *lock);
bool get_file_rcu(struct file *f);
void fput(struct file *f);
struct file *shim_file_open(const char *name, int flags);
ssize_t shim_file_read(struct file *f, void *buf, size_t n, loff_t *pos);
void *shim_ioremap(phys_addr_t addr, size_t size);
void shim_iounmap(void *addr);
u32 shim_readl(const void *addr);
void shim_msleep(unsigned int ms);
void *__symbol_get(const char *name);
void __symbol_put(const char *name);


/* Kernel words that module headers use, safe in C++ too. */
#define __user
#define __iomem
#define __rcu
#define __GFP_ZERO	0x100u
#define __GFP_ACCOUNT	0x400000u
#define GFP_KERNEL	0xcc0u
#define GFP_KERNEL_ACCOUNT	(GFP_KERNEL | __GFP_ACCOUNT)
#define vmalloc(n)	shim_alloc((n), GFP_KERNEL)
#define vzalloc(n)	shim_alloc((n), GFP_KERNEL | __GFP_ZERO)
#define __vmalloc(n, g)	shim_alloc((n), (g))
#define kzalloc(n, g)	shim_alloc((n), (g) | __GFP_ZERO)
#define vfree(p)	shim_free(p)
#define kfree(p)	shim_free(p)

#ifdef __cplusplus
}
#else /* the kernel's names, for the module's C */

#define KERNEL_VERSION(a, b, c)	(((a) << 16) + ((b) << 8) + (c))
#define LINUX_VERSION_CODE	KERNEL_VERSION(5, 10, 0)
struct class;

/* Compiler words and memory ordering. */
#define __init
#define __exit
#define __printf(a, b)	__attribute__((format(printf, a, b)))
#define likely(x)	__builtin_expect(!!(x), 1)
#define unlikely(x)	__builtin_expect(!!(x), 0)
#define READ_ONCE(x)	__atomic_load_n(&(x), __ATOMIC_RELAXED)
#define WRITE_ONCE(x, v)	__atomic_store_n(&(x), (v), __ATOMIC_RELAXED)
#define smp_load_acquire(p)	__atomic_load_n((p), __ATOMIC_ACQUIRE)
#define smp_store_release(p, v)	__atomic_store_n((p), (v), __ATOMIC_RELEASE)
#undef static_assert
#define static_assert(e, ...)	_Static_assert(e, #e)
#define BUILD_BUG_ON(c)	static_assert(!(c), #c)
#define __stringify_1(x)	#x
#define __stringify(x)	__stringify_1(x)

/* <linux/kernel.h>, <linux/err.h>. */
#define ARRAY_SIZE(a)	(sizeof(a) / sizeof((a)[0]))
#define U16_MAX		((u16)~0U)
#define U32_MAX		((u32)~0U)
#define min(x, y)	((x) < (y) ? (x) : (y))
#define max(x, y)	((x) > (y) ? (x) : (y))
#define min_t(t, x, y)	((t)(x) < (t)(y) ? (t)(x) : (t)(y))
#define max_t(t, x, y)	((t)(x) > (t)(y) ? (t)(x) : (t)(y))
#define container_of(p, t, m)	((t *)(void *)((char *)(p) - offsetof(t, m)))
#define u64_to_user_ptr(x)	((void *)(uintptr_t)(x))
#define simple_strtol(s, e, b)	strtol((s), (e), (int)(b))
static inline int vscnprintf(char *b, size_t n, const char *f, va_list ap)
{
	int r = n ? vsnprintf(b, n, f, ap) : 0;

	return r < 0 ? 0 : (size_t)r >= n ? (int)n - (n > 0) : r;
}
#define MAX_ERRNO	4095
static inline void *ERR_PTR(long e) { return (void *)e; }
static inline long PTR_ERR(const void *p) { return (long)p; }
static inline bool IS_ERR(const void *p)
{
	return (unsigned long)p >= (unsigned long)-MAX_ERRNO;
}
static inline bool IS_ERR_OR_NULL(const void *p) { return !p || IS_ERR(p); }

/* The log: pr_* print through the test bed with their kernel level. */
#define pr_err(...)	shim_printk(3, __VA_ARGS__)
#define pr_warn(...)	shim_printk(4, __VA_ARGS__)
#define pr_notice(...)	shim_printk(5, __VA_ARGS__)
#define pr_info(...)	shim_printk(6, __VA_ARGS__)

/* Modules: exports are plain functions, module hooks vanish. */
#define THIS_MODULE		((struct module *)0)
#define EXPORT_SYMBOL(s)	extern __typeof__(s) s
#define EXPORT_SYMBOL_GPL(s)	extern __typeof__(s) s
#define MODULE_LICENSE(x)
#define MODULE_DESCRIPTION(x)
#define MODULE_VERSION(x)

/* User memory is the caller's own memory here. */
#define access_ok(p, n)	true
static inline unsigned long copy_from_user(void *to, const void *from,
					   unsigned long n)
{
	memcpy(to, from, n);
	return 0;
}

static inline unsigned long copy_to_user(void *to, const void *from,
					 unsigned long n)
{
	memcpy(to, from, n);
	return 0;
}

/* Mutexes. */
struct lock_class_key {
	int unused;
};
#define __MUTEX_INITIALIZER(n)	{ PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP }
#define DEFINE_MUTEX(n)	struct mutex n = __MUTEX_INITIALIZER(n)
#define __mutex_init(l, name, key)	shim_mutex_init(l)
#define mutex_init(l)	shim_mutex_init(l)
#define mutex_lock(l)	shim_mutex_lock(l)
#define mutex_unlock(l)	shim_mutex_unlock(l)

/* The current task. */
#define current		shim_current()
#define current_uid()	(current->cred->uid)
#define __kuid_val(k)	((k).val)
#define CAP_SYS_ADMIN	21
#define capable(cap)	((current->shim_caps >> (cap)) & 1)
#define rcu_read_lock()
#define rcu_read_unlock()
#define rcu_dereference(p)	(p)
#define file_inode(f)	((f)->f_inode)
#define filp_close(f, id)	fput(f)
static inline void take_dentry_name_snapshot(struct name_snapshot *s,
					     struct dentry *d)
{
	snprintf((char *)s->inline_name, sizeof(s->inline_name), "%s",
		 (const char *)d->d_name.name);
	s->name.name = s->inline_name;
}

#define release_dentry_name_snapshot(s)	((void)(s))
static inline char *d_path(const struct path *p, char *buf, int len)
{
	size_t n = strlen(p->dentry->shim_path) + 1;

	if (n > (size_t)len)
		return (char *)ERR_PTR(-ENAMETOOLONG);
	return (char *)memcpy(buf + len - n, p->dentry->shim_path, n);
}

/* Files are opened as the host sees them: the hooks serve them. */
#define get_fs_root(fs, root)	memset((root), 0, sizeof(*(root)))
#define path_put(p)	((void)(p))
#define file_open_root(d, m, name, fl, mode)	shim_file_open((name), (fl))
#define kernel_read(f, b, n, pos)	shim_file_read((f), (b), (n), (pos))

/* Registers and sleeping. */
#define ioremap(a, n)	shim_ioremap((a), (n))
#define iounmap(a)	shim_iounmap(a)
#define readl(a)	shim_readl(a)
#define msleep(ms)	shim_msleep(ms)

/* SHA-256: the transform is an allocation, the digest the host's own. */
#define SHASH_DESC_ON_STACK(d, tfm)	\
	struct shash_desc d##_on_stack, *d = &d##_on_stack
static inline struct crypto_shash *crypto_alloc_shash(const char *name,
						      u32 type, u32 mask)
{
	void *t = shim_alloc(sizeof(struct crypto_shash), GFP_KERNEL);

	return t ? t : ERR_PTR(-ENOMEM);
}

#define crypto_free_shash(t)	shim_free(t)
#define crypto_shash_init(d)	(SHA256_Init(&(d)->ctx) ? 0 : -EINVAL)
#define crypto_shash_update(d, p, n)	(SHA256_Update(&(d)->ctx, (p), (n)) ? 0 : -EINVAL)
#define crypto_shash_final(d, out)	(SHA256_Final((out), &(d)->ctx) ? 0 : -EINVAL)
#define shash_desc_zero(d)	memset((d), 0, sizeof(*(d)))

#endif /* __cplusplus */

#endif /* UCFG_SHIM_H */
