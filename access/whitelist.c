// SPDX-License-Identifier: GPL-2.0
/*
 * Process whitelist: is the calling process one of the trusted daemons?
 *
 * Two independent stages: the file name of the caller's executable must be
 * in the list the caller of the check passes in, and then the caller's real
 * user id, executable name and full executable path must together match a
 * row of the fixed table below. The superuser gets no pass.
 *
 * The executable is the file the caller's memory map was executed from,
 * not the task's command name, which any thread can change. That file is
 * pinned by a counted reference for the whole check, so it cannot be
 * released or replaced while its name and path are read, and the name is
 * read from a snapshot of its directory entry, which a concurrent rename
 * cannot tear.
 *
 * The name and the path are what the caller's own root and mount namespace
 * make of the file: a process can build a namespace in which any program
 * sits at a trusted path. The table names files as the host sees them, so
 * the identity stage also requires that the file at the row's path, looked
 * up from the host's root, is the very file the caller runs (same inode of
 * the same filesystem). A daemon in a private mount namespace of its own
 * (as service managers' sandboxing gives it) still runs the host's file
 * and passes; an impostor does not.
 */
#define UCFG_LOG_TAG "whitelist"

#include <linux/cred.h>
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/fcntl.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/path.h>
#include <linux/sched.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/compat.h"
#include "common/log.h"
#include "access/access.h"

#define WHITELIST_NAME_NUM_MAX	50U
#define WHITELIST_PATH_LEN	4096

struct whitelist_daemon {
	u32 uid;
	const char *name;
	const char *path;
};

static const struct whitelist_daemon whitelist_daemons[] = {
	{ 1101, "devmgr_daemon", "/var/devmgr_daemon" },
	{ 1000, "sched_daemon", "/var/sched_daemon" },
};

/* The caller's executable, pinned for the duration of one check. */
struct whitelist_exe {
	struct file *file;
	struct name_snapshot name;
	bool named;
};

#define WHITELIST_NO_MM		1
#define WHITELIST_NO_EXE_FILE	2

/*
 * 0 once the executable is pinned, else which link to it is missing. The
 * caller reports it, so that the message names the step that needed it.
 */
static int whitelist_pin_exe(struct whitelist_exe *exe)
{
	struct mm_struct *mm = current->active_mm;

	if (exe->file)
		return 0;
	if (!mm)
		return WHITELIST_NO_MM;
	exe->file = ucfg_get_mm_exe_file(mm);
	if (!exe->file)
		return WHITELIST_NO_EXE_FILE;
	return 0;
}

static void whitelist_release_exe(struct whitelist_exe *exe)
{
	if (exe->named)
		release_dentry_name_snapshot(&exe->name);
	if (exe->file)
		fput(exe->file);
}

static int whitelist_get_cur_process_name(struct whitelist_exe *exe,
					  const char **name, u32 *len)
{
	struct dentry *dentry;

	switch (whitelist_pin_exe(exe)) {
	case WHITELIST_NO_MM:
		UCFG_ERR("The active_mm parameter is NULL.\n");
		return -1;
	case WHITELIST_NO_EXE_FILE:
		UCFG_ERR("The exe_file parameter is NULL.\n");
		return -1;
	}
	dentry = exe->file->f_path.dentry;
	if (!dentry) {
		UCFG_ERR("The exe_file f_path_dentry is NULL.\n");
		return -1;
	}
	if (exe->named)
		release_dentry_name_snapshot(&exe->name);
	take_dentry_name_snapshot(&exe->name, dentry);
	exe->named = true;
	*name = (const char *)exe->name.name.name;
	*len = (u32)strlen(*name);
	return 0;
}

static int whitelist_check_process_name(struct whitelist_exe *exe,
					const char *const *name_list,
					u32 name_num)
{
	const char *name = NULL;
	u32 len = 0, i;
	int ret;

	ret = whitelist_get_cur_process_name(exe, &name, &len);
	if (ret != 0) {
		UCFG_ERR("The whitelist_get_cur_process_name failed. (ret=%d)\n",
			 ret);
		return -1;
	}
	if (!name) {
		UCFG_ERR("Current process file point is NULL.\n");
		return -1;
	}
	for (i = 0; i < name_num; i++) {
		if (strlen(name_list[i]) == len &&
		    memcmp(name_list[i], name, len) == 0)
			return 0;
	}
	UCFG_ERR("Process name not in whitelist.\n");
	return -1;
}

