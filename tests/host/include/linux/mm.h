/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: memory-map helpers (get_mm_exe_file lives in linux/file.h). */
#ifndef UCFG_SHIM_LINUX_MM_H
#define UCFG_SHIM_LINUX_MM_H

#include <linux/mm_types.h>
#include <linux/file.h>

#endif
