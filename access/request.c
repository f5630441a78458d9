// SPDX-License-Identifier: GPL-2.0
/*
 * The device count, as the platform's control module reports it.
 *
 * The control module's function is looked up afresh on every query and
 * released right after the call, so the control module may be loaded after
 * this module and unloaded between requests; while it is absent every
 * request is refused.
 */
#include <linux/errno.h>
#include <linux/module.h>

#include "common/log.h"
#include "common/siblings.h"
#include "access/access.h"

int devdrv_config_get_dev_num(u32 *dev_num)
{
	orvane_ctl_get_dev_num_fn get_dev_num_handle;
	int ret;

	get_dev_num_handle = (orvane_ctl_get_dev_num_fn)
		__symbol_get(ORVANE_CTL_GET_DEV_NUM);
	if (!get_dev_num_handle) {
		UCFG_ERR("The kallsyms_lookup_name function return NULL.\n");
		return -EINVAL;
	}
	ret = get_dev_num_handle(dev_num);
	__symbol_put(ORVANE_CTL_GET_DEV_NUM);
	if (ret != 0)
		UCFG_ERR("The get_dev_num_handle function fail. (ret=%d)\n", ret);
	return ret;
}
