// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in secure flash for tests: a RAM-backed configuration area per
 * device, exporting the two transfer functions of the real module.
 *
 * Only the 4 MiB window that holds the user configuration exists; any
 * transfer outside it, or of a device the stand-in does not have, fails.
 * Fresh flash reads as 0xff.
 *
 * debugfs, one directory per device, /sys/kernel/debug/sec_flash/devN/:
 *   area           the whole window, block b at offset b * 64 KiB; read it
 *                  to dump the flash, write it to load an image or to damage
 *                  a copy at rest
 *   reads, writes  transfers served since the last reset; write 0 to reset
 *   fail_read      N: the Nth read from now fails (once); 0 disarms
 *   fail_write     N: the Nth write from now fails (once), flash untouched
 *   fail_code      errno the failed transfers return, as a positive number
 *                  (default EIO)
 *   power_cut      N: the Nth write from now fails and so does every later
 *                  transfer, reads included, until 0 is written
 *   corrupt_write  N: the Nth write from now stores its data with the first
 *                  byte inverted and still reports success
 *   trace          the last 64 transfers, oldest first, one per line:
 *                  "R|W block result"; write anything to empty it
 *
 * Every counter is "from now": writing N arms it afresh, and a transfer that
 * fires a one-shot fault disarms it. Faults are checked in the order power
 * cut, failure, corruption. All state is under one mutex, so a test that
 * arms a fault and then issues a request sees the fault at a well-defined
 * transfer.
 */
#include <linux/debugfs.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/siblings.h"

#define SEC_FLASH_DEV_NUM	4U
#define SEC_FLASH_WIN_BASE	0xA40000U
#define SEC_FLASH_WIN_SIZE	0x400000U
#define SEC_FLASH_BLK_SIZE	0x10000U
#define SEC_FLASH_TRACE_LEN	64U

struct sec_flash_event {
	char op;
	u32 blk;
	int ret;
};

struct sec_flash_dev {
	u8 *area;
	u64 reads;
	u64 writes;
	u64 fail_read;
	u64 fail_write;
	u64 fail_code;
	u64 power_cut;
	u64 corrupt_write;
	bool powered_off;
	struct sec_flash_event trace[SEC_FLASH_TRACE_LEN];
	u32 trace_next;
	u32 trace_used;
};

static struct sec_flash_dev sec_flash_devs[SEC_FLASH_DEV_NUM];
static DEFINE_MUTEX(sec_flash_lock);
static struct dentry *sec_flash_debugfs;

static u8 *sec_flash_window(struct sec_flash_dev *d, u32 offset, u32 len)
{
	if (offset < SEC_FLASH_WIN_BASE ||
	    (u64)offset + len > (u64)SEC_FLASH_WIN_BASE + SEC_FLASH_WIN_SIZE)
		return NULL;
	return d->area + (offset - SEC_FLASH_WIN_BASE);
}

/* Counts an armed countdown down; true on the transfer it aims at. */
static bool sec_flash_fires(u64 *countdown)
{
	if (*countdown == 0)
		return false;
	return --*countdown == 0;
}

static int sec_flash_error(struct sec_flash_dev *d)
{
	return d->fail_code ? -(int)d->fail_code : -EIO;
}

static void sec_flash_record(struct sec_flash_dev *d, char op, u32 offset,
			     int ret)
{
	struct sec_flash_event *e = &d->trace[d->trace_next];

	e->op = op;
	e->blk = (offset - SEC_FLASH_WIN_BASE) / SEC_FLASH_BLK_SIZE;
	e->ret = ret;
	d->trace_next = (d->trace_next + 1) % SEC_FLASH_TRACE_LEN;
	if (d->trace_used < SEC_FLASH_TRACE_LEN)
		d->trace_used++;
}

int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	struct sec_flash_dev *d;
	int ret = 0;
	u8 *p;

	if (dev_id >= SEC_FLASH_DEV_NUM || !buf)
		return -EINVAL;
	d = &sec_flash_devs[dev_id];
	mutex_lock(&sec_flash_lock);
	p = sec_flash_window(d, offset, len);
	if (!p) {
		ret = -EINVAL;
		goto unlock;
	}
	d->reads++;
	if (d->powered_off || sec_flash_fires(&d->fail_read)) {
		ret = sec_flash_error(d);
		goto unlock;
	}
	memcpy(buf, p, len);
unlock:
	if (p)
		sec_flash_record(d, 'R', offset, ret);
	mutex_unlock(&sec_flash_lock);
	return ret;
}
EXPORT_SYMBOL(sec_flash_read);

int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	struct sec_flash_dev *d;
	int ret = 0;
	u8 *p;

	if (dev_id >= SEC_FLASH_DEV_NUM || !buf)
		return -EINVAL;
	d = &sec_flash_devs[dev_id];
	mutex_lock(&sec_flash_lock);
	p = sec_flash_window(d, offset, len);
	if (!p) {
		ret = -EINVAL;
		goto unlock;
	}
	d->writes++;
	if (sec_flash_fires(&d->power_cut))
		d->powered_off = true;
	if (d->powered_off || sec_flash_fires(&d->fail_write)) {
		ret = sec_flash_error(d);
		goto unlock;
	}
	memcpy(p, buf, len);
	if (len && sec_flash_fires(&d->corrupt_write))
		p[0] ^= 0xff;
