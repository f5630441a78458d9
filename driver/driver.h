/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Driver frame: module start and stop, the device node and its ioctl
 * commands, and the CPU partition queries other modules call.
 */
#ifndef UCFG_DRIVER_H
#define UCFG_DRIVER_H

#include <linux/cdev.h>
#include <linux/device.h>
#include <linux/types.h>

#include "drv_user_cfg.h"

/* Physical boot configuration register and the bit the query returns. */
#define USER_CFG_BOOT_CFG_PAGE		0x8000E000UL
#define USER_CFG_BOOT_CFG_PAGE_SIZE	4096UL
#define USER_CFG_BOOT_CFG_OFFSET	0x8CU
#define USER_CFG_BOOT_CFG_MASK		0x20U

/* The device node object: one per module, from start to exit. */
struct infra_user_cfg_dev {
	u32 major;
	u32 minor;
	struct cdev cdev;
	struct class *dev_class;	/* null until the node is fully set up */
	u32 ctrl_cpu_num;		/* device tree CPU record, 0 if absent */
	u32 data_cpu_num;
	u32 aicpu_num;
};

/* The read-only view of the stores in debugfs (view_node.c). */
void dev_user_cfg_view_init(void);
void dev_user_cfg_view_exit(void);

#endif /* UCFG_DRIVER_H */
