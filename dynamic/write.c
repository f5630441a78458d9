// SPDX-License-Identifier: GPL-2.0
/*
 * Write of a dynamic item: add it, update it in place, move it to new
 * space, or leave the flash alone when it already holds the content.
 *
 * All changes are made in the operation's head and content images and
 * written at the end in the order main content, main head, backup content,
 * backup head. The content image is read from one copy of its block and is
 * written to both, so it must not carry another item's slot that is
 * damaged in the copy read but intact in the other: every path that writes
 * a content image first syncs that block item by item (the written item
 * itself left out), which makes every other live slot of the image intact.
 */
#include <linux/errno.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

/*
 * Syncs content block blk between its copies with the operation's own item
 * left out (its slot is about to be rewritten or abandoned), so that the
 * image read afterwards holds an intact copy of every other live slot.
 */
int devdrv_config_sync_block_except_item(struct user_cfg_op_ctx *ctx, u32 blk)
{
	struct user_cfg_item_head *item = ctx->item_head;
	u32 valid = item ? item->valid_flg : 0;
	int ret;

	if (item)
		item->valid_flg = 0;
	ret = devdrv_config_sync_main_backup(ctx->dev_id, ctx->head_blk, 1, blk);
	if (item)
		item->valid_flg = valid;
	return ret;
}

int devdrv_config_update_item_content(u32 dev_id, struct user_cfg_op_ctx *ctx)
{
	const struct user_cfg_item_head *item = ctx->item_head;
	u8 *slot;
	int ret;

	ret = devdrv_user_cfg_head_check(item);
	if (ret != 0) {
		UCFG_ERR("The devdrv_user_cfg_head_check failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	ctx->blk = item->blk_offset;
	if (ctx->head_blk_id > UCFG_BLK_MAIN_MASK)
		ctx->blk += UCFG_MAIN_BLK_NUM;
	ret = devdrv_config_read_block(dev_id, ctx->blk, ctx->content_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}

	slot = ctx->content_blk + item->item_offset;
	ret = memcpy_s(slot, UCFG_BLK_SIZE - item->item_offset, ctx->content_buf,
		       item->item_bytes);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (device_id=%u; wr_len=%u; ret=%d)\n",
			 dev_id, item->item_bytes, ret);
		return ret;
	}
	ret = devdrv_calculate_block_sha256(slot, item->item_bytes,
					    slot + item->item_bytes);
	if (ret != 0)
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret;
}

static void devdrv_config_set_wr_flags(struct user_cfg_op_ctx *ctx, u32 head,
				       u32 content)
{
	ctx->main_head_wr_flag = head;
	ctx->bk_head_wr_flag = head;
	ctx->main_content_wr_flag = content;
	ctx->bk_content_wr_flag = content;
}

static int devdrv_config_set_new_head(const struct user_cfg_para *para,
				      struct user_cfg_op_ctx *ctx,
				      const struct user_cfg_item_head *scratch)
{
	struct user_cfg_head_blk *hb = ucfg_head(ctx->head_blk);
	struct user_cfg_item_head *rec;
	u32 head_num, i;
	int ret;

	/* Tested before any free record is looked for: a full table refuses. */
	if (hb->head_len > UCFG_HEAD_LEN_NEW_MAX) {
		UCFG_ERR("Item head too long. (head_length=%u)\n", hb->head_len);
		return -ENOSPC;
	}
	head_num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	for (i = 0; i < head_num; i++) {
		if (hb->item_head[i].valid_flg != UCFG_ITEM_VALID)
			break;
	}
	if (i == head_num)
		hb->head_len += UCFG_ITEM_HEAD_SIZE;

	/* authority_flg keeps whatever the record's bytes held. */
	rec = &hb->item_head[i];
	rec->item_bytes = para->buf_size;
	ret = memcpy_s(rec->name, UCFG_ITEM_NAME_LEN, para->name,
		       UCFG_ITEM_NAME_LEN);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
		return ret;
	}
	rec->blk_offset = scratch->blk_offset;
	rec->item_offset = scratch->item_offset;
	rec->valid_flg = UCFG_ITEM_VALID;
	ctx->head_idx = (s32)i;
	ctx->item_head = rec;
	return 0;
}

static int devdrv_config_add_item_head(const struct user_cfg_para *para,
				       struct user_cfg_op_ctx *ctx)
{
	struct user_cfg_item_head scratch = { 0 };
	int ret;

