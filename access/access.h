/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Access control and entry points: the request record, the device count,
 * the ioctl dispatch, the item operation engine, the process whitelist and
 * the kernel-facing item API.
 */
#ifndef UCFG_ACCESS_H
#define UCFG_ACCESS_H

#include <linux/types.h>

#include "uapi/user_cfg.h"

/* The entries accept at most this many devices. */
#define USER_CFG_DEV_NUM_MAX	2U

int devdrv_config_get_dev_num(u32 *dev_num);

#endif /* UCFG_ACCESS_H */
