// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in secure flash for tests: a RAM-backed configuration area per
 * device, exporting the two transfer functions of the real module.
 *
 * Only the 4 MiB window that holds the user configuration exists; any
 * transfer outside it, or of a device the stand-in does not have, fails
 * with -EINVAL. Fresh flash reads as 0xff.
 *
 * debugfs, one directory per device, /sys/kernel/debug/sec_flash/devN/:
 *   area           the whole window, block b at offset b * 64 KiB; read it
 *                  to dump the flash, write it to load an image or to damage
 *                  a copy at rest
 *   reads, writes  transfers served so far; write 0 to reset
 *   fail_read      N: the Nth read from now fails (once); 0 disarms
 *   fail_write     N: the Nth write from now fails (once), flash untouched
 *   power_cut      N: the Nth write from now fails and sets power_off
 *   power_off      1 while the power is off: every transfer fails, reads
 *                  included; write 0 to power the flash back on
 *   corrupt_write  N: the Nth write from now stores its data with the first
 *                  byte inverted and still reports success
 *
 * A failed transfer returns -EIO. A countdown reads 0 once its fault has
 * fired. Transfers run under one mutex, so a fault armed before a request
 * hits a well-defined transfer of it; the knobs themselves are plain 64-bit
 * words.
 */
#include <linux/debugfs.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/stddef.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/siblings.h"

#define SEC_FLASH_DEV_NUM	4U
#define SEC_FLASH_WIN_BASE	0xA40000U
#define SEC_FLASH_WIN_SIZE	0x400000U

struct sec_flash_dev {
	u8 *area;
	u64 reads;
	u64 writes;
	u64 fail_read;
	u64 fail_write;
	u64 power_cut;
	u64 power_off;
	u64 corrupt_write;
};

static struct sec_flash_dev sec_flash_devs[SEC_FLASH_DEV_NUM];
static DEFINE_MUTEX(sec_flash_lock);
static struct dentry *sec_flash_debugfs;

/* Counts an armed countdown down; true on the transfer it aims at. */
static bool sec_flash_fires(u64 *countdown)
{
	if (*countdown == 0)
		return false;
	return --*countdown == 0;
}

static int sec_flash_xfer(u32 dev_id, u32 offset, u8 *buf, u32 len,
			  bool write)
{
	struct sec_flash_dev *d;
	bool fail;
	u8 *p;

	if (dev_id >= SEC_FLASH_DEV_NUM || !buf || offset < SEC_FLASH_WIN_BASE ||
	    (u64)offset + len > (u64)SEC_FLASH_WIN_BASE + SEC_FLASH_WIN_SIZE)
		return -EINVAL;
	d = &sec_flash_devs[dev_id];
	p = d->area + (offset - SEC_FLASH_WIN_BASE);
	mutex_lock(&sec_flash_lock);
	if (write) {
		d->writes++;
		if (sec_flash_fires(&d->power_cut))
			d->power_off = 1;
		fail = d->power_off || sec_flash_fires(&d->fail_write);
		if (!fail) {
			memcpy(p, buf, len);
			if (len && sec_flash_fires(&d->corrupt_write))
				p[0] ^= 0xff;
		}
	} else {
		d->reads++;
		fail = d->power_off || sec_flash_fires(&d->fail_read);
		if (!fail)
			memcpy(buf, p, len);
	}
	mutex_unlock(&sec_flash_lock);
	return fail ? -EIO : 0;
}

int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return sec_flash_xfer(dev_id, offset, buf, len, false);
}
EXPORT_SYMBOL(sec_flash_read);

int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return sec_flash_xfer(dev_id, offset, buf, len, true);
}
EXPORT_SYMBOL(sec_flash_write);

static ssize_t sec_flash_area_read(struct file *file, char __user *buf,
				   size_t count, loff_t *ppos)
{
	struct sec_flash_dev *d = file_inode(file)->i_private;
	ssize_t ret;

	mutex_lock(&sec_flash_lock);
	ret = simple_read_from_buffer(buf, count, ppos, d->area,
				      SEC_FLASH_WIN_SIZE);
	mutex_unlock(&sec_flash_lock);
	return ret;
}

static ssize_t sec_flash_area_write(struct file *file, const char __user *buf,
				    size_t count, loff_t *ppos)
{
	struct sec_flash_dev *d = file_inode(file)->i_private;
	ssize_t ret;

	mutex_lock(&sec_flash_lock);
	ret = simple_write_to_buffer(d->area, SEC_FLASH_WIN_SIZE, ppos, buf,
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

static const struct {
	const char *name;
	size_t offset;
} sec_flash_knobs[] = {
	{ "reads", offsetof(struct sec_flash_dev, reads) },
	{ "writes", offsetof(struct sec_flash_dev, writes) },
	{ "fail_read", offsetof(struct sec_flash_dev, fail_read) },
	{ "fail_write", offsetof(struct sec_flash_dev, fail_write) },
	{ "power_cut", offsetof(struct sec_flash_dev, power_cut) },
	{ "power_off", offsetof(struct sec_flash_dev, power_off) },
	{ "corrupt_write", offsetof(struct sec_flash_dev, corrupt_write) },
};

static void sec_flash_create_files(struct sec_flash_dev *d, u32 dev_id)
{
	struct dentry *dir;
	char name[8];
	size_t i;

	snprintf(name, sizeof(name), "dev%u", dev_id);
	dir = debugfs_create_dir(name, sec_flash_debugfs);
	debugfs_create_file_size("area", 0600, dir, d, &sec_flash_area_fops,
				 SEC_FLASH_WIN_SIZE);
	for (i = 0; i < ARRAY_SIZE(sec_flash_knobs); i++)
		debugfs_create_u64(sec_flash_knobs[i].name, 0600, dir,
				   (u64 *)((u8 *)d + sec_flash_knobs[i].offset));
}

static void sec_flash_free(void)
{
	u32 i;

	for (i = 0; i < SEC_FLASH_DEV_NUM; i++) {
		vfree(sec_flash_devs[i].area);
		sec_flash_devs[i].area = NULL;
	}
}

static int __init sec_flash_init(void)
{
	u32 i;

	for (i = 0; i < SEC_FLASH_DEV_NUM; i++) {
		struct sec_flash_dev *d = &sec_flash_devs[i];

		d->area = vmalloc(SEC_FLASH_WIN_SIZE);
		if (!d->area) {
			sec_flash_free();
			return -ENOMEM;
		}
		memset(d->area, 0xff, SEC_FLASH_WIN_SIZE);
	}
	sec_flash_debugfs = debugfs_create_dir("sec_flash", NULL);
	for (i = 0; i < SEC_FLASH_DEV_NUM; i++)
		sec_flash_create_files(&sec_flash_devs[i], i);
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
