/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: sleeps are recorded (tb::delay) and by default not slept. */
#ifndef UCFG_SHIM_LINUX_DELAY_H
#define UCFG_SHIM_LINUX_DELAY_H

#include "ucfg_tb/shim.h"

static inline void msleep(unsigned int msecs)
{
	tb_msleep(msecs);
}

static inline void usleep_range(unsigned long min, unsigned long max)
{
	(void)max;
	tb_msleep((unsigned int)((min + 999) / 1000));
}

#endif
