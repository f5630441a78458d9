// SPDX-License-Identifier: GPL-2.0
/*
 * Lookup and read of a dynamic item.
 *
 * The item is looked up by name in the valid head; its slot is read from
 * the main content block and checked against its own SHA-256, and a damaged
 * main slot is read from the backup block instead. When both head copies are
 * valid and the item cannot be read through the main head, the whole lookup
 * is repeated on the backup head. A read never writes content: the repair
 * that a backup read asks for (main_content_wr_flag) is the caller's.
 */
#include <linux/errno.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

/*
 * Takes the three buffers of a work record, zero-filled, in the order head
 * image, content image, content buffer. Returns 0, or which one could not
 * be taken (UCFG_CTX_NO_*) with those taken before it freed again, so the
 * caller can name the failed buffer in its own step's message.
 */
int devdrv_config_ctx_alloc(struct user_cfg_op_ctx *ctx)
{
	int missing;

	ctx->head_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx->head_blk)
		return UCFG_CTX_NO_HEAD_BLK;
	ctx->content_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx->content_blk) {
		missing = UCFG_CTX_NO_CONTENT_BLK;
		goto free_head;
	}
	ctx->content_buf = ka_vmalloc(UCFG_ITEM_CONTENT_MAX);
	if (!ctx->content_buf) {
		missing = UCFG_CTX_NO_CONTENT_BUF;
		goto free_content_blk;
	}
	return 0;

free_content_blk:
	vfree(ctx->content_blk);
	ctx->content_blk = NULL;
free_head:
	vfree(ctx->head_blk);
	ctx->head_blk = NULL;
	return missing;
}

void devdrv_config_ctx_free(struct user_cfg_op_ctx *ctx)
{
	vfree(ctx->content_buf);
	vfree(ctx->content_blk);
	vfree(ctx->head_blk);
	ctx->content_buf = NULL;
	ctx->content_blk = NULL;
	ctx->head_blk = NULL;
}

int devdrv_get_usr_cfg_name_info(struct user_cfg_op_ctx *ctx,
				 const char *name)
{
	struct user_cfg_head_blk *hb = ucfg_head(ctx->head_blk);
	struct user_cfg_item_head *rec;
	u32 head_num, i;

	/* A torn length is cut to whole records; a later write carries it. */
	hb->head_len -= hb->head_len % UCFG_ITEM_HEAD_SIZE;
	head_num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	if (head_num > UCFG_ITEM_HEAD_MAX) {
		UCFG_ERR("The head num error. (head_num=%u)\n", head_num);
		return -ENOSPC;
	}

	for (i = 0; i < head_num; i++) {
		if (strncmp(hb->item_head[i].name, name, UCFG_ITEM_NAME_LEN) == 0)
			break;
	}
	if (i == head_num) {
		ctx->head_idx = -1;
		return 0;
	}

	/* The first record of the name decides, in use or not. */
	rec = &hb->item_head[i];
	if (rec->valid_flg != UCFG_ITEM_VALID) {
		UCFG_ERR("Find match item name but flag is invalid. (head_idx=%d, blk_idx=%d, flag=%u)\n",
			 i, rec->blk_offset, rec->valid_flg);
		ctx->head_idx = -1;
		return 0;
	}
	UCFG_NOTICE("Find match item name. head_idx=%d, blk=%d, offset=%d, size=%d\n",
		    i, rec->blk_offset, rec->item_offset, rec->item_bytes);
	ctx->head_idx = i;
	ctx->item_head = rec;
	ctx->blk = rec->blk_offset;
	return 0;
}

/* Reads the item's slot from block ctx->blk; -ENXIO when it is damaged. */
static int devdrv_config_get_item_content(u32 dev_id,
					  struct user_cfg_op_ctx *ctx)
{
	const struct user_cfg_item_head *item = ctx->item_head;
	u8 code[UCFG_SHA256_LEN];
	const u8 *slot;
	int ret;

