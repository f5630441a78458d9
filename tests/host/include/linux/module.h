/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: module annotations are no-ops; __symbol_get()/__symbol_put()
 * reach the control-module simulator (tb::ctl).
 */
#ifndef UCFG_SHIM_LINUX_MODULE_H
#define UCFG_SHIM_LINUX_MODULE_H

#include <linux/export.h>
#include <linux/init.h>
#include <linux/types.h>

#define MODULE_LICENSE(x)
#define MODULE_DESCRIPTION(x)
#define MODULE_AUTHOR(x)
#define MODULE_VERSION(x)
#define MODULE_ALIAS(x)
#define MODULE_SOFTDEP(x)
#define MODULE_DEVICE_TABLE(type, name)

/* Keeps the entry referenced so that an unused static is no warning. */
#define module_init(fn)							\
	__attribute__((unused)) static int (*const __tb_module_init)(void) = fn
#define module_exit(fn)							\
	__attribute__((unused)) static void (*const __tb_module_exit)(void) = fn

#ifdef __cplusplus
extern "C" {
#endif
/* Address of an exported symbol with a reference held, or NULL. */
void *__symbol_get(const char *symbol);
/* Drops the reference taken by __symbol_get(). */
void __symbol_put(const char *symbol);
#ifdef __cplusplus
}
#endif

#endif
