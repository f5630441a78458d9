/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: the driver model, declared only. The device frame (driver/)
 * is not part of the host build; code outside it only names these types.
 */
#ifndef UCFG_SHIM_LINUX_DEVICE_H
#define UCFG_SHIM_LINUX_DEVICE_H

#include <linux/types.h>
#include <linux/module.h>

struct device;
struct class;

#endif
