/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Differences between the kernel versions the module is built for (5.10,
 * the target, and 6.x). Version tests live here and nowhere else.
 */
#ifndef UCFG_COMMON_COMPAT_H
#define UCFG_COMMON_COMPAT_H

#include <linux/version.h>
#include <linux/device.h>
#include <linux/fs.h>
#include <linux/fs_struct.h>
#include <linux/mm_types.h>
#include <linux/path.h>
#include <linux/rcupdate.h>
#include <linux/sched/task.h>

/*
 * A counted reference to the executable file of mm, or NULL. The file
 * stays valid until fput() even if the task execs or the mm drops it.
 * get_mm_exe_file() is not exported to modules on every version, so the
 * reference is taken here the way it does it.
 */
static inline struct file *ucfg_get_mm_exe_file(struct mm_struct *mm)
{
	struct file *exe;

	rcu_read_lock();
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 7, 0)
	exe = get_file_rcu(&mm->exe_file);
#else
	exe = rcu_dereference(mm->exe_file);
	if (exe && !get_file_rcu(exe))
		exe = NULL;
#endif
	rcu_read_unlock();
	return exe;
}

/*
 * Opens name as the host sees it: resolved from the root of the initial
 * task, in the initial mount namespace, whatever root and mount namespace
 * the calling task lives in. Kernel threads share that root, and it
 * follows the init process when early user space switches to the real
 * root. file_open_root() takes the root as a path from 5.12 on.
 */
static inline struct file *ucfg_open_host_file(const char *name, int flags)
{
	struct path root;
	struct file *file;

	get_fs_root(init_task.fs, &root);
#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 12, 0)
	file = file_open_root(&root, name, flags, 0);
#else
	file = file_open_root(root.dentry, root.mnt, name, flags, 0);
#endif
	path_put(&root);
	return file;
}

/* class_create() lost its owner argument in 6.4. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 4, 0)
#define ucfg_class_create(name) class_create(name)
#else
#define ucfg_class_create(name) class_create(THIS_MODULE, name)
#endif

/* The class devnode hook takes a const device from 6.2 on. */
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
#define UCFG_DEVNODE_CONST const
#else
#define UCFG_DEVNODE_CONST
#endif

#endif /* UCFG_COMMON_COMPAT_H */
