// SPDX-License-Identifier: GPL-2.0
/*
 * Compaction of the content blocks.
 *
 * Space of cleared, moved and shrunken items comes back only here. The
 * rebuild first brings both copies of every content block in step item by
 * item, then packs the live slots of each block from offset 0 in record
 * order (each block in a scratch image of its own, so a slot is never
 * copied over one that has not moved yet), and writes all main content
 * blocks, the main head, all backup content blocks and the backup head, in
 * that order. Until the main head is written both heads describe the old
 * layout, which the backup blocks still hold; from then on the main copy is
 * complete. No item changes block.
 */
#include <linux/errno.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

#define REBUILD_WRITE_NUM	62U
#define REBUILD_MAIN_HEAD_ENTRY	30U
#define REBUILD_BK_HEAD_ENTRY	61U

static int devdrv_config_move_item_content(u8 *head_image, u32 blk,
					   const u8 *image, u8 *scratch,
					   u32 *pos_out)
{
	struct user_cfg_head_blk *hb = ucfg_head(head_image);
	u32 head_num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	u32 pos = 0, i;
	int ret;

	for (i = 0; i < head_num; i++) {
		struct user_cfg_item_head *rec = &hb->item_head[i];

		if (rec->blk_offset != blk || rec->valid_flg != UCFG_ITEM_VALID)
			continue;
		if (pos > UCFG_SLOT_END_MAX) {
			UCFG_ERR("The start pos out of range. (pos=%u)\n", pos);
			return -EINVAL;
		}
		ret = devdrv_user_cfg_head_check(rec);
		if (ret != 0) {
			UCFG_ERR("The devdrv_user_cfg_head_check failed. (ret=%d)\n",
				 ret);
			return ret;
		}
		ret = memcpy_s(scratch + pos, UCFG_BLK_SIZE - pos,
			       image + rec->item_offset,
			       rec->item_bytes + UCFG_SHA256_LEN);
		if (ret != 0) {
			UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
			return ret;
		}
		rec->item_offset = pos;
		pos += rec->item_bytes + UCFG_SHA256_LEN;
	}
	/*
	 * Records that overlap (never written by this store) could pack to a
	 * full block, whose length the 16-bit usage entry cannot hold.
	 */
	if (pos > UCFG_SLOT_END_MAX) {
		UCFG_ERR("The start pos out of range. (pos=%u)\n", pos);
		return -EINVAL;
	}
	*pos_out = pos;
	return 0;
}

static int devdrv_config_content_cpy(u32 dev_id, u8 *head_image, u32 blk,
				     u8 *image)
{
	u8 *scratch;
	u32 pos = 0;
	int ret;

	/* After the sync every live main slot is intact: read main only. */
	ret = devdrv_config_read_block(dev_id, blk, image);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	scratch = ka_vmalloc(UCFG_BLK_SIZE);
	if (!scratch) {
		UCFG_ERR("The ka_vmalloc failed.\n");
		return -ENOMEM;
	}

	ret = devdrv_config_move_item_content(head_image, blk, image, scratch,
					      &pos);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_move_item_content failed. (ret=%d)\n",
			 ret);
		goto free_scratch;
	}
	ucfg_head(head_image)->usage[blk].used_bytes = (u16)pos;
	ret = memcpy_s(image, UCFG_BLK_SIZE, scratch, UCFG_BLK_SIZE);
	if (ret != 0)
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);

free_scratch:
	vfree(scratch);
	return ret;
}

/*
 * Places a growing item's new content into the packed images, in the space
 * the packing freed. Memory only: when there is no room, nothing has been
 * written and the item keeps its old slot on flash.
 */
static int devdrv_config_rebuild_place_item(u8 *head_image, u8 *images,
					    struct user_cfg_op_ctx *grow)
{
	struct user_cfg_item_head *item = grow->item_head;
	struct user_cfg_item_head scratch = { 0 };
	u8 *slot;
	int ret;

