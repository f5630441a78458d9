// SPDX-License-Identifier: GPL-2.0
/*
 * Per-device flash locks and the signature-type setting.
 *
 * One mutex per device number 0 to 3 serialises every configuration
 * operation of that device, from the head validation to the last write.
 * The lock also records its holder, so that an exported entry that may be
 * reached both with and without the lock can tell whether the calling task
 * already holds it (only the holder can see itself recorded there).
 */
#include <linux/compiler.h>
#include <linux/errno.h>
#include <linux/export.h>
#include <linux/mutex.h>
#include <linux/sched.h>

#include "common/log.h"
#include "store/store.h"

static DEFINE_MUTEX(devdrv_flash_config_mutex_dev0);
static DEFINE_MUTEX(devdrv_flash_config_mutex_dev1);
static DEFINE_MUTEX(devdrv_flash_config_mutex_dev2);
static DEFINE_MUTEX(devdrv_flash_config_mutex_dev3);

static struct mutex *const devdrv_flash_config_mutex[UCFG_LOCK_DEV_NUM] = {
	&devdrv_flash_config_mutex_dev0,
	&devdrv_flash_config_mutex_dev1,
	&devdrv_flash_config_mutex_dev2,
	&devdrv_flash_config_mutex_dev3,
};

static struct task_struct *devdrv_flash_config_owner[UCFG_LOCK_DEV_NUM];

void devdrv_config_mutex_lock(u32 dev_id)
{
	if (dev_id >= UCFG_LOCK_DEV_NUM) {
		UCFG_ERR("Device id error for devdev_config_mutex_lock. (dev_id=%u)\n",
			 dev_id);
		return;
	}
	mutex_lock(devdrv_flash_config_mutex[dev_id]);
	WRITE_ONCE(devdrv_flash_config_owner[dev_id], current);
}

void devdrv_config_mutex_unlock(u32 dev_id)
{
	if (dev_id >= UCFG_LOCK_DEV_NUM) {
		UCFG_ERR("Device id error for devdrv_config_mutex_unlock. (device_id=%u)\n",
			 dev_id);
		return;
	}
	WRITE_ONCE(devdrv_flash_config_owner[dev_id], NULL);
	mutex_unlock(devdrv_flash_config_mutex[dev_id]);
}

/* True only when the calling task holds the flash lock of dev_id. */
bool devdrv_config_mutex_held(u32 dev_id)
{
	if (dev_id >= UCFG_LOCK_DEV_NUM)
		return false;
	return READ_ONCE(devdrv_flash_config_owner[dev_id]) == current;
}

/*
 * The signature type is one value for the whole system, kept in memory
 * only. Its mutex is never held together with a flash lock.
 */
static struct {
	u32 sign;
	struct mutex sign_mutex;	/* guards sign only */
} g_sign_type = {
	.sign_mutex = __MUTEX_INITIALIZER(g_sign_type.sign_mutex),
};

/**
 * devdrv_config_get_pss_cfg() - Read the signature type.
 * @dev_id: ignored: the signature type is one value for the whole system.
 * @sign: receives the signature type, 0 or 1 (1 from module start on).
 *
 * Context: Process context; sleeps on the setting's own mutex, which is
 * never held together with a flash lock.
 * Return: 0 on success; -EINVAL for a null @sign.
 */
int devdrv_config_get_pss_cfg(u32 dev_id, u32 *sign)
{
	u32 value;

	if (!sign) {
		UCFG_ERR("The value of dev_id or sign is invalid. (dev_id=%u; sign_is_null=%d)\n",
			 dev_id, 1);
		return -EINVAL;
	}
	mutex_lock(&g_sign_type.sign_mutex);
	value = g_sign_type.sign;
	mutex_unlock(&g_sign_type.sign_mutex);
	*sign = value;
	UCFG_NOTICE("The sign details. (sign=%d)\n", value);
	return 0;
}
EXPORT_SYMBOL(devdrv_config_get_pss_cfg);

/**
 * devdrv_config_set_pss_cfg() - Set the signature type.
 * @dev_id: ignored: the signature type is one value for the whole system.
 * @sign: the new signature type, 0 or 1. It is kept in memory only and
 *	reset to 1 when the module is loaded again.
 *
 * Context: Process context; sleeps on the setting's own mutex.
 * Return: 0 on success; -EINVAL for a value above 1.
 */
int devdrv_config_set_pss_cfg(u32 dev_id, u32 sign)
{
	if (sign > 1) {
		UCFG_ERR("The value of dev_id or sign is invalid. (dev_id=%u; sign=%d)\n",
			 dev_id, sign);
		return -EINVAL;
	}
	mutex_lock(&g_sign_type.sign_mutex);
	g_sign_type.sign = sign;
	mutex_unlock(&g_sign_type.sign_mutex);
	return 0;
}
EXPORT_SYMBOL(devdrv_config_set_pss_cfg);

int devdrv_config_pss_cfg_init(u32 sign)
{
	/*
	 * The mutex is also initialised statically, so an early caller can
	 * never meet an uninitialised lock; re-initialising it here, before
	 * anyone can hold it, registers it under its own lock name.
	 */
	mutex_init(&g_sign_type.sign_mutex);
	g_sign_type.sign = sign;
	return 0;
}

void devdrv_config_pss_cfg_uninit(void)
{
}
