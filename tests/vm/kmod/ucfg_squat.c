// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only module that registers a platform driver under drv_user_cfg's
 * driver name. While it is loaded, drv_user_cfg's start fails at the
 * registration of its platform driver, after its device node was set up:
 * the failed-start path, on demand.
 */
#include <linux/module.h>
#include <linux/platform_device.h>

static struct platform_driver squat_driver = {
	.driver = {
		.name = "vexa-user-cfg",
	},
};
module_platform_driver(squat_driver);

MODULE_DESCRIPTION("test module holding drv_user_cfg's platform driver name");
MODULE_LICENSE("GPL");
