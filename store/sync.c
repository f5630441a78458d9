// SPDX-License-Identifier: GPL-2.0
/*
 * Main/backup synchronisation of content blocks, item by item, and the
 * ordered write of a head and content pair.
 *
 * Content blocks carry no check code of their own: each live item slot
 * carries the SHA-256 of its content. The sync therefore repairs slot by
 * slot: an intact main slot is copied over a differing backup slot, a
 * damaged main slot is restored from an intact backup slot, and an item
 * damaged in both copies is marked not in use in the caller's head image
 * (its content is gone; keeping the record would only hand out garbage).
 * Bytes outside live slots are left as they are in both copies.
 */
#include <linux/errno.h>
#include <linux/string.h>

#include "common/bounded.h"
#include "common/log.h"
#include "store/store.h"

/* Work record of the sync of one content block. */
struct devdrv_config_sync_blk {
	u32 dev_id;
	u32 blk;		/* main content block, 2 to 31 */
	u8 *main_blk;		/* image of block blk */
	u8 *bk_blk;		/* image of block blk + 32 */
	u8 *head_blk;		/* caller's head image, changed in place */
	u32 main_wr_flag;
	u32 bk_wr_flag;
};

static int devdrv_config_sync_item_content(struct devdrv_config_sync_blk *s,
					   struct user_cfg_item_head *item)
{
	u32 o = item->item_offset;
	u32 n = item->item_bytes;
	u8 *dst, *src;
	int ret;

	/* Computed in 64 bits: a record's fields must not wrap the test. */
	if ((u64)o + n + UCFG_SHA256_LEN > UCFG_SLOT_END_MAX) {
		UCFG_ERR("Item offset out of range. (offset=%u; item_bytes=%u)\n",
			 o, n);
		return -EINVAL;
	}

	ret = devdrv_config_cmp_sha256_data(s->main_blk + o, n,
					    s->main_blk + o + n);
	if (ret == 0) {
		if (memcmp(s->bk_blk + o, s->main_blk + o,
			   n + UCFG_SHA256_LEN) == 0) {
			UCFG_INFO("Not need sync.\n");
			return 0;
		}
		dst = s->bk_blk;
		src = s->main_blk;
		s->bk_wr_flag = 1;
	} else if (ret == -EDOM) {
		ret = devdrv_config_cmp_sha256_data(s->bk_blk + o, n,
						    s->bk_blk + o + n);
		if (ret == -EDOM) {
			UCFG_INFO("Memcmp not equal, item invalid. (ret=%d)\n",
				  ret);
			item->valid_flg = 0;
			return 0;
		}
		if (ret != 0)
			goto digest_failed;
		dst = s->main_blk;
		src = s->bk_blk;
		s->main_wr_flag = 1;
	} else {
		goto digest_failed;
	}

	ret = memcpy_s(dst + o, UCFG_BLK_SIZE - o, src + o, n + UCFG_SHA256_LEN);
	if (ret != 0)
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
	return ret;

digest_failed:
	UCFG_ERR("The devdrv_config_cmp_sha256_data failed. (ret=%d)\n", ret);
	return -ENODATA;
}

static int devdrv_config_sync_data_to_flash(struct devdrv_config_sync_blk *s)
{
	int ret;

	if (s->main_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(s->dev_id, s->blk, s->main_blk,
						  UCFG_WR_MAIN);
		if (ret != 0)
			goto write_failed;
	}
	if (s->bk_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(s->dev_id,
						  s->blk + UCFG_MAIN_BLK_NUM,
						  s->bk_blk, UCFG_WR_BACKUP);
		if (ret != 0)
			goto write_failed;
	}
	return 0;

write_failed:
	UCFG_ERR("The devdrv_uc_write_blk_ops failed. (device_id=%u; ret=%d)\n",
		 s->dev_id, ret);
	return ret;
}

