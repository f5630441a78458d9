/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: open files. filp_open()/kernel_read()/filp_close() work on an
 * in-memory file table filled by the test (tb::files); the executable file
 * of a task comes from its task record (tb::task).
 */
#ifndef UCFG_SHIM_LINUX_FS_H
#define UCFG_SHIM_LINUX_FS_H

#include <fcntl.h>
#include <linux/types.h>
/* As in the kernel, where these arrive through the header's own includes. */
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/path.h>
#include <linux/dcache.h>

struct file {
	struct path f_path;
	loff_t f_pos;
	unsigned int f_flags;
	void *private_data;
	void *tb_owner;		/* test bed: the record this file belongs to */
};

#ifdef __cplusplus
extern "C" {
#endif
struct file *filp_open(const char *filename, int flags, umode_t mode);
int filp_close(struct file *filp, fl_owner_t id);
ssize_t kernel_read(struct file *file, void *buf, size_t count, loff_t *pos);
/*
 * A new reference to a task's executable file (5.10 semantics: true when
 * taken). Dropped with fput(); counted by tb::task::exe_refs().
 */
bool get_file_rcu(struct file *file);
struct file *get_file(struct file *file);
#ifdef __cplusplus
}
#endif

#endif
