// SPDX-License-Identifier: GPL-2.0
/*
 * Item functions for other kernel modules: read and write by name, clear
 * of a static item by index. The callers are trusted: there is no
 * capability or whitelist check on this path. The device's flash lock is
 * taken around the flash work only, so these calls are serialised with the
 * ioctl requests of the same device.
 */
#include <linux/delay.h>
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/string.h>

#include "common/bounded.h"
#include "common/log.h"
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "dynamic/dynamic.h"
#include "store/store.h"

/* A writer waits this long after each write attempt, outside the lock. */
#define HAL_KERNEL_SET_DELAY_MS	100

static int devdrv_config_check_kpara(u32 device_id, const char *item_name,
				     const u8 *data, u32 size)
{
	u32 dev_num = 0;
	int ret;

	if (!item_name || !data || size == 0 || size > USER_CFG_BUF_MAX) {
		UCFG_ERR("invalid param. (device_id=%u; item_name=%d; data=%d; size=%d)\n",
			 device_id, item_name ? 1 : 0, data ? 1 : 0, size);
		return -EINVAL;
	}
	ret = devdrv_config_get_dev_num(&dev_num);
	if (ret != 0 || dev_num > USER_CFG_DEV_NUM_MAX) {
		UCFG_ERR("Get device num failed. (device_id=%u; dev_num=%u; ret=%d)\n",
			 device_id, dev_num, ret);
		return -EINVAL;
	}
	if (device_id >= dev_num) {
		UCFG_ERR("The device id is incorrect. (device_id=%u)\n",
			 device_id);
		return -EINVAL;
	}
	return 0;
}

/*
 * Fills para for a name-based request and resolves the name into its
 * cfg_index. Returns the name copy's status. It logs nothing: a refused
 * name is reported by the entry point that was called, in its own name.
 */
static int devdrv_config_build_kpara(struct user_cfg_para *para,
				     u32 device_id, const char *item_name,
				     u32 size)
{
	int ret;

	memset(para, 0, sizeof(*para));
	para->device_id = device_id;
	para->buf_size = size;
	ret = strcpy_s(para->name, sizeof(para->name), item_name);
	if (ret == 0)
		para->cfg_index = devdrv_get_config_index_by_name(para->name);
	return ret;
}

/**
 * hal_kernel_get_user_config() - Read a configuration item by name.
 * @device_id: device number, below the device count of the control module.
 * @item_name: NUL-terminated item name of at most 31 characters: one of the
 *	six catalogue items of this board, or any other name for a named
 *	(dynamic) item.
 * @data: buffer that receives the value.
 * @size: room in @data in bytes, 1 to 32768. A catalogue item needs at
 *	least its value length (for example 4 for "p2p_mem_cfg"); a named
 *	item at least its stored length.
 * @out_len: receives the length of the value written to @data.
 *
 * A catalogue item that was never set reads as its default value. The
 * caller is trusted: no capability or whitelist check is made.
 *
 * Context: Process context; sleeps. Takes the device's flash lock around
 * the flash work, so it is serialised with every other request for the
 * same device. Must not be called with that lock held.
 * Return: 0 on success, with @data and *@out_len filled. -EINVAL for a bad
 * argument, a device number not below the count, no control module loaded
 * (or one reporting more than 2 devices), a name of 32 characters or
 * more, or @size smaller than a catalogue item's value; -ENOENT for a
 * named item that was never set; -ENXIO when @size is smaller than a named
 * item's content or the content fails its check code in both copies;
 * -ENODEV when the board id or the flash cannot be read; -ENOMEM; or
 * another negative errno of the flash store.
 */
int hal_kernel_get_user_config(u32 device_id, const char *item_name,
			       u8 *data, u32 size, u32 *out_len)
{
	struct user_cfg_para para;
	int ret;

	ret = devdrv_config_check_kpara(device_id, item_name, data, size);
	if (ret != 0)
		return ret;
	if (!out_len) {
		UCFG_ERR("Invalid param. (device_id=%u; out_len=%d)\n", device_id,
			 0);
		return -EINVAL;
	}
	ret = devdrv_config_build_kpara(&para, device_id, item_name, size);
	if (ret != 0) {
		UCFG_ERR("strcpy_s failed. (device_id=%u; ret=%d)\n", device_id,
			 ret);
		return -EINVAL;
	}
	if (para.cfg_index < -1) {
		UCFG_ERR("The devdrv_get_config_index_by_name failed. (ret=%d)\n",
			 para.cfg_index);
		return para.cfg_index;
	}

	devdrv_config_mutex_lock(device_id);
	if (para.cfg_index >= 0) {
		*out_len = size;
		ret = devdrv_get_user_config_core(device_id, para.cfg_index, data,
						  out_len);
		if (ret != 0)
			UCFG_ERR("The devdrv get static item failed. (cfg_index=%d; ret=%d)\n",
				 para.cfg_index, ret);
	} else {
		ret = devdrv_kernel_get_config_dynamic(&para, data, size,
						       out_len);
		if (ret != 0)
			UCFG_WARN("Can't get dynamic item. (ret=%d)\n", ret);
	}
	devdrv_config_mutex_unlock(device_id);
	return ret;
}
EXPORT_SYMBOL(hal_kernel_get_user_config);

