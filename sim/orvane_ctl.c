// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in control module for tests: two devices, and the device tree's
 * CPU numbers 1, 2 and 4. The functions are looked up with __symbol_get(),
 * which current kernels (5.10 stable included) resolve only for GPL-only
 * exports.
 */
#include <linux/module.h>

#include "common/siblings.h"

int orvane_ctl_get_dev_num(u32 *num)
{
	*num = 2;
	return 0;
}
EXPORT_SYMBOL_GPL(orvane_ctl_get_dev_num);

int orvane_ctl_get_dts_cpu_cfg_to_user_cfg(u32 *ctrl, u32 *data, u32 *ai)
{
	*ctrl = 1;
	*data = 2;
	*ai = 4;
	return 0;
}
EXPORT_SYMBOL_GPL(orvane_ctl_get_dts_cpu_cfg_to_user_cfg);

MODULE_DESCRIPTION("stand-in control module for drv_user_cfg tests");
MODULE_LICENSE("GPL");
