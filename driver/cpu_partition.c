// SPDX-License-Identifier: GPL-2.0
/*
 * CPU partition queries for other kernel modules.
 *
 * dev_user_cfg_get_cpu_number() reports the group sizes the running system
 * set up as cgroup cpusets: each group's cpuset lists one element per
 * device, in device order, an element being "first-last" or a single CPU.
 * The files are read once, for all devices, on the first successful call
 * and kept for the module's life. dev_user_cfg_get_cpu_cfg() reports the
 * configured numbers of the cpu_num_cfg item (or the device tree's).
 */
#include <linux/compiler.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/string.h>

#include "common/compat.h"
#include "common/log.h"
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "driver/driver.h"

#define CPUSET_CTRL	"/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus"
#define CPUSET_DATA	"/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus"
#define CPUSET_AI	"/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus"
#define CPUSET_BUF_LEN	64
#define CPU_TABLE_DEV_NUM	4U
#define CPU_CFG_SIZE	12U
#define CPU_CFG_VALUE_LEN	16U

static struct dev_user_cfg_cpu_nums g_cpu_nums_cfg[CPU_TABLE_DEV_NUM];
/* Set, with release order, only once every record is complete. */
static u8 g_cpu_nums_cfg_flg;
static u8 log_flg;

/*
 * Element dev_id of the list: skip one comma-terminated element per device
 * before it. A list with too few elements gives the device no CPUs of the
 * group; that is not an error.
 */
static int dev_user_cfg_parse_cpu_num(u32 dev_id, char *buf, u32 *count)
{
	long first, last;
	char *p = buf, *c;
	u32 i;

	for (i = 0; i < dev_id; i++) {
		c = strchr(p, ',');
		if (!c) {
			UCFG_ERR("String parse failed. (dev_id=%u; buf=\"%s\")\n",
				 dev_id, buf);
			*count = 0;
			return 0;
		}
		p = c + 1;
	}
	c = strchr(p, ',');
	if (c)
		*c = '\0';

	c = strchr(p, '-');
	if (!c) {
		*count = 1;
		return 0;
	}
	*c = '\0';
	/* Base 0: a 0x prefix reads hexadecimal, a leading 0 octal. */
	first = simple_strtol(p, NULL, 0);
	last = simple_strtol(c + 1, NULL, 0);
	*count = (u32)last - (u32)first + 1;
	return 0;
}

/*
 * The cpuset files are read as the host sees them, from the initial root
 * and mount namespace: the table is filled once for every device and
 * caller, so a first caller inside a container must not decide it with a
 * view of its own. A file that is not a regular file (a FIFO put at the
 * path, say) is refused as unopenable rather than read, so that the
 * caller can never block on it; the open itself does not wait either.
 */
static struct file *dev_user_cfg_open_cpuset(const char *path)
{
	struct file *filp;

	filp = ucfg_open_host_file(path, O_RDONLY | O_NONBLOCK);
	if (IS_ERR(filp))
		return filp;
	if (!S_ISREG(file_inode(filp)->i_mode)) {
		filp_close(filp, NULL);
		return ERR_PTR(-EINVAL);
	}
	return filp;
}

static int dev_user_cfg_get_cpu_num(u32 dev_id, const char *path, u32 *count)
{
	char buf[CPUSET_BUF_LEN] = { 0 };
	struct file *filp;
	loff_t pos = 0;
	ssize_t n;

	filp = dev_user_cfg_open_cpuset(path);
	if (IS_ERR(filp)) {
		UCFG_INFO("Opening file is abnormal. (dev_id=%u; cpu_type=\"%s\", errno=%ld.)\n",
			  dev_id, path, PTR_ERR(filp));
		return -EINVAL;
	}
	n = kernel_read(filp, buf, CPUSET_BUF_LEN - 1, &pos);
	filp_close(filp, NULL);

	if (n == 1) {
		/* Only the line end: an empty cpuset. */
		UCFG_INFO("Reading file is abnormal. (dev_id=%u; cpu_type=\"%s\"; read_len=%d)\n",
			  dev_id, path, (int)n);
		*count = 0;
		return 0;
	}
	if (n <= 0) {
		UCFG_ERR("File read failed. (dev_id=%u; cpu_type=\"%s\"; read_len=%d)\n",
			 dev_id, path, (int)n);
		return -EINVAL;
	}
	buf[n - 1] = '\0';
	UCFG_INFO("File read success. (dev_id=%u; cpu_group=\"%s\"; read_len=%d; buf=%s)\n",
		  dev_id, path, (int)n, buf);
	return dev_user_cfg_parse_cpu_num(dev_id, buf, count);
}

static int dev_user_cfg_init_cpu_info(u32 dev_num)
{
	struct dev_user_cfg_cpu_nums *rec;
	u32 i, num;
	int ret;

	for (i = 0; i < dev_num; i++) {
		rec = &g_cpu_nums_cfg[i];
		UCFG_INFO("Get cpu information from cgroup config. (dev_id=%u)\n", i);

		ret = dev_user_cfg_get_cpu_num(i, CPUSET_CTRL, &num);
		if (ret != 0) {
			UCFG_ERR("Ctrl cpu information got failed. (dev_id=%u; ret=%d)\n",
				 i, ret);
			return ret;
		}
		rec->ccpu_num = num;
		rec->ccpu_os_sched = 1;
		UCFG_INFO("Get the cpu_num. (dev_id=%u; cpu_num=%d)\n", i, num);

		ret = dev_user_cfg_get_cpu_num(i, CPUSET_DATA, &num);
		if (ret != 0) {
			UCFG_ERR("Data cpu information got failed. (dev_id=%u; ret=%d)\n",
				 i, ret);
			return ret;
		}
		rec->dcpu_num = num;
		rec->dcpu_os_sched = 1;
		UCFG_INFO("Get the cpu_num. (dev_id=%u; cpu_num=%d)\n", i, num);

		ret = dev_user_cfg_get_cpu_num(i, CPUSET_AI, &num);
		if (ret != 0) {
			UCFG_ERR("AI cpu information got failed. (dev_id=%u; ret=%d)\n",
				 i, ret);
			return ret;
		}
		rec->aicpu_num = num;
		rec->aicpu_os_sched = 1;
		UCFG_INFO("Get the cpu_num. (dev_id=%u; cpu_num=%d)\n", i, num);
	}
	/* Pairs with the acquire in dev_user_cfg_get_cpu_number(). */
	smp_store_release(&g_cpu_nums_cfg_flg, 1);
	return 0;
}

