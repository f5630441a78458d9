// SPDX-License-Identifier: GPL-2.0
/*
 * Properties of the shim that only a C translation unit can show; the
 * test bed's own tests read them through these functions.
 */
#include <linux/build_bug.h>
#include <linux/gfp.h>
#include <linux/stringify.h>
#include <linux/types.h>

const char *tb_c_stringify_null(void);

static_assert((GFP_KERNEL | __GFP_ZERO | __GFP_ACCOUNT) == 0x400dc0);
static_assert(GFP_KERNEL_ACCOUNT == 0x400cc0, "5.10 flag values");
static_assert(sizeof(u64) == 8 && sizeof(s8) == 1);

const char *tb_c_stringify_null(void)
{
	return __stringify(NULL);
}
