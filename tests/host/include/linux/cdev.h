/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: the character-device object, as a type only. The device node
 * runs in the VM tests; the host build compiles only code that embeds it.
 */
#ifndef UCFG_SHIM_LINUX_CDEV_H
#define UCFG_SHIM_LINUX_CDEV_H

#include <linux/types.h>

struct cdev {
	dev_t dev;
	unsigned int count;
};

#endif
