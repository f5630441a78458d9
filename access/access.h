/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Access control and entry points: the request record, the device count,
 * the ioctl dispatch, the item operation engine, the process whitelist and
 * the kernel-facing item API.
 */
#ifndef UCFG_ACCESS_H
#define UCFG_ACCESS_H

#include <linux/compiler.h>
#include <linux/types.h>

#include "drv_user_cfg.h"
#include "uapi/user_cfg.h"

/* The entries accept at most this many devices. */
#define USER_CFG_DEV_NUM_MAX	2U

struct file;

int devdrv_config_get_dev_num(u32 *dev_num);

int devdrv_user_config_op(struct user_cfg_para *para, int cmd,
			  struct user_cfg_para __user *user_para);
int devdrv_config_ioctl(struct file *file, unsigned int cmd,
			unsigned long arg);

/* Room for the view of any store: every record, with the longest name. */
#define UCFG_VIEW_SIZE	(256U * 1024U)
int devdrv_config_view(u32 dev_id, char *buf, u32 size);

#endif /* UCFG_ACCESS_H */
