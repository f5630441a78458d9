/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: slab allocations, accounted and fault-injectable (tb::alloc). */
#ifndef UCFG_SHIM_LINUX_SLAB_H
#define UCFG_SHIM_LINUX_SLAB_H

#include <linux/types.h>
#include <linux/gfp.h>
#include "ucfg_tb/shim.h"

static inline void *kmalloc(size_t size, gfp_t flags)
{
	return tb_alloc(size, flags, TB_ALLOC_KMALLOC);
}

static inline void *kzalloc(size_t size, gfp_t flags)
{
	return tb_alloc(size, flags | __GFP_ZERO, TB_ALLOC_KMALLOC);
}

static inline void *kcalloc(size_t n, size_t size, gfp_t flags)
{
	if (size != 0 && n > (size_t)-1 / size)
		return (void *)0;
	return tb_alloc(n * size, flags | __GFP_ZERO, TB_ALLOC_KMALLOC);
}

static inline void kfree(const void *objp)
{
	tb_free(objp, TB_ALLOC_KMALLOC);
}

#endif
