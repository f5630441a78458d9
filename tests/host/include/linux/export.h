/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: symbol exports are plain external linkage. */
#ifndef UCFG_SHIM_LINUX_EXPORT_H
#define UCFG_SHIM_LINUX_EXPORT_H

#define EXPORT_SYMBOL(sym)		extern __typeof__(sym) sym
#define EXPORT_SYMBOL_GPL(sym)		extern __typeof__(sym) sym
#define EXPORT_SYMBOL_NS(sym, ns)	extern __typeof__(sym) sym
#define EXPORT_SYMBOL_NS_GPL(sym, ns)	extern __typeof__(sym) sym
#define THIS_MODULE			((struct module *)0)

struct module;

#endif
