// SPDX-License-Identifier: GPL-2.0
/*
 * Module frame: start and stop, the character device "user_config", the
 * platform driver that binds to the device tree node and reads its CPU
 * numbers, and the three ioctl commands of the device file.
 *
 * Start: device node object, device number, class, device, cdev, platform
 * driver, signature type. Exit undoes it with the platform driver first, so
 * no probe or remove can run during the tear-down.
 *
 * The node goes live before the platform driver is registered, and that
 * registration can still fail the load. The loader frees a module whose
 * start failed without waiting for references to it, and the cdev lives
 * in the object the failure path frees, so a file opened in that window
 * would be left on freed code and memory. Opens are therefore refused
 * until the start has completed (and again once the exit has begun), and
 * a failed start waits, before it frees anything, until every open that
 * raced with it has let go of the module.
 */
#include <linux/delay.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/init.h>
#include <linux/io.h>
#include <linux/kdev_t.h>
#include <linux/mod_devicetable.h>
#include <linux/module.h>
#include <linux/of.h>
#include <linux/platform_device.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "common/compat.h"
#include "common/log.h"
#include "access/access.h"
#include "driver/driver.h"
#include "store/store.h"
#include "uapi/user_cfg.h"

static struct infra_user_cfg_dev *g_infra_user_cfg_dev;
/* True from the end of a successful start to the beginning of the exit. */
static bool dev_user_cfg_live;

static int dev_user_cfg_open(struct inode *pnode, struct file *pfile)
{
	if (!UCFG_DRV_CHECK_PTR(pnode) || !UCFG_DRV_CHECK_PTR(pfile))
		return -EINVAL;
	/* Pairs with the release in dev_user_cfg_module_init(). */
	if (!smp_load_acquire(&dev_user_cfg_live))
		return -ENODEV;
	if (g_infra_user_cfg_dev)
		pfile->private_data = g_infra_user_cfg_dev;
	return 0;
}

static int dev_user_cfg_release(struct inode *pnode, struct file *pfile)
{
	if (!UCFG_DRV_CHECK_PTR(pnode) || !UCFG_DRV_CHECK_PTR(pfile))
		return -EINVAL;
	return 0;
}

/* The page is mapped for each call rather than kept mapped. */
static long dev_user_cfg_get_boot_cfg(unsigned long arg)
{
	void __iomem *base;
	unsigned long left;
	u32 value;

	base = ioremap(USER_CFG_BOOT_CFG_PAGE, USER_CFG_BOOT_CFG_PAGE_SIZE);
	if (!base) {
		UCFG_ERR("Remap page for boot cfg register failed.\n");
		return -ENOMEM;
	}
	/* readl() orders the read before any later memory access. */
	value = readl(base + USER_CFG_BOOT_CFG_OFFSET) & USER_CFG_BOOT_CFG_MASK;
	iounmap(base);

	left = copy_to_user((void __user *)arg, &value, sizeof(value));
	if (left != 0)
		UCFG_ERR("Copy boot configuration to user space failed. (ret=%d)\n",
			 (int)left);
	return (long)left;
}

static long dev_user_cfg_get_dts_cfg(unsigned long arg)
{
	struct infra_user_cfg_dev *d = g_infra_user_cfg_dev;
	u32 record[3] = { d->ctrl_cpu_num, d->data_cpu_num, d->aicpu_num };

	return (long)copy_to_user((void __user *)arg, record, sizeof(record));
}

static long dev_user_cfg_ioctl(struct file *file, unsigned int cmd,
			       unsigned long arg)
{
	long ret;

	if (!UCFG_DRV_CHECK_PTR(file) || !UCFG_DRV_CHECK_NONZERO(arg))
		return -EINVAL;

	switch (cmd) {
	case USER_CFG_IOC_ITEM:
		ret = devdrv_config_ioctl(file, cmd, arg);
		break;
	case USER_CFG_IOC_BOOT_CFG:
		ret = dev_user_cfg_get_boot_cfg(arg);
		break;
	case USER_CFG_IOC_DTS_CPU:
		ret = dev_user_cfg_get_dts_cfg(arg);
		break;
	default:
		ret = -EINVAL;
		break;
	}

	if (ret == -ENOENT)
		UCFG_WARN("Can't not find match item. (ret=%ld)\n", ret);
	else if (ret != 0)
		UCFG_ERR("Ioctl failed. (ret=%ld)\n", ret);
	return ret;
}

