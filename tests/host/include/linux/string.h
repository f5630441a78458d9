/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: the C library's string functions under the kernel's header. */
#ifndef UCFG_SHIM_LINUX_STRING_H
#define UCFG_SHIM_LINUX_STRING_H

#include <linux/types.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif
/* Kernel strscpy(): copies at most size - 1 bytes, always terminates,
 * returns the length copied or -E2BIG when src was truncated.
 */
ssize_t strscpy(char *dest, const char *src, size_t size);
#ifdef __cplusplus
}
#endif

#endif
