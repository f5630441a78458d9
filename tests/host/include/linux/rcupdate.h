/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: RCU read sides. Nothing is ever freed under a reader in the
 * host build, so a read-side section only counts nesting (checked balanced
 * at the end of each test).
 */
#ifndef UCFG_SHIM_LINUX_RCUPDATE_H
#define UCFG_SHIM_LINUX_RCUPDATE_H

#include <linux/compiler.h>
#include "ucfg_tb/shim.h"

#define rcu_read_lock()		tb_rcu_read_lock()
#define rcu_read_unlock()	tb_rcu_read_unlock()
#define rcu_dereference(p)	READ_ONCE(p)
#define rcu_access_pointer(p)	READ_ONCE(p)

#endif