	scratch.item_bytes = para->buf_size;
	ret = devdrv_config_get_item_blk_info(ctx->head_blk, &scratch);
	if (ret == 0) {
		/* The new record is not in the table yet: the sync leaves it out. */
		ret = devdrv_config_sync_main_backup(ctx->dev_id, ctx->head_blk,
						     1, scratch.blk_offset);
		if (ret != 0)
			return ret;
	} else if (ret == -ENOSPC) {
		UCFG_NOTICE("block space is not enough, rebuild content and try again\n");
		ret = devdrv_config_rebuild_item_content(ctx->dev_id,
							 ctx->head_blk, NULL);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_rebuild_item_content failed. (ret=%d)\n",
				 ret);
			return ret;
		}
		ret = devdrv_config_get_item_blk_info(ctx->head_blk, &scratch);
		if (ret != 0) {
			UCFG_ERR("The devdrv_uc_get_item_blk_info failed. (ret=%d)\n",
				 ret);
			return ret;
		}
	} else {
		return ret;
	}

	ret = devdrv_config_set_new_head(para, ctx, &scratch);
	if (ret != 0)
		return ret;
	ret = devdrv_config_set_check_code(ctx->head_blk);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_set_check_code failed. (ret=%d)\n",
			 ret);
	return ret;
}

static int devdrv_config_add_item(const struct user_cfg_para *para,
				  struct user_cfg_op_ctx *ctx)
{
	int ret;

	ret = devdrv_config_add_item_head(para, ctx);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_add_item_head failed. (ret=%d)\n", ret);
		return ret;
	}
	ret = devdrv_config_update_item_content(ctx->dev_id, ctx);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_update_item_content failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	devdrv_config_set_wr_flags(ctx, 1, 1);
	return 0;
}

/* Same length: rewrite the slot in place, or nothing when flash holds it. */
static int devdrv_config_check_item_content(struct user_cfg_op_ctx *ctx)
{
	const struct user_cfg_item_head *item = ctx->item_head;
	u8 code[UCFG_SHA256_LEN];
	const u8 *slot;
	u32 blk;
	int ret;

	devdrv_config_set_wr_flags(ctx, 0, 1);
	ret = devdrv_user_cfg_head_check(item);
	if (ret != 0) {
		UCFG_ERR("The devdrv_user_cfg_head_check failed. (device_id=%u; ret=%d)\n",
			 ctx->dev_id, ret);
		return ret;
	}
	blk = item->blk_offset;
	if (ctx->head_blk_id == UCFG_HEAD_BK_BLK)
		blk += UCFG_MAIN_BLK_NUM;
	ret = devdrv_config_read_block(ctx->dev_id, blk, ctx->content_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 ctx->dev_id, ret);
		return ret;
	}

	slot = ctx->content_blk + item->item_offset;
	ret = memcmp(ctx->content_buf, slot, item->item_bytes);
	if (ret != 0) {
		UCFG_INFO("Item content is not the same. (device_id=%u; ret=%d)\n",
			  ctx->dev_id, ret);
		goto place;
	}
	ret = devdrv_calculate_block_sha256(slot, item->item_bytes, code);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (device_id=%u; ret=%d)\n",
			 ctx->dev_id, ret);
		return ret;
	}
	ret = memcmp(code, slot + item->item_bytes, UCFG_SHA256_LEN);
	if (ret != 0) {
		UCFG_INFO("The sha256 value is incorrect. (device_id=%u; ret=%d)\n",
			  ctx->dev_id, ret);
		goto place;
	}
	devdrv_config_set_wr_flags(ctx, 0, 0);
	return 0;

place:
	/* The slot is rewritten in place: protect the block's other slots. */
	ret = devdrv_config_sync_block_except_item(ctx, item->blk_offset);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_sync_main_backup failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	ret = devdrv_config_update_item_content(ctx->dev_id, ctx);
	if (ret != 0)
		UCFG_ERR("The devdrv_uc_update_item_content failed. (ret=%d)\n",
			 ret);
	return ret;
}

/*
 * New length. Shorter: the slot keeps its place. Longer: the item moves to
 * new space and its old slot is left as dead bytes until a rebuild.
 *
 * A longer item that finds no room needs the rebuild, which packs the
 * blocks without the item's old slot so that its space can be reused. The
 * rebuild places the new content itself, in the same set of writes that
 * drops the old slot, and writes nothing at all when even the packed blocks
 * have no room: the store then keeps the item's previous value and the
 * write fails with -ENOSPC. So a growing item is never left without either
 * its old or its new content on flash.
 */
static int devdrv_config_update_item_head(const struct user_cfg_para *para,
					  struct user_cfg_op_ctx *ctx)
{
	struct user_cfg_item_head *item = ctx->item_head;
	u32 old_bytes = item->item_bytes;
	int ret;

