/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: file references. */
#ifndef UCFG_SHIM_LINUX_FILE_H
#define UCFG_SHIM_LINUX_FILE_H

#include <linux/fs.h>
#include <linux/mm_types.h>

#ifdef __cplusplus
extern "C" {
#endif
/* Drops a reference taken by get_mm_exe_file(). */
void fput(struct file *file);
/* The executable file of mm with a new reference, or NULL. */
struct file *get_mm_exe_file(struct mm_struct *mm);
#ifdef __cplusplus
}
#endif

#endif