/**
 * hal_kernel_set_user_config() - Store a configuration item by name.
 * @device_id: device number, below the device count of the control module.
 * @item_name: NUL-terminated item name of at most 31 characters; a name
 *	that is not a catalogue item of this board is stored as a named item.
 * @data: the new value.
 * @size: length of @data, 1 to 32768. A catalogue item takes exactly its
 *	value length (1 for "ssh_status"); a named item is stored with
 *	exactly @size bytes.
 *
 * Both flash copies are written (main first) and verified by reading them
 * back. Every write attempt, failed ones included, is followed by a
 * 100 ms sleep after the flash lock has been released, so only the caller
 * is delayed; calls refused by the argument checks return at once.
 *
 * Context: Process context; sleeps (flash I/O, then 100 ms). Takes the
 * device's flash lock around the flash work; must not be called with it
 * held.
 * Return: 0 on success. -EINVAL for a bad argument, device number or name
 * (as for hal_kernel_get_user_config()) or a catalogue value of the wrong
 * length; -ENOSPC when no content block has room or the item table is
 * full; -ENODEV when the flash cannot be read or written or a write does
 * not read back; -ENOMEM; or another negative errno of the flash store.
 */
int hal_kernel_set_user_config(u32 device_id, const char *item_name,
			       u8 *data, u32 size)
{
	struct user_cfg_para para;
	int ret;

	ret = devdrv_config_check_kpara(device_id, item_name, data, size);
	if (ret != 0)
		return ret;
	ret = devdrv_config_build_kpara(&para, device_id, item_name, size);
	if (ret != 0) {
		UCFG_ERR("strcpy_s failed. (device_id=%u; ret=%d)\n", device_id,
			 ret);
		return -EINVAL;
	}
	if (para.cfg_index < -1) {
		UCFG_ERR("The devdrv_get_config_index_by_name failed. (ret=%d)\n",
			 para.cfg_index);
		return para.cfg_index;
	}

	devdrv_config_mutex_lock(device_id);
	if (para.cfg_index >= 0) {
		ret = devdrv_config_update(device_id, para.cfg_index, data, size,
					   1);
		if (ret != 0)
			UCFG_ERR("The devdrv set static item failed. (cfg_index=%d; ret=%d)\n",
				 para.cfg_index, ret);
	} else {
		ret = devdrv_kernel_set_config_dynamic(&para, data, size);
		if (ret != 0)
			UCFG_ERR("The devdrv set dynamic item failed. (ret=%d)\n",
				 ret);
	}
	devdrv_config_mutex_unlock(device_id);
	msleep(HAL_KERNEL_SET_DELAY_MS);
	return ret;
}
EXPORT_SYMBOL(hal_kernel_set_user_config);

static int devdrv_config_user_item_op(u32 device_id, int cfg_index)
{
	static const u8 zero_byte;
	struct user_cfg_para para = { 0 };
	int ret;

	if (device_id > UCFG_WRITE_DEV_MAX) {
		UCFG_ERR("Input parameter is incorrect. (device_id=%u)\n",
			 device_id);
		return -EINVAL;
	}
	para.device_id = device_id;
	para.cmd = USER_CFG_CMD_CLEAR;
	para.cfg_index = cfg_index;
	para.buf = (uintptr_t)&zero_byte;

	devdrv_config_mutex_lock(device_id);
	ret = devdrv_user_config_op(&para, USER_CFG_CMD_CLEAR, NULL);
	if (ret != 0)
		UCFG_ERR("The devdrv_user_config_op failed. (device_id=%u; ret=%d)\n",
			 device_id, ret);
	devdrv_config_mutex_unlock(device_id);
	return ret;
}

/**
 * devdrv_config_clear_user_item() - Return a catalogue item to its default.
 * @device_id: device number, 0 or 1 (a fixed bound, not the device count).
 * @cfg_index: catalogue index, 0 to 5 (see devdrv_get_config_index_by_name()).
 *
 * The item's record is marked unset, so it reads as its default again. An
 * index outside the catalogue is not refused: it names the named item with
 * the empty name, which is removed if it exists (-ENOENT otherwise).
 *
 * Context: Process context; sleeps. Takes the device's flash lock; must
 * not be called with it held.
 * Return: 0 on success; -EINVAL for a device number above 1; -ENOENT for
 * an index outside the catalogue when no such item exists; -ENODEV when
 * the flash cannot be read or written; -ENOMEM; or another negative errno
 * of the flash store.
 */
int devdrv_config_clear_user_item(u32 device_id, int cfg_index)
{
	int ret;

	ret = devdrv_config_user_item_op(device_id, cfg_index);
	if (ret < 0) {
		UCFG_ERR("The devdrv_config_user_item_op failed. (device_id=%u; ret=%d)\n",
			 device_id, ret);
		return ret;
	}
	return 0;
}
EXPORT_SYMBOL(devdrv_config_clear_user_item);
