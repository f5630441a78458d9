/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: capabilities of the current task. */
#ifndef UCFG_SHIM_LINUX_CAPABILITY_H
#define UCFG_SHIM_LINUX_CAPABILITY_H

#include <stdbool.h>

#define CAP_DAC_OVERRIDE	1
#define CAP_NET_ADMIN		12
#define CAP_SYS_RAWIO		17
#define CAP_SYS_ADMIN		21
#define CAP_LAST_CAP		40

typedef struct {
	unsigned long long cap;	/* bit n: capability n */
} kernel_cap_t;

#ifdef __cplusplus
extern "C" {
#endif
/* True when the current task record holds capability cap. */
bool capable(int cap);
#ifdef __cplusplus
}
#endif

#endif
