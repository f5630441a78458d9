// SPDX-License-Identifier: GPL-2.0
/*
 * The item operation: get, set or clear one item of one device, moving the
 * data between the flash store and the caller's user-space buffer.
 *
 * The caller has resolved the name, checked the parameters and the caller's
 * authority, and holds the device's flash lock for the whole call, which
 * makes each read-modify-write of the head and content images atomic with
 * respect to every other request for the device. Every buffer is private
 * to the call and freed before it returns.
 */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

static int devdrv_get_user_config_static(struct user_cfg_para *para)
{
	u32 data_size = UCFG_ITEM_CONTENT_MAX;
	unsigned long left;
	u8 *buf;
	int ret;

	buf = ka_vmalloc(UCFG_ITEM_CONTENT_MAX);
	if (!buf) {
		UCFG_ERR("Ka_vmalloc failed.\n");
		return -ENOMEM;
	}
	ret = devdrv_get_user_config_core(para->device_id, para->cfg_index, buf,
					  &data_size);
	if (ret != 0) {
		UCFG_ERR("The devdrv get static item failed. (cfg_index=%d; ret=%d)\n",
			 para->cfg_index, ret);
		goto free_buf;
	}
	/* The value has one length: a larger buffer is refused as well. */
	if (para->buf_size != data_size) {
		UCFG_ERR("Size error. (cfg_index=%d; buf_size=%u; data_size=%u)\n",
			 para->cfg_index, para->buf_size, data_size);
		ret = -EINVAL;
		goto free_buf;
	}
	left = copy_to_user(u64_to_user_ptr(para->buf), buf, para->buf_size);
	if (left != 0) {
		UCFG_ERR("The copy_to_user failed. (ret=%d)\n", (int)left);
		ret = (int)left;
	}

free_buf:
	vfree(buf);
	return ret;
}

static int devdrv_set_user_config_static(struct user_cfg_para *para)
{
	unsigned long left;
	u8 *buf;
	int ret;

	buf = ka_vmalloc(UCFG_ITEM_CONTENT_MAX);
	if (!buf) {
		UCFG_ERR("Alloc memory for block buffer failed.\n");
		return -ENOMEM;
	}
	left = copy_from_user(buf, u64_to_user_ptr(para->buf), para->buf_size);
	if (left != 0) {
		UCFG_ERR("The copy_from_user failed. (ret=%d)\n", (int)left);
		ret = (int)left;
		goto free_buf;
	}
	ret = devdrv_config_update(para->device_id, para->cfg_index, buf,
				   para->buf_size, 1);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_set_item_static failed. (ret=%d)\n",
			 ret);

free_buf:
	vfree(buf);
	return ret;
}

static int devdrv_clear_user_config_static(struct user_cfg_para *para)
{
	int len = (int)user_cfg_version_1[para->cfg_index].size;
	u8 *buf;
	int ret;

	if (len <= 1) {
		UCFG_ERR("The config_para len invalid. (len=%d)\n", len);
		return -EINVAL;
	}
	/* Not zeroed: it is filled with 0xff at once. */
	buf = __vmalloc(len - 1, GFP_KERNEL_ACCOUNT);
	if (!buf) {
		UCFG_ERR("The ka_vmalloc failed.\n");
		return -ENOMEM;
	}
	memset(buf, 0xff, len - 1);
	ret = devdrv_config_update(para->device_id, para->cfg_index, buf,
				   len - 1, 0);
	if (ret < 0)
		UCFG_ERR("The devdrv_config_update fail. (device_id=%u; ret=%d)\n",
			 para->device_id, ret);
	vfree(buf);
	return ret;
}

/*
 * Restores the main copy of the item's slot after it was read from the
 * backup block, and nothing else: the image written is the main block as
 * it is on flash, with only this slot taken from the backup copy. Other
 * slots of the backup block may be damaged; they never reach the main copy.
 *
 * The slot's place must be the one the main head gives. When the read
 * found the item through the main head, head_blk is that head, validated
 * under the lock this call still holds, so it is used as it is. When the
 * read went through the backup head, which can describe an older layout
 * of the main block, the valid head is loaded again and the item looked up
 * in it; only when the main head holds the very record the read used is
 * the slot restored. Otherwise nothing is written (the next sync repairs
 * what the main head describes).
 */
