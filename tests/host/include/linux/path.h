/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: a path is a dentry (no mounts in the host build). */
#ifndef UCFG_SHIM_LINUX_PATH_H
#define UCFG_SHIM_LINUX_PATH_H

struct dentry;
struct vfsmount;

struct path {
	struct vfsmount *mnt;
	struct dentry *dentry;
};

#endif
