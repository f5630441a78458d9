/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: register access, backed by the register emulation (tb::regs). */
#ifndef UCFG_SHIM_LINUX_IO_H
#define UCFG_SHIM_LINUX_IO_H

#include <linux/types.h>
#include <linux/compiler.h>
#include "ucfg_tb/shim.h"

static inline void __iomem *ioremap(phys_addr_t offset, size_t size)
{
	return tb_ioremap(offset, size);
}

static inline void iounmap(volatile void __iomem *addr)
{
	tb_iounmap(addr);
}

static inline u32 readl(const volatile void __iomem *addr)
{
	return tb_readl(addr);
}

static inline void writel(u32 value, volatile void __iomem *addr)
{
	tb_writel(value, addr);
}

#define readl_relaxed(addr)		readl(addr)
#define writel_relaxed(value, addr)	writel(value, addr)
#define mb()	__atomic_thread_fence(__ATOMIC_SEQ_CST)
#define rmb()	__atomic_thread_fence(__ATOMIC_ACQUIRE)
#define wmb()	__atomic_thread_fence(__ATOMIC_RELEASE)

#endif
