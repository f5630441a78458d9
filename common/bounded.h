/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Bounded copy, fill and string copy.
 *
 * Every routine is given the capacity of its destination and refuses, with a
 * non-zero status, any request that would write past it. The status is a
 * negative errno so that a caller which hands "its code" upward can never be
 * confused with the positive "bytes not copied" count of the user-copy paths.
 */
#ifndef UCFG_COMMON_BOUNDED_H
#define UCFG_COMMON_BOUNDED_H

#include <linux/types.h>

int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count);
int memset_s(void *dest, size_t dest_max, int c, size_t count);
int strcpy_s(char *dest, size_t dest_max, const char *src);

#endif /* UCFG_COMMON_BOUNDED_H */
