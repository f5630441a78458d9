/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the kernel log, captured by the test bed with its level. */
#ifndef UCFG_SHIM_LINUX_PRINTK_H
#define UCFG_SHIM_LINUX_PRINTK_H

#include "ucfg_tb/shim.h"

#define KERN_SOH	"\001"
#define KERN_EMERG	KERN_SOH "0"
#define KERN_ALERT	KERN_SOH "1"
#define KERN_CRIT	KERN_SOH "2"
#define KERN_ERR	KERN_SOH "3"
#define KERN_WARNING	KERN_SOH "4"
#define KERN_NOTICE	KERN_SOH "5"
#define KERN_INFO	KERN_SOH "6"
#define KERN_DEBUG	KERN_SOH "7"

#ifndef pr_fmt
#define pr_fmt(fmt) fmt
#endif

#define printk(fmt, ...)	tb_printk_raw(fmt, ##__VA_ARGS__)
#define pr_emerg(fmt, ...)	tb_printk(TB_LOG_ERR, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_alert(fmt, ...)	tb_printk(TB_LOG_ERR, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_crit(fmt, ...)	tb_printk(TB_LOG_ERR, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_err(fmt, ...)	tb_printk(TB_LOG_ERR, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_warn(fmt, ...)	tb_printk(TB_LOG_WARNING, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_notice(fmt, ...)	tb_printk(TB_LOG_NOTICE, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_info(fmt, ...)	tb_printk(TB_LOG_INFO, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_debug(fmt, ...)	tb_printk(TB_LOG_DEBUG, pr_fmt(fmt), ##__VA_ARGS__)
#define pr_warning pr_warn

#endif