static const struct file_operations g_infra_user_cfg_fops = {
	.owner = THIS_MODULE,
	.open = dev_user_cfg_open,
	.release = dev_user_cfg_release,
	.unlocked_ioctl = dev_user_cfg_ioctl,
};

static char *dev_user_cfg_devnode(UCFG_DEVNODE_CONST struct device *dev,
				  umode_t *mode)
{
	if (mode) {
		UCFG_INFO("Set the value of devnode to 0600.\n");
		*mode = 0600;
	}
	return NULL;
}

static int dev_user_cfg_init_dev(struct infra_user_cfg_dev *d)
{
	struct device *device;
	struct class *cls;
	dev_t devno;
	int ret;

	d->dev_class = NULL;
	ret = alloc_chrdev_region(&devno, 0, 1, USER_CFG_DEV_NAME);
	if (ret != 0) {
		UCFG_ERR("Allocate character device regiio failed. (ret=%d)\n",
			 ret);
		return ret;
	}

	cls = ucfg_class_create("user_cfg_dev_class");
	if (IS_ERR(cls)) {
		UCFG_ERR("Create device class for user config error.\n");
		ret = PTR_ERR(cls);
		goto unregister_region;
	}
	cls->devnode = dev_user_cfg_devnode;

	device = device_create(cls, NULL, devno, NULL, USER_CFG_DEV_NAME);
	if (IS_ERR(device)) {
		UCFG_ERR("Create device error.\n");
		ret = PTR_ERR(device);
		goto destroy_class;
	}

	cdev_init(&d->cdev, &g_infra_user_cfg_fops);
	d->cdev.owner = THIS_MODULE;
	ret = cdev_add(&d->cdev, devno, 1);
	if (ret != 0) {
		UCFG_ERR("Add character device failed. (ret=%d)\n", ret);
		goto destroy_device;
	}

	d->dev_class = cls;
	d->major = MAJOR(devno);
	d->minor = MINOR(devno);
	return 0;

destroy_device:
	device_destroy(cls, devno);
destroy_class:
	class_destroy(cls);
unregister_region:
	unregister_chrdev_region(devno, 1);
	return ret;
}

static void dev_user_cfg_cleanup_dev(struct infra_user_cfg_dev *pdev)
{
	dev_t devno;

	if (!pdev || !pdev->dev_class) {
		UCFG_ERR("The input parameter is NULL. (pdev=%pK)\n", pdev);
		return;
	}
	devno = MKDEV(pdev->major, pdev->minor);
	cdev_del(&pdev->cdev);
	device_destroy(pdev->dev_class, devno);
	class_destroy(pdev->dev_class);
	unregister_chrdev_region(devno, 1);
}

/* Reads the device tree's CPU numbers; a missing one counts as 0. */
static int dev_user_cfg_probe(struct platform_device *pdev)
{
	struct infra_user_cfg_dev *d = g_infra_user_cfg_dev;
	struct device_node *np = pdev->dev.of_node;
	int ret;

	UCFG_INFO("User config probe.\n");
	ret = of_property_read_u32(np, "ctrl_cpu_num", &d->ctrl_cpu_num);
	if (ret != 0) {
		UCFG_WARN("Dts ctrl cpu num is not set. (ret=%d)\n", ret);
		d->ctrl_cpu_num = 0;
	}
	ret = of_property_read_u32(np, "data_cpu_num", &d->data_cpu_num);
	if (ret != 0) {
		UCFG_WARN("Dts data cpu num is not set. (ret=%d)\n", ret);
		d->data_cpu_num = 0;
	}
	ret = of_property_read_u32(np, "aicpu_num", &d->aicpu_num);
	if (ret != 0) {
		UCFG_WARN("Dts aicpu num is not set. (ret=%d)\n", ret);
		d->aicpu_num = 0;
	}
	UCFG_INFO("Dts ctrl cpu num. (num=%u)\n", d->ctrl_cpu_num);
	UCFG_INFO("Dts data cpu num. (num=%u)\n", d->data_cpu_num);
	UCFG_INFO("Dts dts aicpu num. (num=%u)\n", d->aicpu_num);
	return 0;
}

