// SPDX-License-Identifier: GPL-2.0
/*
 * Read of one static item: the stored value from the valid head when the
 * item's record is marked set, otherwise the item's default.
 *
 * Locking: this read validates the head copies and may repair one of them,
 * so it must never run beside a writer of the same device. Inside the
 * module it is always called with the device's flash lock held; other
 * modules call the exported entry without it and cannot take it (the lock
 * functions are not exported). The entry therefore takes the lock itself
 * unless the calling task already holds it. Devices above 3 have no lock;
 * nothing in the module ever writes them except the repair of such a read,
 * which writes the one valid copy it has just validated.
 */
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

static int devdrv_config_get_item_extract(u8 *image,
					  const struct user_cfg_item_desc *row,
					  u8 *buf, u32 *buf_size)
{
	const u8 *record = ucfg_head(image)->static_area + row->offset;

	*buf_size = row->size - 1;
	if (record[0] == 1)
		return memcpy_s(buf, row->size - 1, record + 1, row->size - 1);

	UCFG_INFO("The item in flash block is invalid, rewind to get default config.\n");
	return devdrv_config_get_default(row, buf, buf_size);
}

static int devdrv_config_get_item(u8 *image, int cfg_index, u8 *buf,
				  u32 *buf_size)
{
	const struct user_cfg_item_desc *row;

	if ((u32)cfg_index >= USER_CFG_ITEM_NUM) {
		UCFG_ERR("The input cfg_index is incorrect. (cfg_index=%d)\n",
			 cfg_index);
		return -EINVAL;
	}
	row = &user_cfg_version_1[cfg_index];
	if ((s32)*buf_size < (s32)(row->size - 1)) {
		UCFG_ERR("Input buf size is too small. (buff_size=%u; least=%d)\n",
			 *buf_size, row->size - 1);
		return -EINVAL;
	}
	return devdrv_config_get_item_extract(image, row, buf, buf_size);
}

/**
 * devdrv_get_user_config_core() - Read a catalogue item by index.
 * @dev_id: device number.
 * @cfg_index: catalogue index, 0 to 5.
 * @buf: buffer that receives the value.
 * @buf_size: in: room in @buf; out: the value's length (the catalogue
 *	size less the leading valid byte).
 *
 * Reads the valid head copy (repairing a damaged one) and delivers the
 * stored value, or the item's default when none is stored or no valid head
 * exists. Unlike the by-name functions it does not check @dev_id against
 * the device count.
 *
 * Context: Process context; sleeps. Takes the device's flash lock for
 * devices 0 to 3 unless the calling task already holds it, so it may be
 * called both alone and from within an item operation.
 * Return: 0 on success; -EINVAL for a null @buf or @buf_size, an index
 * outside the catalogue or a buffer smaller than the value; -ENODEV when
 * the flash cannot be read; -ENOMEM; or the error of the item's default
 * provider (for "cpu_num_cfg": -EINVAL without the control module).
 */
int devdrv_get_user_config_core(u32 dev_id, int cfg_index, u8 *buf,
				u32 *buf_size)
{
	u32 blk_state = 0, head_blk_id = 0;
	bool locked = false;
	u8 *image;
	int ret;

	if (!buf || !buf_size) {
		UCFG_ERR("Input buf handle is NULL. (device_id=%u)\n", dev_id);
		return -EINVAL;
	}
	image = ka_vmalloc(UCFG_BLK_SIZE);
	if (!image) {
		UCFG_ERR("The ka_vmalloc function return NULL. (device_id=%u)\n",
			 dev_id);
		return -ENOMEM;
	}

	if (dev_id < UCFG_LOCK_DEV_NUM && !devdrv_config_mutex_held(dev_id)) {
		devdrv_config_mutex_lock(dev_id);
		locked = true;
	}

	ret = devdrv_config_get_valid_block(dev_id, image, &blk_state,
					    &head_blk_id);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_get_valid_block failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		goto unlock;
	}

	if (blk_state == UCFG_BLK_STATE_NONE) {
		/* Defaults touch no flash: produce them outside the lock. */
		if (locked)
			devdrv_config_mutex_unlock(dev_id);
		vfree(image);
		UCFG_WARN("No valid flash block is found, user config may be not existent, get default config.\n");
		if ((u32)cfg_index >= USER_CFG_ITEM_NUM) {
			UCFG_ERR("Invalid cfg_index. (cfg_index=%d)\n", cfg_index);
			return -EINVAL;
		}
		return devdrv_config_get_default(&user_cfg_version_1[cfg_index],
						 buf, buf_size);
	}

	ret = devdrv_config_get_item(image, cfg_index, buf, buf_size);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_get_item failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);

unlock:
	if (locked)
		devdrv_config_mutex_unlock(dev_id);
	vfree(image);
	return ret;
}
EXPORT_SYMBOL(devdrv_get_user_config_core);

/* The cpu_num_cfg value of device 0 or 1 into buf (16 bytes). */
int devdrv_config_get_cpu_cfg(u32 dev_id, u8 *buf, u32 buf_size)
{
	u32 len = buf_size;
	int index, ret;

	if (!buf || dev_id > UCFG_WRITE_DEV_MAX) {
		UCFG_ERR("Input parameter is incorrect. (device_id=%u)\n", dev_id);
		return -EINVAL;
	}
	index = devdrv_get_config_index_by_name("cpu_num_cfg");
	if (index < -1) {
		UCFG_ERR("The devdrv_get_config_index_by_name failed. (ret=%d)\n",
			 index);
		return index;
	}
	ret = devdrv_get_user_config_core(dev_id, index, buf, &len);
	if (ret != 0)
		UCFG_ERR("Devdrv get static item failed. (cfg_index=%d; ret=%d)\n",
			 index, ret);
	return ret;
}
