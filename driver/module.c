// SPDX-License-Identifier: GPL-2.0
/*
 * Module frame of drv_user_cfg.
 *
 * The lifecycle (device node, platform driver, signature type) is not wired
 * up yet: loading the module registers nothing and unloading undoes nothing.
 */
#include <linux/module.h>
#include <linux/init.h>

static int __init dev_user_cfg_module_init(void)
{
	return 0;
}

static void __exit dev_user_cfg_module_exit(void)
{
}

module_init(dev_user_cfg_module_init);
module_exit(dev_user_cfg_module_exit);

MODULE_DESCRIPTION("dev firmware user configure driver");
MODULE_LICENSE("GPL");
