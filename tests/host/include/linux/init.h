/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: section annotations do nothing. */
#ifndef UCFG_SHIM_LINUX_INIT_H
#define UCFG_SHIM_LINUX_INIT_H

#define __init
#define __exit
#define __initdata
#define __exitdata
#define __initconst
#define __ro_after_init

#endif
