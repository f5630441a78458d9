/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Flash store: the configuration area of one device, its on-flash records,
 * whole-block input and output, check codes, device locks, validation and
 * repair of the head copies, and the update of the static area.
 *
 * The configuration area of a device is 64 blocks of 64 KiB. Blocks 0 to 31
 * are the main copies and 32 to 63 their backups (block b + 32 backs up
 * block b). Blocks 0 and 32 are the head blocks; 2 to 31 and 34 to 63 hold
 * item content. Every record is little-endian and is used in place in a
 * 64 KiB block image.
 */
#ifndef UCFG_STORE_H
#define UCFG_STORE_H

#include <linux/types.h>
#include <linux/vmalloc.h>
#include <linux/gfp.h>

#include "drv_user_cfg.h"

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#error "the on-flash records are little-endian and are used in place"
#endif

/* Geometry of the configuration area. */
#define UCFG_BLK_SIZE		0x10000U
#define UCFG_BLK_NUM		64U
#define UCFG_BLK_MAX		63U
#define UCFG_MAIN_BLK_NUM	32U
#define UCFG_BLK_MAIN_MASK	31U
#define UCFG_FLASH_BASE_BLK	164U
#define UCFG_HEAD_MAIN_BLK	0U
#define UCFG_HEAD_BK_BLK	32U
#define UCFG_CONTENT_FIRST_BLK	2U
#define UCFG_CONTENT_LAST_BLK	31U
#define UCFG_CONTENT_BLK_NUM	30U

/* Flash byte offset of block blk of a device's secure flash. */
#define UCFG_BLK_FLASH_OFFSET(blk)	(((blk) + UCFG_FLASH_BASE_BLK) * UCFG_BLK_SIZE)

/* Head block. */
#define UCFG_FORMAT_WORD	1U
#define UCFG_STATIC_AREA_SIZE	8188U
#define UCFG_ITEM_HEAD_SIZE	52U
#define UCFG_ITEM_HEAD_MAX	1099U
#define UCFG_ITEM_TABLE_SIZE	(UCFG_ITEM_HEAD_SIZE * UCFG_ITEM_HEAD_MAX)
/* A new item is refused above this head_len: the table never grows past
 * its 1,099 records into the block usage table.
 */
#define UCFG_HEAD_LEN_NEW_MAX	57123U
#define UCFG_CHECK_CODE_OFFSET	65500U
#define UCFG_CHECK_CODE_LEN	32U
#define UCFG_VALID_FLAG		0x8a7b6c5dU
#define UCFG_USAGE_FULL_BYTES	0xffffU

/* Items and slots. */
#define UCFG_ITEM_NAME_LEN	32U
#define UCFG_ITEM_CONTENT_MAX	32768U
#define UCFG_SHA256_LEN		32U
#define UCFG_SLOT_END_MAX	65535U	/* last usable slot byte + 1 */
#define UCFG_ITEM_AUTHORITY_MAX	2U
#define UCFG_ITEM_VALID		1U

/* Write targets of a block write. */
#define UCFG_WR_MAIN		1U
#define UCFG_WR_BACKUP		2U
#define UCFG_WR_BOTH		3U

/* States reported by the head validation. */
#define UCFG_BLK_STATE_NONE	0U
#define UCFG_BLK_STATE_MAIN	1U
#define UCFG_BLK_STATE_BACKUP	2U
#define UCFG_BLK_STATE_BOTH	3U

/* Flash locks exist for devices 0 to 3; only 0 and 1 are ever written. */
#define UCFG_LOCK_DEV_NUM	4U
#define UCFG_WRITE_DEV_MAX	1U

/* One dynamic item in the item-head table. */
struct user_cfg_item_head {
	char name[UCFG_ITEM_NAME_LEN];
	u32 blk_offset;		/* main content block, 2 to 31 */
	u32 item_offset;	/* offset of the content in that block */
	u32 item_bytes;		/* content length, at most 32,768 */
	u32 authority_flg;	/* 0 to 2; tested, never written */
	u32 valid_flg;		/* 1 = record in use */
};

/* One entry of the block usage table. */
struct user_cfg_blk_usage {
	u8 blk_id;
	u8 use_flg;		/* 1 = block holds content */
	u16 used_bytes;		/* bytes in use, and offset of the next free one */
};