static int devdrv_config_repair_main_slot(struct user_cfg_para *para,
					  struct user_cfg_op_ctx *ctx)
{
	struct user_cfg_item_head used = *ctx->item_head;
	u8 *backup = ctx->content_blk;
	u8 *main_img;
	int ret;

	main_img = ka_vmalloc(UCFG_BLK_SIZE);
	if (!main_img) {
		UCFG_ERR("Ka_vmalloc content block failed.\n");
		return -ENOMEM;
	}
	if (ctx->bk_head_retry) {
		ret = devdrv_config_get_valid_block(ctx->dev_id, ctx->head_blk,
						    &ctx->blk_state,
						    &ctx->head_blk_id);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_get_valid_block failed. (ret=%d)\n",
				 ret);
			goto free_main;
		}
		if (ctx->blk_state == UCFG_BLK_STATE_NONE ||
		    ctx->head_blk_id != UCFG_HEAD_MAIN_BLK)
			goto free_main;
		ret = devdrv_get_usr_cfg_name_info(ctx, para->name);
		if (ret != 0) {
			UCFG_ERR("The devdrv_get_usr_cfg_name_info failed. (ret=%d)\n",
				 ret);
			goto free_main;
		}
		if (ctx->head_idx == -1 ||
		    memcmp(ctx->item_head, &used, sizeof(used)) != 0)
			goto free_main;
	}

	ret = devdrv_config_read_block(ctx->dev_id, used.blk_offset, main_img);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 ctx->dev_id, ret);
		goto free_main;
	}
	memcpy(main_img + used.item_offset, backup + used.item_offset,
	       used.item_bytes + UCFG_SHA256_LEN);

	ctx->content_blk = main_img;
	ctx->blk = used.blk_offset;
	ctx->main_head_wr_flag = 0;
	ctx->bk_head_wr_flag = 0;
	ctx->bk_content_wr_flag = 0;
	ctx->main_content_wr_flag = 1;
	ret = devdrv_config_write_flash_head_content(ctx);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_flash_head_content failed. (ret=%d)\n",
			 ret);
	ctx->content_blk = backup;

free_main:
	vfree(main_img);
	return ret;
}

static int devdrv_config_copy_data_to_user(struct user_cfg_para *para,
					   struct user_cfg_op_ctx *ctx,
					   struct user_cfg_para __user *user_para)
{
	unsigned long left;

	if (user_para) {
		para->buf_size = ctx->content_size;
		left = copy_to_user(u64_to_user_ptr(para->buf), ctx->content_buf,
				    ctx->content_size);
		if (left == 0)
			left = copy_to_user(&user_para->buf_size,
					    &ctx->content_size,
					    sizeof(ctx->content_size));
		if (left != 0) {
			UCFG_ERR("The copy_to_user failed. (ret=%d)\n", (int)left);
			return (int)left;
		}
	}

	if (ctx->main_content_wr_flag != 1)
		return 0;
	/* Each failure of the repair is logged by the step that failed. */
	return devdrv_config_repair_main_slot(para, ctx);
}

static int devdrv_get_user_config_dynamic(struct user_cfg_para *para,
					  struct user_cfg_para __user *user_para)
{
	struct user_cfg_op_ctx ctx = { 0 };
	int ret;

	ctx.dev_id = para->device_id;
	ret = devdrv_config_ctx_alloc(&ctx);
	if (ret == UCFG_CTX_NO_HEAD_BLK)
		UCFG_ERR("Ka_vmalloc head block failed.\n");
	else if (ret == UCFG_CTX_NO_CONTENT_BLK)
		UCFG_ERR("Ka_vmalloc content block failed.\n");
	else if (ret == UCFG_CTX_NO_CONTENT_BUF)
		UCFG_ERR("Ka_vmalloc content buf failed.\n");
	if (ret != 0)
		return -ENOMEM;

	ret = devdrv_config_get_item_dynamic(para, &ctx);
	if (ret == -ENOENT) {
		UCFG_WARN("The getting item is not set before. (ret=%d)\n", ret);
		goto free_ctx;
	}
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_item_dynamic failed. (ret=%d)\n",
			 ret);
		goto free_ctx;
	}
	ret = devdrv_config_copy_data_to_user(para, &ctx, user_para);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_copy_data_to_user failed. (ret=%d)\n",
			 ret);
		goto free_ctx;
	}
	UCFG_INFO("The devdrv_get_usr_config_dynamic success. (device_id=%u)\n",
		  para->device_id);

