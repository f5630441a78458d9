/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * Interface of /dev/user_config, shared by the module and user-space tools.
 *
 * One ioctl carries a 56-byte request record. Its size field says 4 although
 * the record is 56 bytes long and is both read and written by the driver:
 * the number is part of the platform's ABI and must stay as it is.
 */
#ifndef _UAPI_USER_CFG_H
#define _UAPI_USER_CFG_H

#include <linux/types.h>
#include <linux/ioctl.h>

#define USER_CFG_DEV_NAME	"user_config"
#define USER_CFG_NAME_LEN	32
#define USER_CFG_BUF_MAX	32768

/* Sub-commands of USER_CFG_IOC_ITEM. */
#define USER_CFG_CMD_GET	0
#define USER_CFG_CMD_SET	1
#define USER_CFG_CMD_CLEAR	2

/* Item request: read, set or clear one item of one device. */
struct user_cfg_para {
	__u32 device_id;	/* device number, below the device count */
	__u32 cmd;		/* USER_CFG_CMD_* */
	__s32 cfg_index;	/* filled by the driver; ignored on input */
	char name[USER_CFG_NAME_LEN];	/* NUL needed only below 32 bytes */
	__u32 buf_size;		/* room in buf; content length after a get */
	__u64 buf;		/* user address of the data */
};

#define USER_CFG_IOC_MAGIC	'C'
#define USER_CFG_IOC_ITEM	_IOR(USER_CFG_IOC_MAGIC, 1, __u32)
#define USER_CFG_IOC_BOOT_CFG	_IOR(USER_CFG_IOC_MAGIC, 2, __u32)
#define USER_CFG_IOC_DTS_CPU	_IOR(USER_CFG_IOC_MAGIC, 4, __u32)

/* The record is wire format: its size and every offset are fixed. */
#if defined(__KERNEL__)
#include <linux/build_bug.h>
#elif !defined(__cplusplus)
#include <assert.h>
#endif
#define USER_CFG_ASSERT(e, m) static_assert(e, m)
USER_CFG_ASSERT(sizeof(struct user_cfg_para) == 56, "record is 56 bytes");
USER_CFG_ASSERT(__builtin_offsetof(struct user_cfg_para, cmd) == 4, "cmd");
USER_CFG_ASSERT(__builtin_offsetof(struct user_cfg_para, cfg_index) == 8,
		"cfg_index");
USER_CFG_ASSERT(__builtin_offsetof(struct user_cfg_para, name) == 12, "name");
USER_CFG_ASSERT(__builtin_offsetof(struct user_cfg_para, buf_size) == 44,
		"buf_size");
USER_CFG_ASSERT(__builtin_offsetof(struct user_cfg_para, buf) == 48, "buf");
USER_CFG_ASSERT(USER_CFG_IOC_ITEM == 0x80044301U, "item command");
USER_CFG_ASSERT(USER_CFG_IOC_BOOT_CFG == 0x80044302U, "boot cfg command");
USER_CFG_ASSERT(USER_CFG_IOC_DTS_CPU == 0x80044304U, "dts cpu command");
#undef USER_CFG_ASSERT

#endif /* _UAPI_USER_CFG_H */
