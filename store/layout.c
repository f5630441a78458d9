// SPDX-License-Identifier: GPL-2.0
/*
 * Limits of an item-head record and first-fit allocation of content space.
 *
 * Both work on memory only. The head check is the gate in front of every
 * read, write or move of an item's content: a record that fails it never
 * addresses flash. Allocation hands out content blocks 2 to 31 only, so as
 * long as the records are the store's own, blocks 1 and 33 are never touched.
 */
#include <linux/build_bug.h>
#include <linux/errno.h>
#include <linux/stddef.h>

#include "common/log.h"
#include "store/store.h"

static_assert(sizeof(struct user_cfg_item_head) == UCFG_ITEM_HEAD_SIZE);
static_assert(sizeof(struct user_cfg_blk_usage) == 4);
static_assert(sizeof(struct user_cfg_head_blk) == UCFG_BLK_SIZE);
static_assert(offsetof(struct user_cfg_head_blk, head_len) == 8192);
static_assert(offsetof(struct user_cfg_head_blk, item_head) == 8196);
static_assert(offsetof(struct user_cfg_head_blk, usage) == 65372);
static_assert(offsetof(struct user_cfg_head_blk, check_code) ==
	      UCFG_CHECK_CODE_OFFSET);
static_assert(offsetof(struct user_cfg_head_blk, valid_flag) == 65532);

int devdrv_user_cfg_head_check(const struct user_cfg_item_head *head)
{
	u32 total;

	if (!head) {
		UCFG_ERR("The input parameter is NULL.\n");
		return -EINVAL;
	}
	if (head->blk_offset > UCFG_BLK_MAIN_MASK) {
		UCFG_ERR("The block offset is error. (blk_offset=%u)\n",
			 head->blk_offset);
		return -EINVAL;
	}
	if (head->item_bytes > UCFG_ITEM_CONTENT_MAX) {
		UCFG_ERR("The item content length is error. (item_bytes=%u)\n",
			 head->item_bytes);
		return -EINVAL;
	}
	if (head->item_offset > UCFG_BLK_SIZE - 1) {
		UCFG_ERR("The item offset is error. (item_offset=%u)\n",
			 head->item_offset);
		return -EINVAL;
	}
	/* Both terms are bounded above, so the 32-bit sum cannot wrap. */
	total = head->item_offset + head->item_bytes + UCFG_SHA256_LEN;
	if (total > UCFG_SLOT_END_MAX) {
		UCFG_ERR("The total offset is error. (offset=%u)\n", total);
		return -EINVAL;
	}
	if (head->authority_flg > UCFG_ITEM_AUTHORITY_MAX) {
		UCFG_ERR("The authority value is error. (authority_flg=%u)\n",
			 head->authority_flg);
		return -EACCES;
	}
	if (head->valid_flg != UCFG_ITEM_VALID) {
		UCFG_ERR("The valid flag is error. (valid_flg=%u)\n",
			 head->valid_flg);
		return -EINVAL;
	}
	return 0;
}

/*
 * First fit over content blocks 2 to 31. A block in use is never searched
 * for holes: only its tail is free, and dead slots come back through the
 * rebuild. A free block takes the item without a size test because a slot
 * of at most 32,800 bytes always fits an empty block.
 */
int devdrv_config_get_item_blk_info(u8 *head_image,
				    struct user_cfg_item_head *head)
{
	struct user_cfg_head_blk *hb = ucfg_head(head_image);
	u32 need = head->item_bytes + UCFG_SHA256_LEN;
	u32 b;

	for (b = UCFG_CONTENT_FIRST_BLK; b <= UCFG_CONTENT_LAST_BLK; b++) {
		struct user_cfg_blk_usage *u = &hb->usage[b];

		if (u->use_flg == 1) {
			if (need >= UCFG_BLK_SIZE - u->used_bytes)
				continue;
			head->blk_offset = b;
			head->item_offset = u->used_bytes;
			u->used_bytes += need;
		} else {
			u->use_flg = 1;
			u->used_bytes = need;
			head->blk_offset = b;
			head->item_offset = 0;
		}
		UCFG_NOTICE("Find free space for content block success. (block=%u offset=%u size=%u)\n",
			    b, head->item_offset, need);
		return 0;
	}
	UCFG_ERR("Not enough space.\n");
	return -ENOSPC;
}
