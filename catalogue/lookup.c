// SPDX-License-Identifier: GPL-2.0
/*
 * The catalogue of static items and the resolution of an item name.
 *
 * Every name goes through the lookup, static or not, and the lookup needs
 * the board id: while the board-id register cannot be read, no item at all
 * can be addressed. The board id is read until one read succeeds and then
 * kept for the module's life.
 */
#include <linux/compiler.h>
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/io.h>
#include <linux/string.h>

#include "common/log.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

const struct user_cfg_item_desc user_cfg_version_1[USER_CFG_ITEM_NUM] = {
	{ "cpu_num_cfg", USER_CFG_BOARD_ANY, 0, 17, USER_CFG_AUTH_WHITELIST,
	  "0x010007", NULL },
	{ "p2p_mem_cfg", USER_CFG_BOARD_ANY, 17, 5, USER_CFG_AUTH_WHITELIST,
	  "0x0400", NULL },
	{ "ddr_ecc_enable", USER_CFG_BOARD_ANY, 22, 2, USER_CFG_AUTH_WHITELIST,
	  "0x01", ddr_ecc_enable_check_para },
	{ "ccpu_usr_cert_hash", USER_CFG_BOARD_ANY, 24, 1025,
	  USER_CFG_AUTH_WHITELIST, "0x00", NULL },
	{ "usershadow", USER_CFG_BOARD_ANY, 1049, 2049, USER_CFG_AUTH_ROOT,
	  "0x00", NULL },
	{ "ssh_status", USER_CFG_BOARD_ANY, 3098, 2, USER_CFG_AUTH_WHITELIST,
	  "0x00", ssh_status_check_para },
};

/* -1 until the register has been read once; then the board id. */
static s32 g_devdrv_boardid = -1;

static s32 devdrv_get_boardid_by_reg(void)
{
	s32 board_id = READ_ONCE(g_devdrv_boardid);
	void __iomem *base;

	if (board_id != -1) {
		UCFG_INFO("The value of board_id. (board_id=%d)\n", board_id);
		return board_id;
	}

	base = ioremap(USER_CFG_BOARD_REG_BASE, USER_CFG_BOARD_REG_SIZE);
	if (!base) {
		UCFG_ERR("The ioremap function return NULL.\n");
		return -1;
	}
	board_id = (s32)(readl(base + USER_CFG_BOARD_ID_OFFSET) & 0xffffU);
	iounmap(base);

	/* Concurrent first lookups store the same value in one store. */
	WRITE_ONCE(g_devdrv_boardid, board_id);
	UCFG_INFO("The value of board_id. (board_id=%d)\n", board_id);
	return board_id;
}

/**
 * devdrv_get_config_index_by_name() - Resolve an item name.
 * @name: item name, compared over at most 32 bytes (a shorter name ends at
 *	its NUL).
 *
 * The catalogue rows are matched by name and by the board id, which is
 * read from its register on the first call and cached for the module's
 * life.
 *
 * Context: Process context; may sleep on the first call (maps the board-id
 * register). Takes no lock.
 * Return: the catalogue index 0 to 5; -1 when @name is no catalogue item of
 * this board (callers treat it as a named item); -EINVAL for a null @name;
 * -ENODEV when the board id cannot be read.
 */
int devdrv_get_config_index_by_name(const char *name)
{
	s32 board_id;
	int i;

	/* Exported: a caller's null name is refused, not dereferenced. */
	if (!name) {
		UCFG_ERR("The input parameter is NULL.\n");
		return -EINVAL;
	}
	board_id = devdrv_get_boardid_by_reg();
	if (board_id < 0) {
		UCFG_ERR("Unable to get board id.\n");
		return -ENODEV;
	}
	for (i = 0; i < USER_CFG_ITEM_NUM; i++) {
		const struct user_cfg_item_desc *row = &user_cfg_version_1[i];

		if (strncmp(row->name, name, UCFG_ITEM_NAME_LEN) != 0)
			continue;
		if (row->config_board_id != board_id &&
		    row->config_board_id != USER_CFG_BOARD_ANY)
			continue;
		UCFG_INFO("Board ID matchs. (board_id=%u; config_board_id=%d)\n",
			  board_id, row->config_board_id);
		return i;
	}
	return -1;
}
EXPORT_SYMBOL(devdrv_get_config_index_by_name);