static int devdrv_config_sync_one_block(struct devdrv_config_sync_blk *s)
{
	struct user_cfg_head_blk *hb = ucfg_head(s->head_blk);
	u32 head_num, i;
	int ret;

	if (hb->head_len % UCFG_ITEM_HEAD_SIZE != 0) {
		UCFG_ERR("The head len data err. (device_id=%u; head_len=%u)\n",
			 s->dev_id, hb->head_len);
		return -EINVAL;
	}
	head_num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	if (head_num > UCFG_ITEM_HEAD_MAX) {
		UCFG_ERR("The head_num out of range. (device_id=%u; item_num=%d)\n",
			 s->dev_id, head_num);
		return -ENOSPC;
	}
	if (head_num == 0) {
		UCFG_WARN("The item num is 0, no need to sync. (device_id=%u)\n",
			  s->dev_id);
		return 0;
	}
	UCFG_INFO("Device's head num. (device_id=%u; num=%d)\n", s->dev_id,
		  head_num);

	ret = devdrv_config_read_block(s->dev_id, s->blk, s->main_blk);
	if (ret == 0)
		ret = devdrv_config_read_block(s->dev_id,
					       s->blk + UCFG_MAIN_BLK_NUM,
					       s->bk_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 s->dev_id, ret);
		return ret;
	}

	for (i = 0; i < head_num; i++) {
		struct user_cfg_item_head *item = &hb->item_head[i];

		if (item->blk_offset != s->blk || item->valid_flg != 1)
			continue;
		ret = devdrv_config_sync_item_content(s, item);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_sync_item_content failed. (device_id=%u; ret=%d)\n",
				 s->dev_id, ret);
			return ret;
		}
	}

	ret = devdrv_config_sync_data_to_flash(s);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_sync_data_to_flash failed. (device_id=%u; ret=%d)\n",
			 s->dev_id, ret);
	return ret;
}

/*
 * Mode other than 0: sync content block blk. Mode 0: sync blocks 2 to 31 in
 * order, stopping at the first error (blocks before it stay synced).
 */
int devdrv_config_sync_main_backup(u32 dev_id, u8 *head_image, u32 mode,
				   u32 blk)
{
	struct devdrv_config_sync_blk s = {
		.dev_id = dev_id,
		.head_blk = head_image,
	};
	u32 b;
	int ret;

	s.main_blk = ka_vmalloc(UCFG_BLK_SIZE);
	s.bk_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!s.main_blk || !s.bk_blk) {
		UCFG_ERR("The ka_vmalloc failed. (device_id=%u)\n", dev_id);
		ret = -ENOMEM;
		goto free_images;
	}

	if (mode != 0) {
		s.blk = blk;
		ret = devdrv_config_sync_one_block(&s);
	} else {
		ret = 0;
		for (b = UCFG_CONTENT_FIRST_BLK; b <= UCFG_CONTENT_LAST_BLK; b++) {
			s.blk = b;
			s.main_wr_flag = 0;
			s.bk_wr_flag = 0;
			ret = devdrv_config_sync_one_block(&s);
			if (ret != 0)
				break;
		}
	}

	if (ret != 0)
		UCFG_ERR("The devdrv_config_sync_one_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	else
		UCFG_INFO("Synchronizing the primary and backup blocks succeeded. (device_id=%u; flag=%u)\n",
			  dev_id, mode);

free_images:
	vfree(s.bk_blk);
	vfree(s.main_blk);
	return ret;
}

/*
 * Writes the flagged images in the order main content, main head, backup
 * content, backup head, and stops at the first failure. Within each copy
 * the content goes before the head that points into it, and the backup copy
 * is touched only after both main writes succeeded: a failure in the main
 * phase leaves the backup pair as it was, a failure in the backup phase
 * leaves the main pair complete.
 */
int devdrv_config_write_flash_head_content(struct user_cfg_op_ctx *ctx)
{
	u32 m = ctx->blk & UCFG_BLK_MAIN_MASK;
	u32 k = m + UCFG_MAIN_BLK_NUM;
	int ret;

	if (ctx->main_content_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(ctx->dev_id, m,
						  ctx->content_blk, UCFG_WR_MAIN);
		if (ret != 0)
			goto write_failed;
		UCFG_INFO("devdrv_config_write_flash_head_content main_content_wr_flag.\n");
	}
	if (ctx->main_head_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(ctx->dev_id, UCFG_HEAD_MAIN_BLK,
						  ctx->head_blk, UCFG_WR_MAIN);
		if (ret != 0)
			goto write_failed;
		UCFG_INFO("devdrv_config_write_flash_head_content main_head_wr_flag.\n");
	}
	if (ctx->bk_content_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(ctx->dev_id, k,
						  ctx->content_blk,
						  UCFG_WR_BACKUP);
		if (ret != 0)
			goto write_failed;
		UCFG_INFO("devdrv_config_write_flash_head_content bk_content_wr_flag.\n");
	}
	if (ctx->bk_head_wr_flag == 1) {
		ret = devdrv_config_write_blk_ops(ctx->dev_id, UCFG_HEAD_BK_BLK,
						  ctx->head_blk, UCFG_WR_BACKUP);
		if (ret != 0)
			goto write_failed;
		UCFG_INFO("devdrv_config_write_flash_head_content bk_head_wr_flag.\n");
	}
	return 0;

write_failed:
	UCFG_ERR("The devdrv_config_write_blk_ops failed. (ret=%d)\n", ret);
	return ret;
}
