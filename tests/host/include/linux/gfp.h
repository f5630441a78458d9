/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: allocation flags, with the values of Linux 5.10. */
#ifndef UCFG_SHIM_LINUX_GFP_H
#define UCFG_SHIM_LINUX_GFP_H

#include <linux/types.h>

#define ___GFP_HIGH		0x20u
#define ___GFP_IO		0x40u
#define ___GFP_FS		0x80u
#define ___GFP_ZERO		0x100u
#define ___GFP_ATOMIC		0x200u
#define ___GFP_DIRECT_RECLAIM	0x400u
#define ___GFP_KSWAPD_RECLAIM	0x800u
#define ___GFP_NOWARN		0x2000u
#define ___GFP_ACCOUNT		0x400000u

#define __GFP_HIGH		((gfp_t)___GFP_HIGH)
#define __GFP_IO		((gfp_t)___GFP_IO)
#define __GFP_FS		((gfp_t)___GFP_FS)
#define __GFP_ZERO		((gfp_t)___GFP_ZERO)
#define __GFP_ATOMIC		((gfp_t)___GFP_ATOMIC)
#define __GFP_DIRECT_RECLAIM	((gfp_t)___GFP_DIRECT_RECLAIM)
#define __GFP_KSWAPD_RECLAIM	((gfp_t)___GFP_KSWAPD_RECLAIM)
#define __GFP_RECLAIM	((gfp_t)(___GFP_DIRECT_RECLAIM | ___GFP_KSWAPD_RECLAIM))
#define __GFP_NOWARN		((gfp_t)___GFP_NOWARN)
#define __GFP_ACCOUNT		((gfp_t)___GFP_ACCOUNT)

#define GFP_ATOMIC	(__GFP_HIGH | __GFP_ATOMIC | __GFP_KSWAPD_RECLAIM)
#define GFP_KERNEL	(__GFP_RECLAIM | __GFP_IO | __GFP_FS)
#define GFP_KERNEL_ACCOUNT (GFP_KERNEL | __GFP_ACCOUNT)

#endif
