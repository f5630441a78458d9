/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Dynamic named items: lookup and read with per-slot check codes and
 * fallback to the backup copies, write in place or in new space, and the
 * compaction of the content blocks.
 *
 * Every function runs under the device's flash lock held by the caller and
 * works on the images of the caller's user_cfg_op_ctx.
 */
#ifndef UCFG_DYNAMIC_H
#define UCFG_DYNAMIC_H

#include <linux/types.h>

#include "store/store.h"
#include "uapi/user_cfg.h"

/* Which buffer of a work record could not be taken. */
#define UCFG_CTX_NO_HEAD_BLK	1
#define UCFG_CTX_NO_CONTENT_BLK	2
#define UCFG_CTX_NO_CONTENT_BUF	3

/*
 * The message of a failed devdrv_config_ctx_alloc() in a kernel wrapper,
 * each text written out. A macro, so that the step named in the log line
 * is the wrapper that asked for the buffers.
 */
#define UCFG_CTX_ALLOC_ERR(missing, dev_id)				\
	do {								\
		int __missing = (missing);				\
		u32 __dev = (dev_id);					\
		if (__missing == UCFG_CTX_NO_HEAD_BLK)			\
			UCFG_ERR("Ka_vmalloc head block failed. (device_id=%u)\n", \
				 __dev);				\
		else if (__missing == UCFG_CTX_NO_CONTENT_BLK)		\
			UCFG_ERR("Ka_vmalloc content block failed. (device_id=%u)\n", \
				 __dev);				\
		else							\
			UCFG_ERR("Ka_vmalloc content buf failed. (device_id=%u)\n", \
				 __dev);				\
	} while (0)
int devdrv_config_ctx_alloc(struct user_cfg_op_ctx *ctx);
void devdrv_config_ctx_free(struct user_cfg_op_ctx *ctx);

int devdrv_get_usr_cfg_name_info(struct user_cfg_op_ctx *ctx,
				 const char *name);
int devdrv_config_get_item_dynamic(const struct user_cfg_para *para,
				   struct user_cfg_op_ctx *ctx);
int devdrv_kernel_get_config_dynamic(const struct user_cfg_para *para,
				     u8 *buf, u32 buf_len, u32 *out_len);

int devdrv_config_set_item_dynamic(const struct user_cfg_para *para,
				   struct user_cfg_op_ctx *ctx);
int devdrv_config_update_item_content(u32 dev_id,
				      struct user_cfg_op_ctx *ctx);
int devdrv_config_sync_block_except_item(struct user_cfg_op_ctx *ctx,
					 u32 blk);
int devdrv_kernel_set_config_dynamic(const struct user_cfg_para *para,
				     const u8 *data, u32 len);

int devdrv_config_rebuild_item_content(u32 dev_id, u8 *head_image,
				       struct user_cfg_op_ctx *grow);

#endif /* UCFG_DYNAMIC_H */