free_ctx:
	devdrv_config_ctx_free(&ctx);
	return ret;
}

static int devdrv_set_user_config_dynamic(struct user_cfg_para *para)
{
	struct user_cfg_op_ctx ctx = { 0 };
	unsigned long left;
	int ret;

	ctx.content_buf = ka_vmalloc(UCFG_ITEM_CONTENT_MAX);
	if (!ctx.content_buf) {
		UCFG_ERR("Ka_vmalloc content_buf failed. (device_id=%u)\n",
			 para->device_id);
		return -ENOMEM;
	}
	left = copy_from_user(ctx.content_buf, u64_to_user_ptr(para->buf),
			      para->buf_size);
	if (left != 0) {
		UCFG_ERR("The copy_from_user failed. (ret=%d)\n", (int)left);
		ret = (int)left;
		goto free_content_buf;
	}

	ctx.dev_id = para->device_id;
	ctx.content_size = para->buf_size;
	ctx.head_idx = -1;
	ctx.head_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx.head_blk) {
		UCFG_ERR("Ka_vmalloc head block failed.\n");
		ret = -ENOMEM;
		goto free_content_buf;
	}
	ctx.content_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx.content_blk) {
		UCFG_ERR("Ka_vmalloc content block failed.\n");
		ret = -ENOMEM;
		goto free_head;
	}

	ret = devdrv_config_set_item_dynamic(para, &ctx);
	if (ret != 0)
		UCFG_ERR("devdrv_config_set_item_dynamic failed. (device_id=%d; ret=%u)\n",
			 para->device_id, ret);
	else
		UCFG_NOTICE("Set dynamic cfg item success. (device_id=%u)\n",
			    para->device_id);

	vfree(ctx.content_blk);
free_head:
	vfree(ctx.head_blk);
free_content_buf:
	vfree(ctx.content_buf);
	return ret;
}

/* Overwrites the item's slot with 0xff bytes and their SHA-256. */
static int devdrv_config_clear_item_content(struct user_cfg_op_ctx *ctx)
{
	u32 n = ctx->item_head->item_bytes;
	u8 *buf;
	int ret;

	if (n == 0 || n > UCFG_ITEM_CONTENT_MAX) {
		UCFG_ERR("Item size out of range. (item_size=%u)\n", n);
		return -EINVAL;
	}
	buf = __vmalloc(n, GFP_KERNEL_ACCOUNT);
	if (!buf) {
		UCFG_ERR("ka_vmalloc content block failed.\n");
		return -ENOMEM;
	}
	ret = memset_s(buf, n, 0xff, n);
	if (ret != 0) {
		UCFG_ERR("The memset_s failed. (ret=%d)\n", ret);
		goto free_buf;
	}

	/*
	 * The block image is read from one copy and written to both: first
	 * make every other live slot of the block intact in both copies, so
	 * the clear can never replace another item's last intact copy.
	 */
	ret = devdrv_config_sync_block_except_item(ctx,
						   ctx->item_head->blk_offset);
	if (ret != 0)
		goto free_buf;

	ctx->content_buf = buf;
	ret = devdrv_config_update_item_content(ctx->dev_id, ctx);
	ctx->content_buf = NULL;
	if (ret != 0)
		UCFG_ERR("The devdrv_config_update_item_content failed. (ret=%d)\n",
			 ret);

free_buf:
	vfree(buf);
	return ret;
}

/* Moves the last record into the cleared one's place. */
static int devdrv_config_clear_item_head(struct user_cfg_op_ctx *ctx)
{
	struct user_cfg_head_blk *hb = ucfg_head(ctx->head_blk);
	u32 head_num = hb->head_len / UCFG_ITEM_HEAD_SIZE;
	int ret;

	if (head_num == 0 || head_num > UCFG_ITEM_HEAD_MAX) {
		UCFG_ERR("The head num error. (head_num=%u)\n", head_num);
		return -ENOSPC;
	}
	if (head_num > 1 && (u32)ctx->head_idx != head_num - 1) {
		ret = memcpy_s(&hb->item_head[ctx->head_idx], UCFG_ITEM_HEAD_SIZE,
			       &hb->item_head[head_num - 1], UCFG_ITEM_HEAD_SIZE);
		if (ret != 0) {
			UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
			return ret;
		}
	}
	hb->head_len -= UCFG_ITEM_HEAD_SIZE;
	ret = devdrv_config_set_check_code(ctx->head_blk);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_set_check_code failed. (ret=%d)\n",
			 ret);
	return ret;
}

