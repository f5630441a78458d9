// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in secure flash for tests: a RAM-backed configuration area per
 * device, exporting the two transfer functions of the real module.
 *
 * Only the 4 MiB window that holds the user configuration exists; any
 * transfer outside it, or of a device the stand-in does not have, fails.
 * Fresh flash reads as 0xff.
 *
 * debugfs: /sys/kernel/debug/sec_flash/devN is device N's window, block b
 * at offset b * 64 KiB, readable and writable, so tests can inspect the
 * copies and damage them at rest.
 */
#include <linux/debugfs.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/siblings.h"

#define SEC_FLASH_DEV_NUM	4U
#define SEC_FLASH_WIN_BASE	0xA40000U
#define SEC_FLASH_WIN_SIZE	0x400000U

static u8 *sec_flash_area[SEC_FLASH_DEV_NUM];
static DEFINE_MUTEX(sec_flash_lock);
static struct dentry *sec_flash_debugfs;

static u8 *sec_flash_window(u32 dev_id, u32 offset, u32 len)
{
	if (dev_id >= SEC_FLASH_DEV_NUM || !sec_flash_area[dev_id])
		return NULL;
	if (offset < SEC_FLASH_WIN_BASE ||
	    (u64)offset + len > (u64)SEC_FLASH_WIN_BASE + SEC_FLASH_WIN_SIZE)
		return NULL;
	return sec_flash_area[dev_id] + (offset - SEC_FLASH_WIN_BASE);
}

int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	u8 *p;

	mutex_lock(&sec_flash_lock);
	p = sec_flash_window(dev_id, offset, len);
	if (p)
		memcpy(buf, p, len);
	mutex_unlock(&sec_flash_lock);
	return p ? 0 : -EIO;
}
EXPORT_SYMBOL(sec_flash_read);

int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	u8 *p;

	mutex_lock(&sec_flash_lock);
	p = sec_flash_window(dev_id, offset, len);
	if (p)
		memcpy(p, buf, len);
	mutex_unlock(&sec_flash_lock);
	return p ? 0 : -EIO;
}
EXPORT_SYMBOL(sec_flash_write);

static ssize_t sec_flash_area_read(struct file *file, char __user *buf,
				   size_t count, loff_t *ppos)
{
	u8 *area = file_inode(file)->i_private;
	ssize_t ret;

	mutex_lock(&sec_flash_lock);
	ret = simple_read_from_buffer(buf, count, ppos, area,
				      SEC_FLASH_WIN_SIZE);
	mutex_unlock(&sec_flash_lock);
	return ret;
}

static ssize_t sec_flash_area_write(struct file *file, const char __user *buf,
				    size_t count, loff_t *ppos)
{
	u8 *area = file_inode(file)->i_private;
	ssize_t ret;

	mutex_lock(&sec_flash_lock);
	ret = simple_write_to_buffer(area, SEC_FLASH_WIN_SIZE, ppos, buf,
				     count);
	mutex_unlock(&sec_flash_lock);
	return ret;
}

static const struct file_operations sec_flash_area_fops = {
	.owner = THIS_MODULE,
	.read = sec_flash_area_read,
	.write = sec_flash_area_write,
	.llseek = default_llseek,
};

static void sec_flash_free(void)
{
	u32 i;

	for (i = 0; i < SEC_FLASH_DEV_NUM; i++) {
		vfree(sec_flash_area[i]);
		sec_flash_area[i] = NULL;
	}
}

static int __init sec_flash_init(void)
{
	u32 i;

	for (i = 0; i < SEC_FLASH_DEV_NUM; i++) {
		sec_flash_area[i] = vmalloc(SEC_FLASH_WIN_SIZE);
		if (!sec_flash_area[i]) {
			sec_flash_free();
			return -ENOMEM;
		}
		memset(sec_flash_area[i], 0xff, SEC_FLASH_WIN_SIZE);
	}
	sec_flash_debugfs = debugfs_create_dir("sec_flash", NULL);
	for (i = 0; i < SEC_FLASH_DEV_NUM; i++) {
		char name[8];

		snprintf(name, sizeof(name), "dev%u", i);
		debugfs_create_file_size(name, 0600, sec_flash_debugfs,
					 sec_flash_area[i], &sec_flash_area_fops,
					 SEC_FLASH_WIN_SIZE);
	}
	return 0;
}

static void __exit sec_flash_exit(void)
{
	debugfs_remove_recursive(sec_flash_debugfs);
	sec_flash_free();
}

module_init(sec_flash_init);
module_exit(sec_flash_exit);

MODULE_DESCRIPTION("stand-in secure flash for drv_user_cfg tests");
MODULE_LICENSE("GPL");
