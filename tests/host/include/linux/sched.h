/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: the task record. `current` is a per-thread record that the
 * test sets through tb::task (see tests/host/testbed.h).
 */
#ifndef UCFG_SHIM_LINUX_SCHED_H
#define UCFG_SHIM_LINUX_SCHED_H

#include <linux/types.h>
/* As in the kernel, where these arrive through the header's own includes. */
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/cred.h>
#include <linux/mm_types.h>
#include "ucfg_tb/shim.h"

#define TASK_COMM_LEN 16

struct task_struct {
	char comm[TASK_COMM_LEN];
	pid_t pid;
	pid_t tgid;
	struct mm_struct *mm;
	struct mm_struct *active_mm;
	const struct cred *cred;
	const struct cred *real_cred;
};

#define current (tb_current())

#endif
