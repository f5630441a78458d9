/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the memory map of a task, as far as its executable file. */
#ifndef UCFG_SHIM_LINUX_MM_TYPES_H
#define UCFG_SHIM_LINUX_MM_TYPES_H

struct file;

struct mm_struct {
	struct file *exe_file;
};

#endif
