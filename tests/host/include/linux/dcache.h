/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: directory entries and d_path(). */
#ifndef UCFG_SHIM_LINUX_DCACHE_H
#define UCFG_SHIM_LINUX_DCACHE_H

#include <linux/types.h>
#include <linux/path.h>

struct qstr {
	u32 len;
	const unsigned char *name;
};

struct dentry {
	struct qstr d_name;
};

#define DNAME_INLINE_LEN 32

/* A stable copy of a dentry's name; must be released. */
struct name_snapshot {
	struct qstr name;
	unsigned char inline_name[DNAME_INLINE_LEN];
};

#ifdef __cplusplus
extern "C" {
#endif
/*
 * Renders the path at the END of buf (as the kernel does) and returns a
 * pointer into buf, or ERR_PTR(-ENAMETOOLONG) when it does not fit. Only
 * the executable path of the current task record can be rendered.
 */
char *d_path(const struct path *path, char *buf, int buflen);
void take_dentry_name_snapshot(struct name_snapshot *name,
			       struct dentry *dentry);
void release_dentry_name_snapshot(struct name_snapshot *name);
#ifdef __cplusplus
}
#endif

#endif