unlock:
	if (p)
		sec_flash_record(d, 'W', offset, ret);
	mutex_unlock(&sec_flash_lock);
	return ret;
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

static ssize_t sec_flash_trace_read(struct file *file, char __user *buf,
				    size_t count, loff_t *ppos)
{
	struct sec_flash_dev *d = file_inode(file)->i_private;
	const size_t room = SEC_FLASH_TRACE_LEN * 24;
	size_t n = 0;
	ssize_t ret;
	char *text;
	u32 i, at;

	text = kzalloc(room, GFP_KERNEL);
	if (!text)
		return -ENOMEM;
	mutex_lock(&sec_flash_lock);
	at = (d->trace_next + SEC_FLASH_TRACE_LEN - d->trace_used) %
	     SEC_FLASH_TRACE_LEN;
	for (i = 0; i < d->trace_used; i++) {
		const struct sec_flash_event *e =
			&d->trace[(at + i) % SEC_FLASH_TRACE_LEN];

		n += scnprintf(text + n, room - n, "%c %u %d\n", e->op, e->blk,
			       e->ret);
	}
	mutex_unlock(&sec_flash_lock);
	ret = simple_read_from_buffer(buf, count, ppos, text, n);
	kfree(text);
	return ret;
}

static ssize_t sec_flash_trace_write(struct file *file,
				     const char __user *buf, size_t count,
				     loff_t *ppos)
{
	struct sec_flash_dev *d = file_inode(file)->i_private;

	mutex_lock(&sec_flash_lock);
	d->trace_used = 0;
	d->trace_next = 0;
	mutex_unlock(&sec_flash_lock);
	return count;
}

static const struct file_operations sec_flash_trace_fops = {
	.owner = THIS_MODULE,
	.read = sec_flash_trace_read,
	.write = sec_flash_trace_write,
	.llseek = default_llseek,
};

/* The knobs and counters: one u64 each, read and written under the lock. */
static int sec_flash_knob_get(void *data, u64 *val)
{
	mutex_lock(&sec_flash_lock);
	*val = *(u64 *)data;
	mutex_unlock(&sec_flash_lock);
	return 0;
}

static int sec_flash_knob_set(void *data, u64 val)
{
	mutex_lock(&sec_flash_lock);
	*(u64 *)data = val;
	mutex_unlock(&sec_flash_lock);
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(sec_flash_knob_fops, sec_flash_knob_get,
			 sec_flash_knob_set, "%llu\n");

/* Arming or clearing the power cut also powers the flash back on. */
static int sec_flash_power_cut_get(void *data, u64 *val)
{
	struct sec_flash_dev *d = data;

	mutex_lock(&sec_flash_lock);
	*val = d->powered_off ? 1 : d->power_cut;
	mutex_unlock(&sec_flash_lock);
	return 0;
}

static int sec_flash_power_cut_set(void *data, u64 val)
{
	struct sec_flash_dev *d = data;

	mutex_lock(&sec_flash_lock);
	d->power_cut = val;
	d->powered_off = false;
	mutex_unlock(&sec_flash_lock);
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(sec_flash_power_cut_fops, sec_flash_power_cut_get,
			 sec_flash_power_cut_set, "%llu\n");

static void sec_flash_create_files(struct sec_flash_dev *d, u32 dev_id)
{
	struct dentry *dir;
	char name[8];

	snprintf(name, sizeof(name), "dev%u", dev_id);
	dir = debugfs_create_dir(name, sec_flash_debugfs);
	debugfs_create_file_size("area", 0600, dir, d, &sec_flash_area_fops,
				 SEC_FLASH_WIN_SIZE);
	debugfs_create_file_unsafe("reads", 0600, dir, &d->reads,
				   &sec_flash_knob_fops);
	debugfs_create_file_unsafe("writes", 0600, dir, &d->writes,
				   &sec_flash_knob_fops);
	debugfs_create_file_unsafe("fail_read", 0600, dir, &d->fail_read,
				   &sec_flash_knob_fops);
	debugfs_create_file_unsafe("fail_write", 0600, dir, &d->fail_write,
				   &sec_flash_knob_fops);
	debugfs_create_file_unsafe("fail_code", 0600, dir, &d->fail_code,
				   &sec_flash_knob_fops);
	debugfs_create_file_unsafe("corrupt_write", 0600, dir,
				   &d->corrupt_write, &sec_flash_knob_fops);
	debugfs_create_file_unsafe("power_cut", 0600, dir, d,
				   &sec_flash_power_cut_fops);
	debugfs_create_file("trace", 0600, dir, d, &sec_flash_trace_fops);
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
		d->fail_code = EIO;
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