	item->item_bytes = para->buf_size;
	if (para->buf_size < old_bytes) {
		UCFG_INFO("Sync content block.\n");
		ret = devdrv_config_sync_block_except_item(ctx, item->blk_offset);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_sync_main_backup failed. (ret=%d)\n",
				 ret);
			return ret;
		}
	} else {
		ret = devdrv_config_get_item_blk_info(ctx->head_blk, item);
		if (ret == 0) {
			ret = devdrv_config_sync_block_except_item(ctx,
								   item->blk_offset);
			if (ret != 0) {
				UCFG_ERR("The devdrv_config_sync_main_backup failed. (ret=%d)\n",
					 ret);
				return ret;
			}
		} else if (ret == -ENOSPC) {
			/*
			 * The rebuild needs the record as the flash holds it
			 * (its old slot is one it must not pack another item
			 * over) and takes the new length from the work record.
			 */
			item->item_bytes = old_bytes;
			item->valid_flg = 0;
			UCFG_NOTICE("block space is not enough, rebuild content and try again\n");
			ret = devdrv_config_rebuild_item_content(ctx->dev_id,
								 ctx->head_blk,
								 ctx);
			if (ret != 0) {
				UCFG_ERR("The devdrv_config_rebuild_item_content failed. (ret=%d)\n",
					 ret);
				return ret;
			}
		} else {
			return ret;
		}
	}

	item->valid_flg = UCFG_ITEM_VALID;
	ret = devdrv_config_set_check_code(ctx->head_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_set_check_code failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	devdrv_config_set_wr_flags(ctx, 1, 1);
	ret = devdrv_config_update_item_content(ctx->dev_id, ctx);
	if (ret != 0)
		UCFG_ERR("The devdrv_uc_update_item_content failed. (ret=%d)\n",
			 ret);
	return ret;
}

static int devdrv_config_update_item_dynamic(const struct user_cfg_para *para,
					     struct user_cfg_op_ctx *ctx)
{
	int ret;

	UCFG_INFO("devdrv_config_update_item_dynamic START. new_size=%d, old_size=%d\n",
		  para->buf_size, ctx->item_head->item_bytes);
	if (para->buf_size == ctx->item_head->item_bytes) {
		ret = devdrv_config_check_item_content(ctx);
		if (ret != 0)
			UCFG_ERR("The devdrv_uc_check_item_content failed. (ret=%d)\n",
				 ret);
	} else {
		ret = devdrv_config_update_item_head(para, ctx);
		if (ret != 0)
			UCFG_ERR("The devdrv_uc_update_item_head failed. (ret=%d)\n",
				 ret);
	}
	return ret;
}

int devdrv_config_set_item_dynamic(const struct user_cfg_para *para,
				   struct user_cfg_op_ctx *ctx)
{
	int ret;

	ret = devdrv_config_get_valid_block(para->device_id, ctx->head_blk,
					    &ctx->blk_state, &ctx->head_blk_id);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_valid_block failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	if (ctx->blk_state == UCFG_BLK_STATE_NONE) {
		UCFG_NOTICE("Invalid block, init it. (device_id=%u)\n",
			    para->device_id);
		ret = devdrv_config_init_block_dynamic(para->device_id,
						       ctx->head_blk, 0);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_init_block_dynamic failed. (ret=%d)\n",
				 ret);
			return ret;
		}
		ctx->head_blk_id = UCFG_HEAD_MAIN_BLK;
	}

	ret = devdrv_get_usr_cfg_name_info(ctx, para->name);
	if (ret != 0) {
		UCFG_ERR("The devdrv_get_usr_cfg_name_info failed. (ret=%d)\n",
			 ret);
		return ret;
	}

	if (ctx->head_idx == -1) {
		UCFG_NOTICE("Add new item.\n");
		ctx->item_head = NULL;
		ret = devdrv_config_add_item(para, ctx);
		if (ret != 0) {
			UCFG_ERR("devdrv_uc_add_item fail. (ret=%d)\n", ret);
			return ret;
		}
	} else {
		UCFG_NOTICE("Updated existing item.\n");
		ret = devdrv_config_update_item_dynamic(para, ctx);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_update_item_dynamic failed. (ret=%d)\n",
				 ret);
			return ret;
		}
	}

	ret = devdrv_config_write_flash_head_content(ctx);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_flash_head_content failed. (ret=%d)\n",
			 ret);
	return ret;
}

int devdrv_kernel_set_config_dynamic(const struct user_cfg_para *para,
				     const u8 *data, u32 len)
{
	struct user_cfg_op_ctx ctx = { 0 };
	int ret;

	ctx.dev_id = para->device_id;
	ctx.content_size = para->buf_size;
	ctx.head_idx = -1;
	ret = devdrv_config_ctx_alloc(&ctx);
	if (ret != 0) {
		UCFG_CTX_ALLOC_ERR(ret, ctx.dev_id);
		return -ENOMEM;
	}

	ret = memcpy_s(ctx.content_buf, ctx.content_size, data, len);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (device_id=%u; ret=%d)\n",
			 ctx.dev_id, ret);
		ret = -EINVAL;
		goto free_ctx;
	}

	ret = devdrv_config_set_item_dynamic(para, &ctx);
	if (ret != 0)
		UCFG_ERR("devdrv_config_set_item_dynamic failed. (device_id=%d; ret=%u)\n",
			 ctx.dev_id, ret);
	else
		UCFG_NOTICE("Set dynamic cfg item success. (device_id=%u)\n",
			    ctx.dev_id);

free_ctx:
	devdrv_config_ctx_free(&ctx);
	return ret;
}
