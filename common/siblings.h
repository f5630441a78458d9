/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Functions of the two sibling modules of the platform.
 *
 * The secure-flash module is linked directly: the store cannot work without
 * it. The control module is looked up by name at run time, so that this
 * module loads without it and notices when it is unloaded.
 */
#ifndef UCFG_COMMON_SIBLINGS_H
#define UCFG_COMMON_SIBLINGS_H

#include <linux/types.h>

/* Secure flash: offsets and lengths in bytes; 0 is success. */
int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len);
int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len);

/* Control module: exported names looked up with __symbol_get(). */
#define ORVANE_CTL_GET_DEV_NUM "orvane_ctl_get_dev_num"
#define ORVANE_CTL_GET_DTS_CPU_CFG "orvane_ctl_get_dts_cpu_cfg_to_user_cfg"

int orvane_ctl_get_dev_num(u32 *dev_num);
int orvane_ctl_get_dts_cpu_cfg_to_user_cfg(u32 *ctrl_cpu_num, u32 *data_cpu_num,
					   u32 *aicpu_num);

typedef int (*orvane_ctl_get_dev_num_fn)(u32 *dev_num);
typedef int (*orvane_ctl_get_dts_cpu_cfg_fn)(u32 *ctrl_cpu_num,
					     u32 *data_cpu_num,
					     u32 *aicpu_num);

#endif /* UCFG_COMMON_SIBLINGS_H */
