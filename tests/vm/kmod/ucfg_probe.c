// SPDX-License-Identifier: GPL-2.0
/*
 * Test-only caller of drv_user_cfg's exported functions, so that the VM
 * tests can drive the kernel API from user space.
 *
 * One debugfs file, /sys/kernel/debug/ucfg_probe/call: a write is one call,
 * a read (from offset 0) returns the result of the last call as one line of
 * space-separated fields, the first being the function's return value:
 *
 *   cpu_number DEV            ret ccpu ccpu_os dcpu dcpu_os ai ai_os ts ts_os
 *   cpu_cfg DEV SIZE          ret n0 n1 n2 n3   (buffer preset to 0xdeadbeef)
 *   get DEV NAME SIZE         ret out_len HEXDATA
 *   set DEV NAME HEXDATA      ret milliseconds-taken
 *   clear DEV INDEX           ret milliseconds-taken
 *   index NAME                ret
 *   core DEV INDEX SIZE       ret len HEXDATA
 *   whitelist NAME...         ret   (checks the process that writes)
 *
 * NAME "-" stands for a null name. A write that cannot be parsed fails
 * with -EINVAL and leaves the last result in place.
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
#define PROBE_OUT_MAX	(2 * PROBE_DATA_MAX + 128)
#define PROBE_IN_MAX	(2 * PROBE_DATA_MAX + 128)
#define PROBE_NAMES_MAX	4

static DEFINE_MUTEX(probe_lock);
static struct dentry *probe_dir;
static char *probe_out;
static size_t probe_out_len;

static const char *probe_name(const char *tok)
{
	return strcmp(tok, "-") == 0 ? NULL : tok;
}

static void probe_hex(char *dst, const u8 *src, u32 len)
{
	dst = bin2hex(dst, src, len);
	*dst = '\0';
}

static int probe_get(char *args, u8 *data)
{
	char name[48];
	u32 dev, size, out_len = 0;
	int ret, n;

	if (sscanf(args, "%u %47s %u", &dev, name, &size) != 3 ||
	    size > PROBE_DATA_MAX)
		return -EINVAL;
	ret = hal_kernel_get_user_config(dev, probe_name(name), data, size,
					 &out_len);
	n = scnprintf(probe_out, PROBE_OUT_MAX, "%d %u ", ret, out_len);
	if (ret == 0 && out_len <= size)
		probe_hex(probe_out + n, data, out_len);
	return 0;
}

static int probe_set(char *args, u8 *data)
{
	char name[48], *hex;
	unsigned long start;
	u32 dev, len;
	int ret, off = 0;

	if (sscanf(args, "%u %47s %n", &dev, name, &off) != 2 || !off)
		return -EINVAL;
	hex = strim(args + off);
	len = strlen(hex) / 2;
	if (len > PROBE_DATA_MAX || hex2bin(data, hex, len) != 0)
		return -EINVAL;
	start = jiffies;
	ret = hal_kernel_set_user_config(dev, probe_name(name), data, len);
	scnprintf(probe_out, PROBE_OUT_MAX, "%d %u", ret,
		  jiffies_to_msecs(jiffies - start));
	return 0;
}

static int probe_clear(char *args)
{
	unsigned long start;
	u32 dev;
	int index, ret;

	if (sscanf(args, "%u %d", &dev, &index) != 2)
		return -EINVAL;
	start = jiffies;
	ret = devdrv_config_clear_user_item(dev, index);
	scnprintf(probe_out, PROBE_OUT_MAX, "%d %u", ret,
		  jiffies_to_msecs(jiffies - start));
	return 0;
}

static int probe_cpu_number(char *args)
{
	struct dev_user_cfg_cpu_nums c;
	u32 dev;
	int ret;

	if (kstrtou32(args, 10, &dev) != 0)
		return -EINVAL;
	memset(&c, 0xee, sizeof(c));
	ret = dev_user_cfg_get_cpu_number(dev, &c);
	scnprintf(probe_out, PROBE_OUT_MAX, "%d %u %u %u %u %u %u %u %u", ret,
		  c.ccpu_num, c.ccpu_os_sched, c.dcpu_num, c.dcpu_os_sched,
		  c.aicpu_num, c.aicpu_os_sched, c.tscpu_num, c.tscpu_os_sched);
	return 0;
}

static int probe_cpu_cfg(char *args)
{
	u32 dev, size, nums[4] = { 0xdeadbeef, 0xdeadbeef, 0xdeadbeef,
				   0xdeadbeef };
	int ret;

	if (sscanf(args, "%u %u", &dev, &size) != 2)
		return -EINVAL;
	ret = dev_user_cfg_get_cpu_cfg(dev, nums, size);
	scnprintf(probe_out, PROBE_OUT_MAX, "%d %u %u %u %u", ret, nums[0],
		  nums[1], nums[2], nums[3]);
	return 0;
}

static int probe_core(char *args, u8 *data)
{
	u32 dev, size;
	int index, ret, n;

	if (sscanf(args, "%u %d %u", &dev, &index, &size) != 3 ||
	    size > PROBE_DATA_MAX)
		return -EINVAL;
	ret = devdrv_get_user_config_core(dev, index, data, &size);
	n = scnprintf(probe_out, PROBE_OUT_MAX, "%d %u ", ret, size);
	if (ret == 0 && size <= PROBE_DATA_MAX)
		probe_hex(probe_out + n, data, size);
	return 0;
}

static int probe_whitelist(char *args)
{
	const char *names[PROBE_NAMES_MAX];
	char *tok;
	u32 n = 0;

	while ((tok = strsep(&args, " ")) != NULL) {
		if (!*tok)
			continue;
		if (n == PROBE_NAMES_MAX)
			return -EINVAL;
		names[n++] = tok;
	}
	scnprintf(probe_out, PROBE_OUT_MAX, "%d",
		  whitelist_process_handler(names, n));
	return 0;
}

static int probe_dispatch(char *line, u8 *data)
{
	char *args = line;
	char *verb = strsep(&args, " ");

	if (!args)
		args = "";
	if (strcmp(verb, "get") == 0)
		return probe_get(args, data);
	if (strcmp(verb, "set") == 0)
		return probe_set(args, data);
	if (strcmp(verb, "clear") == 0)
		return probe_clear(args);
	if (strcmp(verb, "cpu_number") == 0)
		return probe_cpu_number(args);
	if (strcmp(verb, "cpu_cfg") == 0)
		return probe_cpu_cfg(args);
	if (strcmp(verb, "core") == 0)
		return probe_core(args, data);
	if (strcmp(verb, "whitelist") == 0)
		return probe_whitelist(args);
	if (strcmp(verb, "index") == 0) {
		char name[48];

		if (sscanf(args, "%47s", name) != 1)
			return -EINVAL;
		scnprintf(probe_out, PROBE_OUT_MAX, "%d",
			  devdrv_get_config_index_by_name(name));
		return 0;
	}
	return -EINVAL;
}

static ssize_t probe_write(struct file *file, const char __user *ubuf,
			   size_t count, loff_t *ppos)
{
	char *line;
	u8 *data;
	int ret;

	if (count == 0 || count > PROBE_IN_MAX)
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
	if (ret == 0)
		probe_out_len = strlen(probe_out);
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
				      probe_out_len);
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
	probe_out = kvzalloc(PROBE_OUT_MAX, GFP_KERNEL);
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
