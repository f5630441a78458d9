/* SPDX-License-Identifier: GPL-2.0 */
/* Host shim: credentials of the current task. */
#ifndef UCFG_SHIM_LINUX_CRED_H
#define UCFG_SHIM_LINUX_CRED_H

#include <linux/types.h>
#include <linux/capability.h>

typedef struct {
	uid_t val;
} kuid_t;

typedef struct {
	gid_t val;
} kgid_t;

struct user_namespace {
	int level;
};

struct cred {
	kuid_t uid;
	kgid_t gid;
	kuid_t euid;
	kgid_t egid;
	kernel_cap_t cap_effective;
};

#ifdef __cplusplus
extern "C" {
#endif
extern struct user_namespace init_user_ns;
#ifdef __cplusplus
}
#endif

#define KUIDT_INIT(value) ((kuid_t){ value })
#define GLOBAL_ROOT_UID KUIDT_INIT(0)

static inline uid_t __kuid_val(kuid_t uid)
{
	return uid.val;
}

static inline uid_t from_kuid(struct user_namespace *ns, kuid_t uid)
{
	(void)ns;
	return uid.val;
}

static inline bool uid_eq(kuid_t a, kuid_t b)
{
	return a.val == b.val;
}

#define current_cred()	(tb_current()->cred)
#define current_uid()	(current_cred()->uid)
#define current_euid()	(current_cred()->euid)
#define current_gid()	(current_cred()->gid)

#include <linux/sched.h>

#endif