	scratch.item_bytes = item->item_bytes;
	ret = devdrv_config_get_item_blk_info(head_image, &scratch);
	if (ret != 0) {
		UCFG_ERR("The devdrv_uc_get_item_blk_info failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	slot = images + (scratch.blk_offset - UCFG_CONTENT_FIRST_BLK) *
		(size_t)UCFG_BLK_SIZE + scratch.item_offset;
	ret = memcpy_s(slot, UCFG_BLK_SIZE - scratch.item_offset,
		       grow->content_buf, item->item_bytes);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
		return ret;
	}
	ret = devdrv_calculate_block_sha256(slot, item->item_bytes,
					    slot + item->item_bytes);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	item->blk_offset = scratch.blk_offset;
	item->item_offset = scratch.item_offset;
	item->valid_flg = UCFG_ITEM_VALID;
	return 0;
}

static int devdrv_config_write_sync_data(u32 dev_id, u8 *head_image,
					 u8 *images)
{
	u8 *blk_ids;
	u32 *targets;
	u8 **imgs;
	u32 i;
	int ret = -ENOMEM;

	blk_ids = ka_vmalloc(REBUILD_WRITE_NUM * sizeof(*blk_ids));
	targets = ka_vmalloc(REBUILD_WRITE_NUM * sizeof(*targets));
	imgs = ka_vmalloc(REBUILD_WRITE_NUM * sizeof(*imgs));
	if (!blk_ids || !targets || !imgs)
		goto free_lists;

	ret = devdrv_config_set_check_code(head_image);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_set_check_code failed. (ret=%d)\n",
			 ret);
		goto free_lists;
	}

	for (i = 0; i < UCFG_CONTENT_BLK_NUM; i++) {
		u8 *image = images + i * (size_t)UCFG_BLK_SIZE;

		blk_ids[i] = (u8)(i + UCFG_CONTENT_FIRST_BLK);
		targets[i] = UCFG_WR_MAIN;
		imgs[i] = image;
		blk_ids[i + REBUILD_MAIN_HEAD_ENTRY + 1] =
			(u8)(i + UCFG_CONTENT_FIRST_BLK + UCFG_MAIN_BLK_NUM);
		targets[i + REBUILD_MAIN_HEAD_ENTRY + 1] = UCFG_WR_BACKUP;
		imgs[i + REBUILD_MAIN_HEAD_ENTRY + 1] = image;
	}
	blk_ids[REBUILD_MAIN_HEAD_ENTRY] = UCFG_HEAD_MAIN_BLK;
	targets[REBUILD_MAIN_HEAD_ENTRY] = UCFG_WR_MAIN;
	imgs[REBUILD_MAIN_HEAD_ENTRY] = head_image;
	blk_ids[REBUILD_BK_HEAD_ENTRY] = UCFG_HEAD_BK_BLK;
	targets[REBUILD_BK_HEAD_ENTRY] = UCFG_WR_BACKUP;
	imgs[REBUILD_BK_HEAD_ENTRY] = head_image;

	for (i = 0; i < REBUILD_WRITE_NUM; i++) {
		ret = devdrv_config_write_blk_ops(dev_id, blk_ids[i], imgs[i],
						  targets[i]);
		if (ret != 0) {
			UCFG_ERR("The devdrv_uc_write_blk_ops failed. (device_id=%u; ret=%d)\n",
				 dev_id, ret);
			break;
		}
	}

free_lists:
	vfree(imgs);
	vfree(targets);
	vfree(blk_ids);
	return ret;
}

static int devdrv_config_rebuild_item_data(u32 dev_id, u8 *head_image,
					   struct user_cfg_op_ctx *grow)
{
	u8 *images;
	u32 b;
	int ret;

	images = ka_vmalloc(UCFG_CONTENT_BLK_NUM * (size_t)UCFG_BLK_SIZE);
	if (!images) {
		UCFG_ERR("The ka_vmalloc failed. (device_id=%u)\n", dev_id);
		return -ENOMEM;
	}

	for (b = UCFG_CONTENT_FIRST_BLK; b <= UCFG_CONTENT_LAST_BLK; b++) {
		ret = devdrv_config_content_cpy(dev_id, head_image, b,
						images + (b - UCFG_CONTENT_FIRST_BLK) *
						(size_t)UCFG_BLK_SIZE);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_content_cpy failed. (device_id=%u; ret=%d)\n",
				 dev_id, ret);
			goto free_images;
		}
	}

	if (grow) {
		ret = devdrv_config_rebuild_place_item(head_image, images, grow);
		if (ret != 0)
			goto free_images;
	}

	ret = devdrv_config_write_sync_data(dev_id, head_image, images);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_sync_data failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);

free_images:
	vfree(images);
	return ret;
}

/*
 * Rebuilds the content blocks of dev_id described by head_image. When grow
 * is given, its item (marked not in use, carrying its new length) is placed
 * with its new content as part of the same writes.
 */
int devdrv_config_rebuild_item_content(u32 dev_id, u8 *head_image,
				       struct user_cfg_op_ctx *grow)
{
	struct user_cfg_head_blk *hb = ucfg_head(head_image);
	int ret;

	if (hb->head_len % UCFG_ITEM_HEAD_SIZE != 0) {
		UCFG_ERR("The head len error. (device_id=%u; head_len=%u)\n",
			 dev_id, hb->head_len);
		return -EINVAL;
	}
	ret = devdrv_config_sync_main_backup(dev_id, head_image, 0, 0);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_sync_main_backup failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	ret = devdrv_config_rebuild_item_data(dev_id, head_image, grow);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_sync_item_head_content failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret;
}
