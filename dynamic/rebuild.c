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
 *
 * A slot's check code covers only the slot's own bytes, so a slot is
 * "intact" for whichever record points at exactly its place and length.
 * Between the first main content write and the main head write the heads
 * on flash still carry the old records while the main blocks already hold
 * the new packing; were another item packed at exactly the block, offset
 * and length of an old record, a read through the old head would take that
 * item's bytes as its own, and the next sync would copy them over the good
 * backup slot. The same coincidence seen from the other side would let a
 * read through the new main head, falling back to a backup block the
 * rebuild has not rewritten yet, take another item's old slot.
 *
 * The packer therefore never puts a slot at the exact place and length of a
 * different record that is live on flash: such a slot is moved on by one
 * byte (a zero gap byte, counted in used_bytes) until it lands elsewhere.
 * Only an exact match can look intact, so the one-byte shift is enough, the
 * on-flash format is unchanged, and the cost is a few bytes of a block in
 * the rare layouts where it happens. Record order is kept.
 */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

#define REBUILD_WRITE_NUM	62U
#define REBUILD_MAIN_HEAD_ENTRY	30U
#define REBUILD_BK_HEAD_ENTRY	61U

/*
 * The records of the table as the flash holds them when the rebuild starts:
 * the places a read through a head still on flash may look at.
 */
struct rebuild_old {
	struct user_cfg_item_head *rec;
	u32 num;
	s32 grow_idx;	/* growing item: live on flash, marked free in memory */
};

/*
 * True when a slot of bytes at (blk, pos) would sit exactly where another
 * record live on flash has its slot, and so would pass for that record's.
 */
static bool devdrv_config_rebuild_aliases(const struct rebuild_old *old,
					  u32 idx, u32 blk, u32 pos, u32 bytes)
{
	const struct user_cfg_item_head *r;
	u32 j;

	for (j = 0; j < old->num; j++) {
		r = &old->rec[j];
		if (j == idx)
			continue;
		if (r->valid_flg != UCFG_ITEM_VALID && (s32)j != old->grow_idx)
			continue;
		if (r->blk_offset == blk && r->item_offset == pos &&
		    r->item_bytes == bytes)
			return true;
	}
	return false;
}

static int devdrv_config_move_item_content(u8 *head_image, u32 blk,
					   const u8 *image, u8 *scratch,
					   const struct rebuild_old *old,
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
		/* Each step is a zero gap byte; see the comment at the top. */
		while (pos <= UCFG_SLOT_END_MAX &&
		       devdrv_config_rebuild_aliases(old, i, blk, pos,
						     rec->item_bytes))
			pos++;
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
				     u8 *image, const struct rebuild_old *old)
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
					      old, &pos);
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
 * Places a growing item's new content (content_size bytes of content_buf)
 * into the packed images, in the space the packing freed, and never at the
 * exact place of another record live on flash. Memory only: when there is
 * no room, nothing has been written and the item keeps its old slot.
 */
static int devdrv_config_rebuild_place_item(u8 *head_image, u8 *images,
					    struct user_cfg_op_ctx *grow,
					    const struct rebuild_old *old)
{
	struct user_cfg_head_blk *hb = ucfg_head(head_image);
	struct user_cfg_item_head *item = grow->item_head;
	struct user_cfg_item_head scratch = { 0 };
	u32 bytes = grow->content_size;
	u8 *slot;
	int ret;

	scratch.item_bytes = bytes;
	for (;;) {
		ret = devdrv_config_get_item_blk_info(head_image, &scratch);
		if (ret != 0) {
			UCFG_ERR("The devdrv_uc_get_item_blk_info failed. (ret=%d)\n",
				 ret);
			return ret;
		}
		if (!devdrv_config_rebuild_aliases(old, (u32)grow->head_idx,
						   scratch.blk_offset,
						   scratch.item_offset, bytes))
			break;
		/* Give the place back but one gap byte, and allocate again. */
		hb->usage[scratch.blk_offset].used_bytes =
			(u16)(scratch.item_offset + 1);
	}
	slot = images + (scratch.blk_offset - UCFG_CONTENT_FIRST_BLK) *
		(size_t)UCFG_BLK_SIZE + scratch.item_offset;
	ret = memcpy_s(slot, UCFG_BLK_SIZE - scratch.item_offset,
		       grow->content_buf, bytes);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
		return ret;
	}
	ret = devdrv_calculate_block_sha256(slot, bytes, slot + bytes);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	item->item_bytes = bytes;
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
					   struct user_cfg_op_ctx *grow,
					   const struct rebuild_old *old)
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
						(size_t)UCFG_BLK_SIZE, old);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_content_cpy failed. (device_id=%u; ret=%d)\n",
				 dev_id, ret);
			goto free_images;
		}
	}

	if (grow) {
		ret = devdrv_config_rebuild_place_item(head_image, images, grow,
						       old);
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
 * is given, its record is as the flash holds it but marked not in use, and
 * its new content (grow->content_size bytes) is placed as part of the same
 * writes.
 */
int devdrv_config_rebuild_item_content(u32 dev_id, u8 *head_image,
				       struct user_cfg_op_ctx *grow)
{
	struct user_cfg_head_blk *hb = ucfg_head(head_image);
	struct rebuild_old old = { .grow_idx = grow ? grow->head_idx : -1 };
	size_t table;
	int ret;

	if (hb->head_len % UCFG_ITEM_HEAD_SIZE != 0) {
		UCFG_ERR("The head len error. (device_id=%u; head_len=%u)\n",
			 dev_id, hb->head_len);
		return -EINVAL;
	}
	/*
	 * The records before the sync, which may mark items damaged in both
	 * copies free in memory only: the old head on flash still lists them.
	 */
	old.num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	table = max_t(size_t, old.num, 1) * sizeof(*old.rec);
	old.rec = ka_vmalloc(table);
	if (!old.rec) {
		UCFG_ERR("The ka_vmalloc failed. (device_id=%u)\n", dev_id);
		return -ENOMEM;
	}
	memcpy(old.rec, hb->item_head, old.num * sizeof(*old.rec));

	ret = devdrv_config_sync_main_backup(dev_id, head_image, 0, 0);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_sync_main_backup failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		goto free_old;
	}
	ret = devdrv_config_rebuild_item_data(dev_id, head_image, grow, &old);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_sync_item_head_content failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
free_old:
	vfree(old.rec);
	return ret;
}