static int whitelist_get_current_path(struct whitelist_exe *exe, char **buf,
				      const char **path)
{
	char *res;

	*buf = vzalloc(WHITELIST_PATH_LEN);
	if (!*buf) {
		UCFG_ERR("File path vmalloc failed.\n");
		return -1;
	}
	switch (whitelist_pin_exe(exe)) {
	case WHITELIST_NO_MM:
		UCFG_ERR("The active_mm parameter is NULL.\n");
		return -1;
	case WHITELIST_NO_EXE_FILE:
		UCFG_ERR("The exe_file parameter is NULL.\n");
		return -1;
	}
	res = d_path(&exe->file->f_path, *buf, WHITELIST_PATH_LEN);
	if (IS_ERR_OR_NULL(res)) {
		UCFG_ERR("The res is err or null. (errno=%ld)\n",
			 res ? PTR_ERR(res) : 0L);
		return -1;
	}
	*path = res;
	return 0;
}

/* True when the file at path, as the host sees it, is the file exe. */
static bool whitelist_is_host_file(struct file *exe, const char *path)
{
	struct inode *mine = file_inode(exe);
	struct file *host;
	bool same;

	host = ucfg_open_host_file(path, O_PATH);
	if (IS_ERR(host))
		return false;
	same = file_inode(host)->i_sb == mine->i_sb &&
	       file_inode(host)->i_ino == mine->i_ino;
	filp_close(host, NULL);
	return same;
}

static int whitelist_match_uid_path(struct whitelist_exe *exe,
				    const char *name, const char *path)
{
	u32 uid = __kuid_val(current_uid());
	size_t i;

	for (i = 0; i < ARRAY_SIZE(whitelist_daemons); i++) {
		const struct whitelist_daemon *d = &whitelist_daemons[i];

		if (uid != d->uid)
			continue;
		if (strcmp(name, d->name) == 0 && strcmp(path, d->path) == 0 &&
		    whitelist_is_host_file(exe->file, d->path))
			return 0;
		break;
	}
	/* Both come from the caller's file system: escaped, one log line. */
	UCFG_ERR("match fail. (proc name=\"%*pE\";path=\"%*pE\";uid=%u)\n",
		 (int)strlen(name), name, (int)strlen(path), path, uid);
	return -ENXIO;
}

static int whitelist_check_process_info(struct whitelist_exe *exe)
{
	const char *name = NULL, *path = NULL;
	char *buf = NULL;
	u32 len = 0;
	int ret;

	/* A fresh read of the name, from the same pinned file. */
	ret = whitelist_get_cur_process_name(exe, &name, &len);
	if (ret != 0) {
		UCFG_ERR("The whitelist_get_cur_process_name failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	/* The path buffer is taken by the step that fills it, freed here. */
	ret = whitelist_get_current_path(exe, &buf, &path);
	if (ret == 0)
		ret = whitelist_match_uid_path(exe, name, path);
	vfree(buf);
	return ret;
}

/**
 * whitelist_process_handler() - Check that the caller is a trusted daemon.
 * @name_list: array of @name_num NUL-terminated executable names.
 * @name_num: number of names in @name_list, at most 50.
 *
 * The calling task passes when the file name of its executable (not its
 * command name, which a task may change) is in @name_list and its real
 * user id, executable name and full executable path match a row of the
 * module's table of trusted daemons.
 *
 * Context: Process context of the task to be checked; sleeps. Takes no
 * flash lock and must not be called with one held.
 * Return: 0 when the caller passes; -1 for a bad argument, an executable
 * that cannot be determined or a name not in @name_list; -ENXIO when no
 * row of the daemon table matches.
 */
int whitelist_process_handler(const char *const *name_list, u32 name_num)
{
	struct whitelist_exe exe = { 0 };
	u32 i;
	int ret;

	if (!name_list || name_num > WHITELIST_NAME_NUM_MAX) {
		UCFG_ERR("List name para is incorrect. (name_num=%u)\n", name_num);
		return -1;
	}
	for (i = 0; i < name_num; i++) {
		if (!name_list[i]) {
			UCFG_ERR("Input process name is NULL. (i=%u)\n", i);
			return -1;
		}
	}

	ret = whitelist_check_process_name(&exe, name_list, name_num);
	if (ret != 0) {
		UCFG_ERR("The whitelist_check_process_name failed. (ret=%d)\n", -1);
		ret = -1;
		goto release;
	}
	ret = whitelist_check_process_info(&exe);
	if (ret != 0)
		UCFG_ERR("The whitelist_check_process_info failed. (ret=%d)\n", ret);

release:
	whitelist_release_exe(&exe);
	return ret;
}
EXPORT_SYMBOL(whitelist_process_handler);
