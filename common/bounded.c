// SPDX-License-Identifier: GPL-2.0
/*
 * Bounded copy, fill and string copy (see bounded.h for the contract).
 */
#include <linux/errno.h>
#include <linux/string.h>

#include "common/bounded.h"

/* Largest capacity accepted: anything larger is a corrupted length. */
#define BOUNDED_MAX_LEN 0x7fffffffUL

int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count)
{
	if (!dest || dest_max == 0 || dest_max > BOUNDED_MAX_LEN)
		return -EINVAL;
	if (count == 0)
		return 0;
	if (!src)
		return -EINVAL;
	if (count > dest_max)
		return -ERANGE;
	/* Overlapping ranges would make the result depend on copy order. */
	if ((const u8 *)src < (u8 *)dest + count &&
	    (u8 *)dest < (const u8 *)src + count)
		return -EINVAL;
	memcpy(dest, src, count);
	return 0;
}

int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
	if (!dest || dest_max == 0 || dest_max > BOUNDED_MAX_LEN)
		return -EINVAL;
	if (count > dest_max)
		return -ERANGE;
	memset(dest, c, count);
	return 0;
}

int strcpy_s(char *dest, size_t dest_max, const char *src)
{
	size_t len;

	if (!dest || dest_max == 0 || dest_max > BOUNDED_MAX_LEN)
		return -EINVAL;
	if (!src) {
		dest[0] = '\0';
		return -EINVAL;
	}
	len = strnlen(src, dest_max);
	/* The source and its terminating zero must fit. */
	if (len >= dest_max) {
		dest[0] = '\0';
		return -ERANGE;
	}
	memcpy(dest, src, len + 1);
	return 0;
}
