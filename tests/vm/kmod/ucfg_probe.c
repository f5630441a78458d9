// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only caller of drv_user_cfg's exported functions, so that the VM
 * tests can drive the kernel API from user space, in the context of the
 * process that asks.
 *
 * One debugfs file, /sys/kernel/debug/ucfg_probe/call: a write is one call,
 * made by the writing process; a read (from offset 0) returns the result of
 * the last call as one line of space-separated numbers, the first being the
 * function's return value:
 *
 *   get DEV NAME SIZE         ret out_len HEXDATA
 *   set DEV NAME HEXDATA      ret milliseconds-taken
 *   cpu_number DEV            ret ccpu ccpu_os dcpu dcpu_os ai ai_os ts ts_os
 *   cpu_cfg DEV SIZE          ret n0 n1 n2 n3   (buffer preset to 0xdeadbeef)
 *   whitelist NAME...         ret   (at most 4 names)
 *
 * A write that cannot be parsed fails with -EINVAL and leaves the last
 * result in place.
 */
#include <linux/debugfs.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "drv_user_cfg.h"

#define PROBE_DATA_MAX	32768U
#define PROBE_TEXT_MAX	(2 * PROBE_DATA_MAX + 128)

static DEFINE_MUTEX(probe_lock);
static struct dentry *probe_dir;
static char *probe_out;

#define probe_say(...) scnprintf(probe_out, PROBE_TEXT_MAX, __VA_ARGS__)

/* One call of the kernel API; a set is timed, as it may sleep on purpose. */
static int probe_dispatch(char *args, u8 *data)
{
	u32 dev, size, len = 0, n[4] = { 0xdeadbeef, 0xdeadbeef, 0xdeadbeef,
					 0xdeadbeef };
	char *verb = strsep(&args, " "), name[48], *tok;
	struct dev_user_cfg_cpu_nums c;
	unsigned long start = jiffies;
	const char *names[4];
	int ret, off = 0;

	if (!args)
		args = "";
	if (!strcmp(verb, "get")) {
		if (sscanf(args, "%u %47s %u", &dev, name, &size) != 3 ||
		    size > PROBE_DATA_MAX)
			return -EINVAL;
		ret = hal_kernel_get_user_config(dev, name, data, size, &len);
		n[0] = probe_say("%d %u ", ret, len);
		if (ret == 0 && len <= size)
			*bin2hex(probe_out + n[0], data, len) = '\0';
	} else if (!strcmp(verb, "set")) {
		if (sscanf(args, "%u %47s %n", &dev, name, &off) != 2 || !off)
			return -EINVAL;
		tok = strim(args + off);
		len = strlen(tok) / 2;
		if (len > PROBE_DATA_MAX || hex2bin(data, tok, len))
			return -EINVAL;
		ret = hal_kernel_set_user_config(dev, name, data, len);
		probe_say("%d %u", ret, jiffies_to_msecs(jiffies - start));
	} else if (!strcmp(verb, "cpu_number")) {
		if (kstrtou32(args, 10, &dev))
			return -EINVAL;
		memset(&c, 0xee, sizeof(c));
		ret = dev_user_cfg_get_cpu_number(dev, &c);
		probe_say("%d %u %u %u %u %u %u %u %u", ret, c.ccpu_num,
			  c.ccpu_os_sched, c.dcpu_num, c.dcpu_os_sched,
			  c.aicpu_num, c.aicpu_os_sched, c.tscpu_num,
			  c.tscpu_os_sched);
	} else if (!strcmp(verb, "cpu_cfg")) {
		if (sscanf(args, "%u %u", &dev, &size) != 2)
			return -EINVAL;
		ret = dev_user_cfg_get_cpu_cfg(dev, n, size);
		probe_say("%d %u %u %u %u", ret, n[0], n[1], n[2], n[3]);
	} else if (!strcmp(verb, "whitelist")) {
		while ((tok = strsep(&args, " ")) != NULL) {
			if (*tok && len == ARRAY_SIZE(names))
				return -EINVAL;
			if (*tok)
				names[len++] = tok;
		}
		probe_say("%d", whitelist_process_handler(names, len));
	} else {
		return -EINVAL;
	}
	return 0;
}

static ssize_t probe_write(struct file *file, const char __user *ubuf,
			   size_t count, loff_t *ppos)
{
	char *line;
	u8 *data;
	int ret;

	if (count == 0 || count > PROBE_TEXT_MAX)
		return -EINVAL;
	line = memdup_user_nul(ubuf, count);
	if (IS_ERR(line))
		return PTR_ERR(line);
	data = kvzalloc(PROBE_DATA_MAX, GFP_KERNEL);
	if (!data) {
		ret = -ENOMEM;
		goto free_line;
	}
	mutex_lock(&probe_lock);
	ret = probe_dispatch(strim(line), data);
	mutex_unlock(&probe_lock);
	kvfree(data);
free_line:
	kfree(line);
	return ret ? ret : (ssize_t)count;
}

static ssize_t probe_read(struct file *file, char __user *ubuf, size_t count,
			  loff_t *ppos)
{
	ssize_t ret;

	mutex_lock(&probe_lock);
	ret = simple_read_from_buffer(ubuf, count, ppos, probe_out,
				      strlen(probe_out));
	mutex_unlock(&probe_lock);
	return ret;
}

static const struct file_operations probe_fops = {
	.owner = THIS_MODULE,
	.read = probe_read,
	.write = probe_write,
	.llseek = default_llseek,
};

static int __init probe_init(void)
{
	probe_out = kvzalloc(PROBE_TEXT_MAX, GFP_KERNEL);
	if (!probe_out)
		return -ENOMEM;
	probe_dir = debugfs_create_dir("ucfg_probe", NULL);
	debugfs_create_file("call", 0600, probe_dir, NULL, &probe_fops);
	return 0;
}

static void __exit probe_exit(void)
{
	debugfs_remove_recursive(probe_dir);
	kvfree(probe_out);
}

module_init(probe_init);
module_exit(probe_exit);

MODULE_DESCRIPTION("test caller of drv_user_cfg's kernel API");
MODULE_LICENSE("GPL");