/* The head block (blocks 0 and 32), byte for byte. */
struct user_cfg_head_blk {
	u32 format_word;
	u8 static_area[UCFG_STATIC_AREA_SIZE];
	u32 head_len;
	struct user_cfg_item_head item_head[UCFG_ITEM_HEAD_MAX];
	u8 reserved[28];
	struct user_cfg_blk_usage usage[UCFG_MAIN_BLK_NUM];
	u8 check_code[UCFG_CHECK_CODE_LEN];
	u32 valid_flag;
};

static inline struct user_cfg_head_blk *ucfg_head(u8 *image)
{
	return (struct user_cfg_head_blk *)image;
}

/*
 * Work record of one dynamic-item operation. It lives on the stack of the
 * step that starts the operation, is zero-filled first, and owns nothing
 * beyond that operation: the builder allocates and frees the three buffers.
 */
struct user_cfg_op_ctx {
	u32 dev_id;
	u8 *head_blk;		/* 64 KiB head image */
	u8 *content_blk;	/* 64 KiB content block image */
	u32 blk;		/* block content_blk was (or is to be) read from */
	u8 *content_buf;	/* 32 KiB item content */
	u32 content_size;
	u32 head_blk_id;	/* 0 or 32: head copy loaded into head_blk */
	u32 blk_state;
	s32 head_idx;		/* record index, -1 when absent */
	struct user_cfg_item_head *item_head;	/* inside head_blk */
	u32 main_head_wr_flag;
	u32 bk_head_wr_flag;
	u32 main_content_wr_flag;
	u32 bk_content_wr_flag;
	/*
	 * Set by the dynamic read when it had to retry through the backup
	 * head: head_blk then holds block 32, not the validated main head.
	 */
	u32 bk_head_retry;
};

/*
 * Every block image and work buffer of the store comes from here: zero-
 * filled, accounted, virtually contiguous, and freed with vfree() by the
 * call that took it.
 */
static inline void *ka_vmalloc(unsigned long size)
{
	return __vmalloc(size, GFP_KERNEL | __GFP_ZERO | __GFP_ACCOUNT);
}

/* Records and their limits. */
int devdrv_user_cfg_head_check(const struct user_cfg_item_head *head);
int devdrv_config_get_item_blk_info(u8 *head_image,
				    struct user_cfg_item_head *head);

/* Block layer. */
int devdrv_config_read_block(u32 dev_id, u32 blk, u8 *image);
int devdrv_config_write_one_block(u32 dev_id, u32 blk, u8 *image);
int devdrv_config_write_blk_ops(u32 dev_id, u32 blk, u8 *image, u32 target);
int devdrv_config_init_block(u8 *image);
int devdrv_config_init_block_dynamic(u32 dev_id, u8 *image, u32 write);

/* Check codes. */
int devdrv_calculate_block_sha256(const u8 *data, u32 len, u8 *out);
int devdrv_config_set_check_code(u8 *head_image);
int devdrv_config_cmp_sha256_data(const u8 *data, u32 len, const u8 *expected);

/* Device locks. */
void devdrv_config_mutex_lock(u32 dev_id);
void devdrv_config_mutex_unlock(u32 dev_id);
bool devdrv_config_mutex_held(u32 dev_id);

/* Signature type. */
int devdrv_config_pss_cfg_init(u32 sign);
void devdrv_config_pss_cfg_uninit(void);

/* Validation, repair and synchronisation of the two copies. */
int devdrv_config_check_blk_validity(u32 dev_id, u32 blk, u8 *image,
				     u32 *valid);
int devdrv_config_get_valid_block(u32 dev_id, u8 *image, u32 *blk_state,
				  u32 *head_blk_id);
int devdrv_config_sync_main_backup(u32 dev_id, u8 *head_image, u32 mode,
				   u32 blk);
int devdrv_config_write_flash_head_content(struct user_cfg_op_ctx *ctx);

/* Static area update. */
int devdrv_config_update(u32 device_id, int cfg_index, const u8 *buf,
			 u32 buf_size, u32 set_flag);

#endif /* UCFG_STORE_H */