	ret = devdrv_user_cfg_head_check(item);
	if (ret != 0) {
		UCFG_ERR("The devdrv_user_cfg_head_check failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	ret = devdrv_config_read_block(dev_id, ctx->blk, ctx->content_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	slot = ctx->content_blk + item->item_offset;
	ret = devdrv_calculate_block_sha256(slot, item->item_bytes, code);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	if (memcmp(code, slot + item->item_bytes, UCFG_SHA256_LEN) != 0)
		return -ENXIO;

	ret = memcpy_s(ctx->content_buf, UCFG_ITEM_CONTENT_MAX, slot,
		       item->item_bytes);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return -ENOMEM;
	}
	if (ctx->blk > UCFG_BLK_MAIN_MASK)
		ctx->main_content_wr_flag = 1;
	ctx->content_size = item->item_bytes;
	return 0;
}

static int devdrv_config_get_item_from_head(u32 dev_id,
					    struct user_cfg_op_ctx *ctx,
					    const char *name)
{
	int ret;

	ret = devdrv_get_usr_cfg_name_info(ctx, name);
	if (ret != 0) {
		UCFG_ERR("The devdrv_get_usr_cfg_name_info failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	if (ctx->head_idx == -1) {
		/* A name is any 32 bytes from user space: printed escaped. */
		UCFG_NOTICE("Can not find fix item name %*pE from item head.\n",
			    (int)strnlen(name, UCFG_ITEM_NAME_LEN), name);
		return -ENOENT;
	}

	ret = devdrv_config_get_item_content(dev_id, ctx);
	if (ret == -ENXIO) {
		UCFG_ERR("The devdrv_config_get_item_content get content blk %d fail.\n",
			 ctx->blk);
		/* A backup head has no second copy to fall back to. */
		if (ctx->head_blk_id != UCFG_HEAD_MAIN_BLK)
			return ret;
		ctx->blk += UCFG_MAIN_BLK_NUM;
		UCFG_ERR("The devdrv_config_get_item_content get main fail,try backup\n");
		ret = devdrv_config_get_item_content(dev_id, ctx);
		if (ret != 0)
			UCFG_ERR("The devdrv_config_get_item_content get backup fail. (device_id=%u; ret=%d)\n",
				 dev_id, ret);
		return ret;
	}
	if (ret != 0)
		UCFG_ERR("The devdrv_config_get_item_content failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret;
}

int devdrv_config_get_item_dynamic(const struct user_cfg_para *para,
				   struct user_cfg_op_ctx *ctx)
{
	u32 dev_id = para->device_id;
	int ret, r;

	ret = devdrv_config_get_valid_block(dev_id, ctx->head_blk,
					    &ctx->blk_state, &ctx->head_blk_id);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_valid_block failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	if (ctx->blk_state == UCFG_BLK_STATE_NONE) {
		UCFG_WARN("The block is invalid.\n");
		return -ENOENT;
	}

	r = devdrv_config_get_item_from_head(dev_id, ctx, para->name);
	if (r != 0 && ctx->head_blk_id == UCFG_HEAD_MAIN_BLK &&
	    ctx->blk_state == UCFG_BLK_STATE_BOTH) {
		UCFG_INFO("Get item from backup head.\n");
		ctx->bk_head_retry = 1;
		ret = devdrv_config_read_block(dev_id, UCFG_HEAD_BK_BLK,
					       ctx->head_blk);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
				 dev_id, ret);
			return ret;
		}
		r = devdrv_config_get_item_from_head(dev_id, ctx, para->name);
		if (r == -ENOENT) {
			UCFG_WARN("Item is not in the item head. (ret=%d)\n", r);
			return r;
		}
		if (r != 0) {
			UCFG_ERR("The devdrv_config_get_item_from_head failed. (ret=%d)\n",
				 r);
			return r;
		}
	}

	if (para->buf_size < ctx->content_size) {
		UCFG_ERR("The content size is not equal to the buf size. (content_size=%#x; buf_size=%#x]; ret=%d)\n",
			 ctx->content_size, para->buf_size, r);
		return -ENXIO;
	}
	return r;
}

int devdrv_kernel_get_config_dynamic(const struct user_cfg_para *para,
				     u8 *buf, u32 buf_len, u32 *out_len)
{
	struct user_cfg_op_ctx ctx = { 0 };
	int ret;

	ctx.dev_id = para->device_id;
	ret = devdrv_config_ctx_alloc(&ctx);
	if (ret != 0) {
		UCFG_CTX_ALLOC_ERR(ret, ctx.dev_id);
		return -ENOMEM;
	}

	ret = devdrv_config_get_item_dynamic(para, &ctx);
	if (ret == -ENOENT) {
		UCFG_WARN("The getting item is not set before. (device_id=%u; ret=%d)\n",
			  ctx.dev_id, ret);
		goto free_ctx;
	}
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_item_dynamic failed. (device_id=%u; ret=%d)\n",
			 ctx.dev_id, ret);
		goto free_ctx;
	}

	ret = memcpy_s(buf, buf_len, ctx.content_buf, ctx.content_size);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (device_id=%u; ret=%d)\n",
			 ctx.dev_id, ret);
		ret = -EINVAL;
		goto free_ctx;
	}
	*out_len = ctx.content_size;

free_ctx:
	devdrv_config_ctx_free(&ctx);
	return ret;
}
