/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: virtual-memory allocations, accounted and fault-injectable
 * (tb::alloc). Memory that is not asked to be zeroed is filled with a
 * junk pattern, so code that relies on zero-fill it did not request fails.
 */
#ifndef UCFG_SHIM_LINUX_VMALLOC_H
#define UCFG_SHIM_LINUX_VMALLOC_H

#include <linux/types.h>
#include <linux/gfp.h>
#include "ucfg_tb/shim.h"

static inline void *vmalloc(unsigned long size)
{
	return tb_alloc(size, GFP_KERNEL, TB_ALLOC_VMALLOC);
}

static inline void *vzalloc(unsigned long size)
{
	return tb_alloc(size, GFP_KERNEL | __GFP_ZERO, TB_ALLOC_VMALLOC);
}

static inline void *__vmalloc(unsigned long size, gfp_t gfp_mask)
{
	return tb_alloc(size, gfp_mask, TB_ALLOC_VMALLOC);
}

static inline void vfree(const void *addr)
{
	tb_free(addr, TB_ALLOC_VMALLOC);
}

#endif
