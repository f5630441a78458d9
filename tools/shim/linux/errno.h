/* SPDX-License-Identifier: GPL-2.0 */
#include_next <linux/errno.h>
#include "ucfg_shim/shim.h"
