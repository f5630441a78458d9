// SPDX-License-Identifier: GPL-2.0
/*
 * Whole-block input and output: the only road between the store and the
 * secure flash.
 *
 * Guarantees:
 *  - a block is written only when the flash holds something else, so that
 *    rewriting an unchanged image costs one read and no wear;
 *  - every write is read back and compared, so success means the flash
 *    holds the image;
 *  - with the target "both", the second copy is written only after the first
 *    one is written and verified; a failed first write leaves the twin as it
 *    was, which is what the head recovery relies on;
 *  - block numbers above 63 never reach the flash, and only devices 0 and 1
 *    are written through the target path.
 */
#include <linux/errno.h>
#include <linux/string.h>

#include "common/bounded.h"
#include "common/log.h"
#include "common/siblings.h"
#include "store/store.h"

int devdrv_config_read_block(u32 dev_id, u32 blk, u8 *image)
{
	int ret;

	if (blk > UCFG_BLK_MAX) {
		UCFG_ERR("The block of device id is out of range. (device_id=%u; block=%u)\n",
			 dev_id, blk);
		return -EINVAL;
	}
	ret = sec_flash_read(dev_id, UCFG_BLK_FLASH_OFFSET(blk), image,
			     UCFG_BLK_SIZE);
	if (ret != 0) {
		UCFG_ERR("The sec_flash_read failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return -ENODEV;
	}
	return 0;
}

static int devdrv_config_write_block(u32 dev_id, u32 blk, u8 *image)
{
	int ret;

	if (blk > UCFG_BLK_MAX) {
		UCFG_ERR("The block of device id is out of range. (device_id=%u; block=%u)\n",
			 dev_id, blk);
		return -EINVAL;
	}
	UCFG_INFO("The sec_flash_write of device id. (device_id=%u)\n", dev_id);
	ret = sec_flash_write(dev_id, UCFG_BLK_FLASH_OFFSET(blk), image,
			      UCFG_BLK_SIZE);
	if (ret != 0) {
		/* The platform prints this one without a line end. */
		UCFG_ERR("The sec_flash_write failed. (device_id=%u; ret=%d)",
			 dev_id, ret);
		return -ENODEV;
	}
	return 0;
}

/*
 * Makes block blk hold image: compare before write, verify after write.
 * The device number is not checked here (the head repair writes any device
 * the caller validated); devdrv_config_write_blk_ops() is the checked path.
 */
int devdrv_config_write_one_block(u32 dev_id, u32 blk, u8 *image)
{
	u8 *scratch;
	int ret;

	scratch = ka_vmalloc(UCFG_BLK_SIZE);
	if (!scratch) {
		UCFG_ERR("The ka_vmalloc failed. (device_id=%u)\n", dev_id);
		return -ENOMEM;
	}

	ret = devdrv_config_read_block(dev_id, blk, scratch);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		goto free_scratch;
	}
	if (memcmp(scratch, image, UCFG_BLK_SIZE) == 0) {
		UCFG_INFO("The write data is the same as the current flash data. (device_id=%u)\n",
			  dev_id);
		goto free_scratch;
	}

	ret = devdrv_config_write_block(dev_id, blk, image);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_write_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		goto free_scratch;
	}

	ret = devdrv_config_read_block(dev_id, blk, scratch);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		goto free_scratch;
	}
	if (memcmp(scratch, image, UCFG_BLK_SIZE) != 0) {
		UCFG_ERR("The memcmp failed. (device_id=%u)\n", dev_id);
		ret = -ENODEV;
	}

free_scratch:
	vfree(scratch);
	return ret;
}

static int devdrv_config_write_blk_check(u32 dev_id, u32 blk, const u8 *image,
					 u32 target)
{
	if (!image) {
		UCFG_ERR("Block data is NULL. (device_id=%u)\n", dev_id);
		return -EINVAL;
	}
	if (dev_id > UCFG_WRITE_DEV_MAX) {
		UCFG_ERR("The device ID is not fixed. (device_id=%u)\n", dev_id);
		return -EINVAL;
	}
	if ((blk >= UCFG_MAIN_BLK_NUM && target == UCFG_WR_MAIN) ||
	    (blk < UCFG_MAIN_BLK_NUM && target == UCFG_WR_BACKUP) ||
	    blk > UCFG_BLK_MAX) {
		UCFG_ERR("Index and flag not fixed. (blk_index=%u; flag=%u)\n",
			 blk, target);
		return -EINVAL;
	}
	return 0;
}

int devdrv_config_write_blk_ops(u32 dev_id, u32 blk, u8 *image, u32 target)
{
	u32 twin;
	int ret;

	ret = devdrv_config_write_blk_check(dev_id, blk, image, target);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_write_blk_check failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}

	ret = devdrv_config_write_one_block(dev_id, blk, image);
	if (ret == 0 && target == UCFG_WR_BOTH) {
		twin = blk < UCFG_MAIN_BLK_NUM ? blk + UCFG_MAIN_BLK_NUM :
						 blk & UCFG_BLK_MAIN_MASK;
		ret = devdrv_config_write_one_block(dev_id, twin, image);
	}
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_one_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret;
}

int devdrv_config_init_block(u8 *image)
{
	struct user_cfg_head_blk *hb = ucfg_head(image);
	u32 i;
	int ret;

	ret = memset_s(image, UCFG_BLK_SIZE, 0, UCFG_BLK_SIZE);
	if (ret != 0) {
		UCFG_ERR("The memset_s failed. (ret=%d)\n", ret);
		return ret;
	}
	hb->format_word = UCFG_FORMAT_WORD;
	hb->valid_flag = UCFG_VALID_FLAG;
	for (i = 0; i < UCFG_MAIN_BLK_NUM; i++) {
		hb->usage[i].blk_id = (u8)i;
		if (i < UCFG_CONTENT_FIRST_BLK) {
			/* Blocks 0 and 1 never take content. */
			hb->usage[i].use_flg = 1;
			hb->usage[i].used_bytes = UCFG_USAGE_FULL_BYTES;
		}
	}
	return 0;
}

/*
 * Initialises a head image and, when write is 1, writes it to blocks 0 and
 * 32 as it is. Such a head carries no check code, so both copies read as
 * "no valid head" afterwards; a caller that wants a usable head fills the
 * image, sets the check code and writes it itself (write 0).
 */
int devdrv_config_init_block_dynamic(u32 dev_id, u8 *image, u32 write)
{
	int ret;

	ret = devdrv_config_init_block(image);
	if (ret == 0 && write == 1)
		ret = devdrv_config_write_blk_ops(dev_id, UCFG_HEAD_MAIN_BLK,
						  image, UCFG_WR_BOTH);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_init_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret;
}
