// SPDX-License-Identifier: GPL-2.0
/*
 * The item command of /dev/user_config: copy the request in, resolve the
 * name, check the parameters and the caller's authority, and run the item
 * operation under the device's flash lock.
 *
 * Every check runs before the lock is taken, and nothing before the lock
 * touches the flash, so a refused request has no effect at all. The lock
 * is held only around the operation.
 *
 * Authority (static items by their class; dynamic items as class 1):
 *   class 0: every sub-command needs CAP_SYS_ADMIN, which also stands in
 *            for the whitelist;
 *   class 1: get is open, everything else needs the whitelist;
 *   class 2: get is open, set and clear are refused, anything else needs
 *            the whitelist.
 */
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "common/bounded.h"
#include "common/log.h"
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

static const char *const devdrv_config_whitelist[] = { "devmgr_daemon" };

static int check_config_para(const struct user_cfg_para *para)
{
	u32 dev_num = 0;
	int ret;

	ret = devdrv_config_get_dev_num(&dev_num);
	if (ret != 0 || dev_num > USER_CFG_DEV_NUM_MAX) {
		UCFG_ERR("Get device num failed. (device_id=%u; dev_num=%u; ret=%d)\n",
			 para->device_id, dev_num, ret);
		return -EINVAL;
	}
	if (para->device_id >= dev_num) {
		UCFG_ERR("The device id is incorrect. (device_id=%u)\n",
			 para->device_id);
		return -EINVAL;
	}
	if (para->cmd != USER_CFG_CMD_CLEAR &&
	    (para->buf_size == 0 || para->buf_size > USER_CFG_BUF_MAX ||
	     para->buf == 0)) {
		UCFG_ERR("The buf parameteris incorrect. (device_id=%u; buf_size=%u)\n",
			 para->device_id, para->buf_size);
		return -EINVAL;
	}
	if (para->cfg_index < -1 || para->cfg_index >= USER_CFG_ITEM_NUM) {
		UCFG_ERR("The config index out of range. (device_id=%u; cfg_index=%d)\n",
			 para->device_id, para->cfg_index);
		return -EINVAL;
	}
	return 0;
}

/* Builds req from the copied-in record; the caller's cfg_index is ignored. */
static int devdrv_config_check_para(struct user_cfg_para *local,
				    struct user_cfg_para *req)
{
	int index, ret;

	index = devdrv_get_config_index_by_name(local->name);
	if (index < -1) {
		UCFG_ERR("The devdrv_get_config_index_by_name failed. (ret=%d)\n",
			 index);
		return index;
	}
	local->cfg_index = index;

	ret = check_config_para(local);
	if (ret != 0) {
		UCFG_ERR("Check para failed. (ret=%d)\n", -EINVAL);
		return -EINVAL;
	}

	memset(req, 0, sizeof(*req));
	req->device_id = local->device_id;
	req->cmd = local->cmd;
	req->buf_size = local->buf_size;
	req->buf = local->buf;
	ret = memcpy_s(req->name, sizeof(req->name), local->name,
		       sizeof(local->name));
	if (ret != 0) {
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
		return ret;
	}
	req->cfg_index = index;
	return 0;
}

static int check_authority_for_static_item(const struct user_cfg_para *req,
					   bool *root_authorised)
{
	u32 authority = user_cfg_version_1[req->cfg_index].authority;

	if (authority == USER_CFG_AUTH_ROOT) {
		if (!capable(CAP_SYS_ADMIN)) {
			UCFG_ERR("Check write authority for root failed.\n");
			return -EACCES;
		}
		*root_authorised = true;
	}
	if (authority == USER_CFG_AUTH_READ_ONLY &&
	    (req->cmd == USER_CFG_CMD_SET || req->cmd == USER_CFG_CMD_CLEAR)) {
		UCFG_ERR("The config authority error. (cfg_index=%d; cmd=%d)\n",
			 req->cfg_index, req->cmd);
		return -EACCES;
	}
	return 0;
}

static int devdrv_config_check_authority(const struct user_cfg_para *req)
{
	bool root_authorised = false;
	int ret;

	if (req->cfg_index >= 0) {
		ret = check_authority_for_static_item(req, &root_authorised);
		if (ret != 0) {
			UCFG_ERR("Check user parameter error. (ret=%d)\n", -EACCES);
			return -EACCES;
		}
	}
	if (req->cmd == USER_CFG_CMD_GET || root_authorised)
		return 0;

	ret = whitelist_process_handler(devdrv_config_whitelist,
					ARRAY_SIZE(devdrv_config_whitelist));
	if (ret != 0) {
		UCFG_ERR("The whitelist_process_handler failed. (ret=%d)\n", ret);
		return -EACCES;
	}
	return 0;
}

int devdrv_config_ioctl(struct file *file, unsigned int cmd,
			unsigned long arg)
{
	struct user_cfg_para __user *user_para = (void __user *)arg;
	struct user_cfg_para local = { 0 };
	struct user_cfg_para req;
	unsigned long left;
	int ret;

	if (!file || arg == 0) {
		UCFG_ERR("Input parameter is incorrect. (arg=%lu)\n", arg);
		return -EINVAL;
	}
	/* A short copy zero-fills the rest; the count goes back as it is. */
	left = copy_from_user(&local, user_para, sizeof(local));
	if (left != 0) {
		UCFG_ERR("The copy_from_user failed. (ret=%d)\n", (int)left);
		return (int)left;
	}

	ret = devdrv_config_check_para(&local, &req);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_check_para failed. (ret=%d)\n", ret);
		return ret;
	}
	ret = devdrv_config_check_authority(&req);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_check_authority failed. (device_id=%u; ret=%d)\n",
			 req.device_id, ret);
		return ret;
	}

	devdrv_config_mutex_lock(req.device_id);
	ret = devdrv_user_config_op(&req, (int)req.cmd, user_para);
	if (ret == -ENOENT)
		UCFG_WARN("The devdrv_user_config_op not find item. (device_id=%u; ret=%d)\n",
			  req.device_id, ret);
	else if (ret != 0)
		UCFG_ERR("The devdrv_user_config_op failed. (device_id=%u; ret=%d)\n",
			 req.device_id, ret);
	devdrv_config_mutex_unlock(req.device_id);
	return ret;
}