static int devdrv_config_clear_item(struct user_cfg_op_ctx *ctx)
{
	int ret;

	ctx->content_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx->content_blk) {
		UCFG_ERR("Ka_vmalloc content block failed.\n");
		return -ENOMEM;
	}
	ret = devdrv_config_clear_item_content(ctx);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_clear_item_content failed. (ret=%d)\n",
			 ret);
		goto free_content_blk;
	}
	ret = devdrv_config_clear_item_head(ctx);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_clear_item_head failed. (ret=%d)\n",
			 ret);
		goto free_content_blk;
	}
	ctx->main_head_wr_flag = 1;
	ctx->bk_head_wr_flag = 1;
	ctx->main_content_wr_flag = 1;
	ctx->bk_content_wr_flag = 1;
	ret = devdrv_config_write_flash_head_content(ctx);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_flash_head_content failed. (ret=%d)\n",
			 ret);

free_content_blk:
	vfree(ctx->content_blk);
	ctx->content_blk = NULL;
	return ret;
}

static int devdrv_clear_user_config_dynamic(struct user_cfg_para *para)
{
	struct user_cfg_op_ctx ctx = { 0 };
	int ret;

	ctx.dev_id = para->device_id;
	ctx.head_idx = -1;
	ctx.head_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!ctx.head_blk) {
		UCFG_ERR("Ka_vmalloc head block failed.\n");
		return -ENOMEM;
	}

	ret = devdrv_config_get_valid_block(ctx.dev_id, ctx.head_blk,
					    &ctx.blk_state, &ctx.head_blk_id);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_valid_block failed. (ret=%d)\n",
			 ret);
		goto free_head;
	}
	if (ctx.blk_state == UCFG_BLK_STATE_NONE) {
		ret = devdrv_config_init_block_dynamic(ctx.dev_id, ctx.head_blk, 1);
		if (ret != 0)
			UCFG_ERR("The devdrv_config_init_block_dynamic failed. (ret=%d)\n",
				 ret);
		else
			ret = -ENOENT;
		goto free_head;
	}

	ret = devdrv_get_usr_cfg_name_info(&ctx, para->name);
	if (ret != 0) {
		UCFG_ERR("The devdrv_get_usr_cfg_name_info failed. (ret=%d)\n",
			 ret);
		goto free_head;
	}
	if (ctx.head_idx == -1) {
		UCFG_ERR("Usr cfg name not found.\n");
		ret = -ENOENT;
		goto free_head;
	}

	ret = devdrv_config_clear_item(&ctx);
	if (ret == 0)
		UCFG_NOTICE("Clear dynamic cfg item success. (device_id=%u)\n",
			    ctx.dev_id);

free_head:
	vfree(ctx.head_blk);
	return ret;
}

int devdrv_user_config_op(struct user_cfg_para *para, int cmd,
			  struct user_cfg_para __user *user_para)
{
	bool is_static = (u32)para->cfg_index < USER_CFG_ITEM_NUM;

	if (cmd == USER_CFG_CMD_SET || cmd == USER_CFG_CMD_CLEAR)
		UCFG_NOTICE("Custom item. (device_id=%u; config_index=%d; cmd=%d)\n",
			    para->device_id, para->cfg_index, cmd);

	switch (cmd) {
	case USER_CFG_CMD_GET:
		return is_static ? devdrv_get_user_config_static(para) :
				   devdrv_get_user_config_dynamic(para, user_para);
	case USER_CFG_CMD_SET:
		return is_static ? devdrv_set_user_config_static(para) :
				   devdrv_set_user_config_dynamic(para);
	case USER_CFG_CMD_CLEAR:
		return is_static ? devdrv_clear_user_config_static(para) :
				   devdrv_clear_user_config_dynamic(para);
	default:
		UCFG_ERR("The cmd parameter error. (cmd=%d)\n", (int)para->cmd);
		return -EINVAL;
	}
}
