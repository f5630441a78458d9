/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Item catalogue and static items.
 *
 * The catalogue is the compiled-in list of static items: where each item's
 * record lies in the static area of the head block, how long it is, who may
 * change it and what it reads as when nothing is stored. A name the
 * catalogue does not know names a dynamic item.
 */
#ifndef UCFG_CATALOGUE_H
#define UCFG_CATALOGUE_H

#include <linux/types.h>

#include "drv_user_cfg.h"

#define USER_CFG_ITEM_NUM	6
#define USER_CFG_BOARD_ANY	(-1)

/* Access classes of static items (and the range of a dynamic item's). */
#define USER_CFG_AUTH_ROOT	0U	/* every request needs CAP_SYS_ADMIN */
#define USER_CFG_AUTH_WHITELIST	1U	/* set and clear need the whitelist */
#define USER_CFG_AUTH_READ_ONLY	2U	/* set and clear refused */

/* Catalogue indices. */
#define USER_CFG_IDX_CPU_NUM_CFG	0
#define USER_CFG_IDX_SSH_STATUS		5

/* Physical registers of the platform. */
#define USER_CFG_BOARD_REG_BASE		0x80000000UL
#define USER_CFG_BOARD_REG_SIZE		0x10000UL
#define USER_CFG_BOARD_ID_OFFSET	0xF07CU

struct user_cfg_item_desc {
	const char *name;
	s32 config_board_id;	/* -1: every board */
	u32 offset;		/* record at head byte 4 + offset */
	u32 size;		/* record length, valid byte included */
	u32 authority;
	const char *default_value;	/* "0x" and hex digit pairs */
	int (*check_para)(u32 selector, const u8 *value);
};

extern const struct user_cfg_item_desc user_cfg_version_1[USER_CFG_ITEM_NUM];

int devdrv_config_get_default(const struct user_cfg_item_desc *row, u8 *buf,
			      u32 *buf_size);
int devdrv_config_get_default_dts_cpu_config(u8 *buf, u32 *buf_size,
					     const struct user_cfg_item_desc *row);
int ddr_ecc_enable_check_para(u32 selector, const u8 *value);
int ssh_status_check_para(u32 selector, const u8 *value);

int devdrv_config_get_cpu_cfg(u32 dev_id, u8 *buf, u32 buf_size);

#endif /* UCFG_CATALOGUE_H */
