// SPDX-License-Identifier: GPL-2.0
/*
 * Set or clear one static item of a device.
 *
 * The valid head is loaded (repairing the other copy when needed), or a
 * fresh one is built when the device has none; the item's record is changed
 * in that image, the check code recomputed, and the image written to block
 * 0 and then block 32. Everything else in the head, dynamic item table and
 * usage table included, is carried over unchanged. A failure after block 0
 * was written leaves two valid copies, and the next read takes block 0.
 */
#include <linux/errno.h>

#include "common/bounded.h"
#include "common/log.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

static int devdrv_config_set_item(u8 *image, int cfg_index, const u8 *buf,
				  u32 buf_size, u32 set_flag)
{
	const struct user_cfg_item_desc *row;
	u8 *record;
	int ret;

	if ((u32)cfg_index >= USER_CFG_ITEM_NUM) {
		UCFG_ERR("The input cfg_index is incorrect. (cfg_index=%d)\n",
			 cfg_index);
		return -EINVAL;
	}
	row = &user_cfg_version_1[cfg_index];
	if (buf_size != row->size - 1) {
		UCFG_ERR("Input buf size is invalid. (buf_size=%u; must_be=%d)\n",
			 buf_size, row->size - 1);
		return -EINVAL;
	}

	record = ucfg_head(image)->static_area + row->offset;
	ret = memcpy_s(record + 1, row->size - 1, buf, buf_size);
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
		return ret;
	}
	record[0] = set_flag == 1 ? 1 : 0;

	ret = devdrv_config_set_check_code(image);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_set_check_code failed. (ret=%d)\n",
			 ret);
	return ret;
}

static int devdrv_config_update_item(u32 device_id, u8 *image, int cfg_index,
				     const u8 *buf, u32 buf_size, u32 set_flag)
{
	int ret;

	ret = devdrv_config_set_item(image, cfg_index, buf, buf_size, set_flag);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_set_item failed. (ret=%d)\n", ret);
		return ret;
	}
	ret = devdrv_config_write_blk_ops(device_id, UCFG_HEAD_MAIN_BLK, image,
					  UCFG_WR_BOTH);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_blk_ops failed. (ret=%d)\n",
			 ret);
	return ret;
}

/*
 * Index and size are tested only after the head has been loaded, so even a
 * refused call validates, and where needed repairs, the head copies.
 */
int devdrv_config_update(u32 device_id, int cfg_index, const u8 *buf,
			 u32 buf_size, u32 set_flag)
{
	u32 blk_state = 0, head_blk_id = 0;
	u8 *image;
	int ret;

	image = ka_vmalloc(UCFG_BLK_SIZE);
	if (!image) {
		UCFG_ERR("The ka_vmalloc function return NULL. (device_id=%u)\n",
			 device_id);
		return -ENOMEM;
	}

	ret = devdrv_config_get_valid_block(device_id, image, &blk_state,
					    &head_blk_id);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_valid_block failed. (device_id=%u; ret=%d)\n",
			 device_id, ret);
		goto free_image;
	}

	if (blk_state == UCFG_BLK_STATE_NONE) {
		UCFG_WARN("Init new block data. (device_id=%u)\n", device_id);
		ret = devdrv_config_init_block(image);
		if (ret != 0) {
			UCFG_ERR("The devdrv_config_init_block failed. (device_id=%u; ret=%d)\n",
				 device_id, ret);
			goto free_image;
		}
	}

	ret = devdrv_config_update_item(device_id, image, cfg_index, buf,
					buf_size, set_flag);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_update_item failed. (device_id=%u; ret=%d)\n",
			 device_id, ret);
		goto free_image;
	}
	UCFG_NOTICE("Config update success. (device_id=%u; config_index=%d)\n",
		    device_id, cfg_index);

free_image:
	vfree(image);
	return ret;
}
