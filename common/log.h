/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Log lines of the module.
 *
 * Every line starts with the same prefix: the platform tag, the module tag,
 * the name of the printing step, its source line, and the command name and
 * process id of the task the message was printed for. The step name is
 * __func__, so each step that a message names is a function of that name.
 * Error lines carry the word ERROR after the platform tag; the other three
 * levels do not.
 *
 * A file may set UCFG_LOG_TAG before including this header to print under
 * another module tag.
 */
#ifndef UCFG_COMMON_LOG_H
#define UCFG_COMMON_LOG_H

#include <linux/printk.h>
#include <linux/sched.h>
#include <linux/stringify.h>

#ifndef UCFG_LOG_TAG
#define UCFG_LOG_TAG "user_cfg_drv"
#endif

#define UCFG_ERR(fmt, ...)						\
	pr_err("[orvane] [ERROR] [%s] [%s %d] <%s:%d> " fmt,		\
	       UCFG_LOG_TAG, __func__, __LINE__, current->comm,		\
	       current->pid, ##__VA_ARGS__)

#define UCFG_WARN(fmt, ...)						\
	pr_warn("[orvane] [%s] [%s %d] <%s:%d> " fmt,			\
		UCFG_LOG_TAG, __func__, __LINE__, current->comm,	\
		current->pid, ##__VA_ARGS__)

#define UCFG_NOTICE(fmt, ...)						\
	pr_notice("[orvane] [%s] [%s %d] <%s:%d> " fmt,			\
		  UCFG_LOG_TAG, __func__, __LINE__, current->comm,	\
		  current->pid, ##__VA_ARGS__)

#define UCFG_INFO(fmt, ...)						\
	pr_info("[orvane] [%s] [%s %d] <%s:%d> " fmt,			\
		UCFG_LOG_TAG, __func__, __LINE__, current->comm,	\
		current->pid, ##__VA_ARGS__)

/*
 * Argument checks of the device-file operations. Each evaluates to true when
 * the argument is usable; otherwise it prints a warning that names the step,
 * the line and the condition that failed, and evaluates to false.
 */
#define UCFG_DRV_CHECK_TEXT(ok, text)					\
	({								\
		bool __ok = (ok);					\
		if (!__ok)						\
			UCFG_WARN("[%s %d] Drv_check:%s\n", __func__,	\
				  __LINE__, text);			\
		__ok;							\
	})

#define UCFG_DRV_CHECK_PTR(p)						\
	UCFG_DRV_CHECK_TEXT((p) != NULL,				\
			    "(" #p " != " __stringify(NULL) ")")

#define UCFG_DRV_CHECK_NONZERO(x)					\
	UCFG_DRV_CHECK_TEXT((x) != 0, "(" #x " != 0)")

#endif /* UCFG_COMMON_LOG_H */
