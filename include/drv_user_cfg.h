/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Functions that drv_user_cfg exports to other kernel modules.
 *
 * All return 0 on success or a negative errno. They may sleep. Devices are
 * numbered from 0; requests by name accept devices below the count the
 * platform's control module reports (at most 2).
 */
#ifndef _DRV_USER_CFG_H
#define _DRV_USER_CFG_H

#include <linux/types.h>

/* Read an item by name into data (room size); *out_len gets its length. */
int hal_kernel_get_user_config(u32 device_id, const char *item_name,
			       u8 *data, u32 size, u32 *out_len);
/* Store size bytes as the item's value (a static item needs its length). */
int hal_kernel_set_user_config(u32 device_id, const char *item_name,
			       u8 *data, u32 size);
/* Return static item cfg_index of device 0 or 1 to its default. */
int devdrv_config_clear_user_item(u32 device_id, int cfg_index);

/* Index 0 to 5 of a static item, -1 for a dynamic name, or an error. */
int devdrv_get_config_index_by_name(const char *name);
/* Value of static item cfg_index; *buf_size: room in, length out. */
int devdrv_get_user_config_core(u32 dev_id, int cfg_index, u8 *buf,
				u32 *buf_size);

/* 0 when the calling process is one of the trusted daemons. */
int whitelist_process_handler(const char *const *name_list, u32 name_num);

/* The system-wide signature type, 0 or 1. */
int devdrv_config_get_pss_cfg(u32 dev_id, u32 *sign);
int devdrv_config_set_pss_cfg(u32 dev_id, u32 sign);

/* CPUs of each group of a device, as the cgroup cpusets give them. */
struct dev_user_cfg_cpu_nums {
	u32 ccpu_num;
	u32 ccpu_os_sched;
	u32 dcpu_num;
	u32 dcpu_os_sched;
	u32 aicpu_num;
	u32 aicpu_os_sched;
	u32 tscpu_num;
	u32 tscpu_os_sched;
};

int dev_user_cfg_get_cpu_number(u32 dev_id,
				struct dev_user_cfg_cpu_nums *cpu_nums_cfg);
/* Control, data and AI CPU numbers of the cpu_num_cfg item; size is 12. */
int dev_user_cfg_get_cpu_cfg(u32 dev_id, u32 *cpu_cfg, u32 size);

#endif /* _DRV_USER_CFG_H */
