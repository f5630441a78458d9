/* SPDX-License-Identifier: GPL-2.0 */
#include_next <linux/types.h>
#include "ucfg_shim/shim.h"
