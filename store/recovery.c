// SPDX-License-Identifier: GPL-2.0
/*
 * Choice of the valid head copy and repair of the other one.
 *
 * A head copy is valid when it carries the valid flag and its check code is
 * the SHA-256 of its first 65,500 bytes. A damaged or never-written copy is
 * not an error: it is reported as "not valid" and, when the other copy is
 * valid, rewritten from it. Only a failed read or a digest that cannot be
 * computed is an error, and then nothing is repaired: a read failure of
 * either copy aborts even when the other copy is intact, because a decision
 * taken on half the evidence could overwrite the newer copy.
 */
#include <linux/errno.h>
#include <linux/string.h>

#include "common/bounded.h"
#include "common/log.h"
#include "store/store.h"

static int devdrv_config_read_check_code(const u8 *image, u8 *code)
{
	int ret;

	ret = memcpy_s(code, UCFG_CHECK_CODE_LEN,
		       image + UCFG_CHECK_CODE_OFFSET, UCFG_CHECK_CODE_LEN);
	if (ret != 0)
		UCFG_ERR("The memcpy_s failed. (ret=%d)\n", ret);
	return ret;
}

static int devdrv_config_calculate_check_code(const u8 *image, u8 *code)
{
	int ret;

	ret = devdrv_calculate_block_sha256(image, UCFG_CHECK_CODE_OFFSET, code);
	if (ret != 0)
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (ret=%d)\n",
			 ret);
	return ret;
}

static int devdrv_config_check_valid(const u8 *image, u32 *valid)
{
	u32 flag = ucfg_head((u8 *)image)->valid_flag;
	u8 stored[UCFG_CHECK_CODE_LEN];
	u8 computed[UCFG_CHECK_CODE_LEN];
	int ret;

	if (flag != UCFG_VALID_FLAG) {
		UCFG_WARN("The valid_flag is invalid. (valid_flag=%u; must_be=%u)\n",
			  flag, UCFG_VALID_FLAG);
		*valid = 0;
		return 0;
	}
	ret = devdrv_config_read_check_code(image, stored);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_check_code failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	ret = devdrv_config_calculate_check_code(image, computed);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_calculate_check_code failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	ret = memcmp(stored, computed, UCFG_CHECK_CODE_LEN);
	if (ret != 0) {
		UCFG_INFO("The sha256 is not equal to calculation in flash. (ret=%d)\n",
			  ret);
		*valid = 0;
		return 0;
	}
	*valid = 1;
	return 0;
}

int devdrv_config_check_blk_validity(u32 dev_id, u32 blk, u8 *image,
				     u32 *valid)
{
	int ret;

	ret = devdrv_config_read_block(dev_id, blk, image);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; blk_id=%u; ret=%d)\n",
			 dev_id, blk, ret);
		return ret;
	}
	ret = devdrv_config_check_valid(image, valid);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_check_valid failed. (device_id=%u; blk_id=%u; ret=%d)\n",
			 dev_id, blk, ret);
	return ret;
}

/*
 * Loads the valid head into image and makes both copies valid.
 *
 * Both valid: block 0 wins, even when the copies differ (an update writes
 * block 0 first, so block 0 is the newer one), and block 32 is left alone
 * here; the next write of the head brings it in step. One valid: the other
 * copy is rewritten from it. None valid: *blk_state is 0 and image holds
 * raw bytes that must not be used.
 */
int devdrv_config_get_valid_block(u32 dev_id, u8 *image, u32 *blk_state,
				  u32 *head_blk_id)
{
	u32 main_valid = 0, bk_valid = 0;
	u32 chosen, other;
	int ret;

	*blk_state = UCFG_BLK_STATE_NONE;

	ret = devdrv_config_check_blk_validity(dev_id, UCFG_HEAD_MAIN_BLK, image,
					       &main_valid);
	if (ret == 0)
		ret = devdrv_config_check_blk_validity(dev_id, UCFG_HEAD_BK_BLK,
						       image, &bk_valid);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_check_blk_validity failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
		return ret;
	}

	UCFG_INFO("The main valid, backup valid. (device_id=%u; main_valid=%u; bk_valid=%u)\n",
		  dev_id, main_valid, bk_valid);
	*head_blk_id = UCFG_HEAD_MAIN_BLK;

	if (main_valid == 1 && bk_valid == 1) {
		*blk_state = UCFG_BLK_STATE_BOTH;
	} else if (main_valid == 1) {
		*blk_state = UCFG_BLK_STATE_MAIN;
	} else if (bk_valid == 1) {
		*blk_state = UCFG_BLK_STATE_BACKUP;
		*head_blk_id = UCFG_HEAD_BK_BLK;
	} else {
		UCFG_INFO("Can not find any valid block, maybe user config is not exist in flash.\n");
		return 0;
	}

	chosen = *head_blk_id;
	ret = devdrv_config_read_block(dev_id, chosen, image);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; block=%u; ret=%d)\n",
			 dev_id, chosen, ret);
		return ret;
	}
	if (*blk_state == UCFG_BLK_STATE_BOTH)
		return 0;

	other = chosen == UCFG_HEAD_MAIN_BLK ? UCFG_HEAD_BK_BLK :
					       UCFG_HEAD_MAIN_BLK;
	ret = devdrv_config_write_one_block(dev_id, other, image);
	if (ret != 0)
		UCFG_ERR("The devdrv_config_write_one_block failed. (device_id=%u; block=%u; ret=%d)\n",
			 dev_id, other, ret);
	return ret;
}
