// SPDX-License-Identifier: GPL-2.0
/*
 * Default values of the static items and their value checks.
 *
 * A default comes either from a provider named for the item in the provider
 * table, or from the row's hexadecimal string: the bytes written in the
 * string, in order, followed by zeros up to the value length. Once a
 * provider has been called there is no fall-back to the string, so an item
 * whose provider fails has no default.
 */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/bounded.h"
#include "common/log.h"
#include "common/siblings.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

#define DEFAULT_WORK_BUF_SIZE	32768U
#define DEFAULT_STR_MIN_LEN	4
#define DEFAULT_AI_CPU_INDEX	2

struct user_cfg_default_func {
	const char *item_name;
	int (*get_para_post_process_func)(u8 *buf, u32 *buf_size,
					  const struct user_cfg_item_desc *row);
};

static const struct user_cfg_default_func
g_user_config_item_default_func_list[USER_CFG_ITEM_NUM] = {
	{ "cpu_num_cfg", devdrv_config_get_default_dts_cpu_config },
};

/* Converts the "0x..." string of a row into cap bytes of work. */
static int devdrv_config_str2hex(const char *str, u8 *work, u32 cap)
{
	int len = (int)strnlen(str, DEFAULT_WORK_BUF_SIZE + 1);
	int n, i, ret;

	if (len < DEFAULT_STR_MIN_LEN || len > (int)DEFAULT_WORK_BUF_SIZE) {
		UCFG_ERR("The default data len is out of range. (len=%d)\n", len);
		return -EINVAL;
	}
	if (len % 2 != 0) {
		UCFG_ERR("Default data must own a even number length. (len=%d)\n",
			 len);
		return -EINVAL;
	}
	if (str[0] != '0' || (str[1] != 'x' && str[1] != 'X')) {
		UCFG_ERR("Default data is not start with \"0x\" or \"0X\". (str[0]=%c; str[1]=%c)\n",
			 str[0], str[1]);
		return -EINVAL;
	}
	n = (len - 2) / 2;
	if (n > (int)cap) {
		UCFG_ERR("Default data has len hex, but output buf_size is only size. (len=%d; size=%u)\n",
			 n, cap);
		return -EINVAL;
	}
	for (i = 0; i < n; i++) {
		/* At most two hex digits into one byte, as "%02hhx" reads. */
		ret = sscanf(str + 2 + 2 * i, "%02hhx", &work[i]);
		if (ret != 1) {
			UCFG_ERR("The scanf_s failed. (ret=%d)\n", ret);
			return -EINVAL;
		}
	}
	ret = memset_s(work + n, DEFAULT_WORK_BUF_SIZE - n, 0, cap);
	if (ret != 0) {
		UCFG_ERR("The memset_s failed. (ret=%d)\n", ret);
		return ret;
	}
	return 0;
}

static int devdrv_config_get_default_extract(const struct user_cfg_item_desc *row,
					     u8 *buf, u32 *buf_size)
{
	u32 value_len = row->size - 1;
	u8 *work;
	int ret;

	work = vmalloc(DEFAULT_WORK_BUF_SIZE);
	if (!work) {
		UCFG_ERR("Alloc memory for buffer failed.\n");
		return -ENOMEM;
	}
	memset(work, 0xff, DEFAULT_WORK_BUF_SIZE);

	if ((s32)*buf_size < (s32)value_len) {
		UCFG_ERR("The input length is too small. (buff_size=%u; least=%d)\n",
			 *buf_size, value_len);
		ret = -EINVAL;
		goto free_work;
	}
	/* The length is reported even if the conversion fails below. */
	*buf_size = value_len;

	ret = devdrv_config_str2hex(row->default_value, work, value_len);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_str2hex failed. (ret=%d)\n", ret);
		goto free_work;
	}
	memcpy(buf, work, value_len);

free_work:
	vfree(work);
	return ret;
}

int devdrv_config_get_default(const struct user_cfg_item_desc *row, u8 *buf,
			      u32 *buf_size)
{
	const struct user_cfg_default_func *slot;
	int i, ret;

	for (i = 0; i < USER_CFG_ITEM_NUM; i++) {
		slot = &g_user_config_item_default_func_list[i];
		if (!slot->item_name || !slot->get_para_post_process_func ||
		    strcmp(slot->item_name, row->name) != 0)
			continue;
		ret = slot->get_para_post_process_func(buf, buf_size, row);
		if (ret != 0)
			UCFG_ERR("Faild in excute get_para_post_process_func. (item_name=%s; ret=%d)\n",
				 slot->item_name, ret);
		return ret;
	}

	ret = devdrv_config_get_default_extract(row, buf, buf_size);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_get_default_extract failed. (ret=%d)\n",
			 ret);
	return ret;
}

/*
 * Default of cpu_num_cfg: the device tree's control, data and AI CPU
 * numbers, as the control module reports them. Without the control module
 * the item has no default.
 */
int devdrv_config_get_default_dts_cpu_config(u8 *buf, u32 *buf_size,
					     const struct user_cfg_item_desc *row)
{
	orvane_ctl_get_dts_cpu_cfg_fn get_dts_cpu_config_handle;
	u32 ctrl_cpu_num = 0, data_cpu_num = 0, aicpu_num = 0;
	u32 value_len = row->size - 1;
	int ret;

	get_dts_cpu_config_handle = (orvane_ctl_get_dts_cpu_cfg_fn)
		__symbol_get(ORVANE_CTL_GET_DTS_CPU_CFG);
	if (!get_dts_cpu_config_handle) {
		UCFG_ERR("The kallsyms_lookup_name return NULL.\n");
		return -EINVAL;
	}
	ret = get_dts_cpu_config_handle(&ctrl_cpu_num, &data_cpu_num,
					&aicpu_num);
	__symbol_put(ORVANE_CTL_GET_DTS_CPU_CFG);
	if (ret != 0) {
		UCFG_ERR("The get_dts_cpu_config_handle function fail. (ret=%d)\n",
			 ret);
		return ret;
	}

	if ((s32)*buf_size < (s32)value_len) {
		UCFG_ERR("Input buf size is too small. (buff_size=%u; least=%d)\n",
			 *buf_size, value_len);
		return -EINVAL;
	}
	*buf_size = value_len;
	if (value_len <= DEFAULT_AI_CPU_INDEX) {
		UCFG_ERR("Config index is out of range. (ai_cpu_num_index=%d; least=%d)\n",
			 DEFAULT_AI_CPU_INDEX, value_len);
		return -EINVAL;
	}
	ret = memset_s(buf, value_len, 0, value_len);
	if (ret != 0) {
		UCFG_ERR("The memset_s failed. (ret=%d)\n", ret);
		return ret;
	}
	buf[0] = (u8)ctrl_cpu_num;
	buf[1] = (u8)data_cpu_num;
	buf[2] = (u8)aicpu_num;
	return 0;
}

/* Both switches accept 0 and 1; the selector must be 0 or 1 as well. */
static int devdrv_config_check_switch(u32 selector, const u8 *value)
{
	if (!value || selector > 1)
		return -1;
	return *value <= 1 ? 0 : -1;
}

int ddr_ecc_enable_check_para(u32 selector, const u8 *value)
{
	return devdrv_config_check_switch(selector, value);
}

int ssh_status_check_para(u32 selector, const u8 *value)
{
	return devdrv_config_check_switch(selector, value);
}
