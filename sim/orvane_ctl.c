// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in control module for tests: reports the device count and the
 * device tree's CPU numbers. The values are module parameters, writable at
 * run time through /sys/module/orvane_ctl/parameters/.
 *
 * The functions are looked up with __symbol_get(), which current kernels
 * (5.10 stable included) resolve only for GPL-only exports.
 */
#include <linux/module.h>
#include <linux/moduleparam.h>

#include "common/siblings.h"

static uint dev_num = 2;
module_param(dev_num, uint, 0644);
MODULE_PARM_DESC(dev_num, "device count reported");

static int dev_num_ret;
module_param(dev_num_ret, int, 0644);
MODULE_PARM_DESC(dev_num_ret, "result of the device count query");

static uint ctrl_cpu_num = 1;
module_param(ctrl_cpu_num, uint, 0644);
static uint data_cpu_num = 2;
module_param(data_cpu_num, uint, 0644);
static uint aicpu_num = 4;
module_param(aicpu_num, uint, 0644);

static int dts_cpu_ret;
module_param(dts_cpu_ret, int, 0644);
MODULE_PARM_DESC(dts_cpu_ret, "result of the CPU number query");

int orvane_ctl_get_dev_num(u32 *num)
{
	if (dev_num_ret == 0)
		*num = READ_ONCE(dev_num);
	return dev_num_ret;
}
EXPORT_SYMBOL_GPL(orvane_ctl_get_dev_num);

int orvane_ctl_get_dts_cpu_cfg_to_user_cfg(u32 *ctrl, u32 *data, u32 *ai)
{
	if (dts_cpu_ret == 0) {
		*ctrl = READ_ONCE(ctrl_cpu_num);
		*data = READ_ONCE(data_cpu_num);
		*ai = READ_ONCE(aicpu_num);
	}
	return dts_cpu_ret;
}
EXPORT_SYMBOL_GPL(orvane_ctl_get_dts_cpu_cfg_to_user_cfg);

MODULE_DESCRIPTION("stand-in control module for drv_user_cfg tests");
MODULE_LICENSE("GPL");
