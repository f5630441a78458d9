/* SPDX-License-Identifier: GPL-2.0 */
#include "ucfg_shim/shim.h"