/**
 * dev_user_cfg_get_cpu_number() - CPUs of each group of a device.
 * @dev_id: device number, below the device count of the control module.
 * @cpu_nums_cfg: receives the number of control, data, AI and
 *	task-scheduler CPUs of the device (with their scheduling counts).
 *
 * The numbers come from the cgroup cpusets of the running system, read for
 * all devices on the first successful call and kept for the module's
 * life. The table has room for 4 devices: a control module reporting more
 * is served for devices 0 to 3 only, and a device number beyond the table
 * is refused like one beyond the count rather than read out of bounds.
 *
 * Context: Process context; sleeps (reads files on the first call). Takes
 * no flash lock.
 * Return: 0 on success; -EINVAL for a null @cpu_nums_cfg or a device
 * number out of range, or when the control module is not loaded; the
 * control module's error when it cannot report the count; or the error of
 * reading the cpuset files on the first call.
 */
int dev_user_cfg_get_cpu_number(u32 dev_id,
				struct dev_user_cfg_cpu_nums *cpu_nums_cfg)
{
	struct dev_user_cfg_cpu_nums rec;
	u32 dev_num = 0;
	int ret;

	if (!cpu_nums_cfg) {
		UCFG_ERR("The cpu_nums_cfg is NULL.\n");
		return -EINVAL;
	}
	ret = devdrv_config_get_dev_num(&dev_num);
	if (ret != 0 || dev_id >= dev_num || dev_id >= CPU_TABLE_DEV_NUM) {
		UCFG_ERR("Get device number Failed or invalid parameter. (ret=%d; dev_id=%d; dev_num=%d)\n",
			 ret, dev_id, dev_num);
		return ret != 0 ? ret : -EINVAL;
	}

	/* Pairs with the release in dev_user_cfg_init_cpu_info(). */
	if (!smp_load_acquire(&g_cpu_nums_cfg_flg)) {
		ret = dev_user_cfg_init_cpu_info(min(dev_num, CPU_TABLE_DEV_NUM));
		if (ret != 0) {
			UCFG_ERR("Failed to invoke the dev_user_cfg_init_cpu_info. (ret=%d)\n",
				 ret);
			return ret;
		}
	}

	rec = g_cpu_nums_cfg[dev_id];
	*cpu_nums_cfg = rec;
	if (!READ_ONCE(log_flg)) {
		WRITE_ONCE(log_flg, 1);
		UCFG_INFO("Cpus number config. (ccpu_num=%u; ccpu_os_sched=%u)\n",
			  rec.ccpu_num, rec.ccpu_os_sched);
		UCFG_INFO("Cpus number config. (dcpu_num=%u; dcpu_os_sched=%u)\n",
			  rec.dcpu_num, rec.dcpu_os_sched);
		UCFG_INFO("Cpus number config. (aicpu_num=%u; aicpu_os_sched=%u)\n",
			  rec.aicpu_num, rec.aicpu_os_sched);
		UCFG_INFO("Cpus number config. (tscpu_num=%u; tscpu_os_sched=%u)\n",
			  rec.tscpu_num, rec.tscpu_os_sched);
	}
	return 0;
}
EXPORT_SYMBOL(dev_user_cfg_get_cpu_number);

/**
 * dev_user_cfg_get_cpu_cfg() - Configured CPU numbers of a device.
 * @dev_id: device number, 0 or 1.
 * @cpu_cfg: array of three numbers that receives the control, data and AI
 *	CPU numbers of the "cpu_num_cfg" item (its default, the device
 *	tree's numbers, when it was never set). Must not be null.
 * @size: size of @cpu_cfg in bytes; must be 12.
 *
 * Context: Process context; sleeps. Takes the device's flash lock while
 * reading the item.
 * Return: 0 on success; -EINVAL for a @size other than 12 or a device
 * number above 1; otherwise the error of devdrv_get_user_config_core().
 */
int dev_user_cfg_get_cpu_cfg(u32 dev_id, u32 *cpu_cfg, u32 size)
{
	u8 value[CPU_CFG_VALUE_LEN] = { 0 };
	int ret;

	if (size != CPU_CFG_SIZE) {
		UCFG_ERR("Input data size out of range. (size=%u)\n", size);
		return -EINVAL;
	}
	ret = devdrv_config_get_cpu_cfg(dev_id, value, sizeof(value));
	if (ret != 0) {
		UCFG_ERR("Call devdrv_config_get_cpu_cfg function fail. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}
	cpu_cfg[0] = value[0];
	cpu_cfg[1] = value[1];
	cpu_cfg[2] = value[2];
	return 0;
}
EXPORT_SYMBOL(dev_user_cfg_get_cpu_cfg);
