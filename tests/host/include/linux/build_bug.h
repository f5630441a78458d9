/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: compile-time assertions. */
#ifndef UCFG_SHIM_LINUX_BUILD_BUG_H
#define UCFG_SHIM_LINUX_BUILD_BUG_H

#ifndef __cplusplus
/* static_assert(expr) or static_assert(expr, "message"). */
#undef static_assert
#define static_assert(expr, ...) __static_assert(expr, ##__VA_ARGS__, #expr)
#define __static_assert(expr, msg, ...) _Static_assert(expr, msg)
#define BUILD_BUG_ON(cond) _Static_assert(!(cond), "BUILD_BUG_ON: " #cond)
#else
#define BUILD_BUG_ON(cond) static_assert(!(cond), "BUILD_BUG_ON: " #cond)
#endif
#define BUILD_BUG_ON_MSG(cond, msg) BUILD_BUG_ON(cond)

#endif