static int dev_user_cfg_remove(struct platform_device *pdev)
{
	UCFG_INFO("User config remove.\n");
	return 0;
}

static const struct of_device_id g_user_cfg_of_match[] = {
	{ .compatible = "vexa-user-cfg" },
	{ },
};
MODULE_DEVICE_TABLE(of, g_user_cfg_of_match);

static struct platform_driver g_user_cfg_platform_driver = {
	.probe = dev_user_cfg_probe,
	.remove = dev_user_cfg_remove,
	.driver = {
		.name = "vexa-user-cfg",
		.owner = THIS_MODULE,
		.of_match_table = g_user_cfg_of_match,
	},
};

/*
 * A failed start: waits until no open that raced with it still holds the
 * module. Each holds references on the module (for the cdev and for its
 * file operations) from before dev_user_cfg_open() until after the VFS
 * has dropped the cdev, so once only the loader's own reference is left,
 * nothing touches the object or the module's code any more; the loader's
 * RCU grace period covers the last instructions of those module_put()s.
 * The node is gone by then, so no new open can begin.
 */
static void dev_user_cfg_wait_openers(void)
{
#ifdef CONFIG_MODULE_UNLOAD
	while (module_refcount(THIS_MODULE) > 1)
		msleep(20);
#endif
}

static int __init dev_user_cfg_module_init(void)
{
	struct infra_user_cfg_dev *d;
	int ret;

	d = kzalloc(sizeof(*d), GFP_KERNEL);
	if (!d) {
		UCFG_ERR("Allocate memory for device structure failed.\n");
		return -ENOMEM;
	}
	g_infra_user_cfg_dev = d;

	ret = dev_user_cfg_init_dev(d);
	if (ret != 0) {
		UCFG_ERR("Initialize character device failed. (ret=%d)\n", ret);
		goto free_dev;
	}

	/* A matching node is probed here: the object must already exist. */
	ret = platform_driver_register(&g_user_cfg_platform_driver);
	if (ret != 0) {
		UCFG_ERR("Register platform driver failed. (ret=%d)\n", ret);
		goto cleanup_dev;
	}

	ret = devdrv_config_pss_cfg_init(1);
	if (ret != 0)
		UCFG_ERR("Failed to invoke the devdrv_config_set_pss_cfg. (ret=%d)\n",
			 ret);
	dev_user_cfg_view_init();
	/* Pairs with the acquire in dev_user_cfg_open(). */
	smp_store_release(&dev_user_cfg_live, true);
	return 0;

cleanup_dev:
	dev_user_cfg_cleanup_dev(d);
	dev_user_cfg_wait_openers();
free_dev:
	g_infra_user_cfg_dev = NULL;
	kfree(d);
	return ret;
}

static void __exit dev_user_cfg_module_exit(void)
{
	WRITE_ONCE(dev_user_cfg_live, false);
	dev_user_cfg_view_exit();
	platform_driver_unregister(&g_user_cfg_platform_driver);
	devdrv_config_pss_cfg_uninit();
	if (g_infra_user_cfg_dev) {
		dev_user_cfg_cleanup_dev(g_infra_user_cfg_dev);
		kfree(g_infra_user_cfg_dev);
		g_infra_user_cfg_dev = NULL;
	}
	UCFG_INFO("User cfg drv clean ok.\n");
}

module_init(dev_user_cfg_module_init);
module_exit(dev_user_cfg_module_exit);

MODULE_DESCRIPTION("dev firmware user configure driver");
MODULE_LICENSE("GPL");
MODULE_VERSION(DRV_USER_CFG_VERSION);
