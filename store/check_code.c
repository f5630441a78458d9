// SPDX-License-Identifier: GPL-2.0
/*
 * SHA-256 check codes of head blocks and item slots.
 *
 * A transform is allocated and freed for every digest: nothing survives the
 * call, and the hash descriptor lives on the caller's stack. Callers tell a
 * damaged record (-EDOM) from a digest that could not be computed
 * (-ENODATA) by the result of devdrv_config_cmp_sha256_data().
 */
#include <crypto/hash.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/string.h>

#include "common/bounded.h"
#include "common/log.h"
#include "store/store.h"

int devdrv_calculate_block_sha256(const u8 *data, u32 len, u8 *out)
{
	struct crypto_shash *tfm;
	SHASH_DESC_ON_STACK(desc, tfm);
	int ret;

	ret = memset_s(out, UCFG_SHA256_LEN, 0, UCFG_SHA256_LEN);
	if (ret != 0) {
		UCFG_ERR("The memset_s for sha256 code failed. (ret=%d)\n", ret);
		return -ENOMEM;
	}

	tfm = crypto_alloc_shash("sha256", 0, 0);
	if (IS_ERR_OR_NULL(tfm)) {
		UCFG_ERR("The crypto_alloc_shash function failed.\n");
		return -ENODATA;
	}
	desc->tfm = tfm;

	ret = crypto_shash_init(desc);
	if (ret < 0) {
		UCFG_ERR("The crypto_shash_init function failed. (ret=%d)\n", ret);
		goto free_tfm;
	}
	ret = crypto_shash_update(desc, data, len);
	if (ret < 0) {
		UCFG_ERR("The crypto_shash_update function failed. (ret=%d)\n",
			 ret);
		goto free_tfm;
	}
	ret = crypto_shash_final(desc, out);
	if (ret < 0)
		UCFG_ERR("The crypto_shash_final function failed. (ret=%d)\n",
			 ret);

free_tfm:
	shash_desc_zero(desc);
	crypto_free_shash(tfm);
	return ret < 0 ? ret : 0;
}

/* On failure the image keeps its old check code. */
int devdrv_config_set_check_code(u8 *head_image)
{
	u8 code[UCFG_SHA256_LEN];
	int ret;

	ret = devdrv_calculate_block_sha256(head_image, UCFG_CHECK_CODE_OFFSET,
					    code);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (ret=%d)\n",
			 ret);
		return ret;
	}
	memcpy(ucfg_head(head_image)->check_code, code, UCFG_SHA256_LEN);
	return 0;
}

int devdrv_config_cmp_sha256_data(const u8 *data, u32 len, const u8 *expected)
{
	u8 code[UCFG_SHA256_LEN];
	int ret;

	ret = devdrv_calculate_block_sha256(data, len, code);
	if (ret != 0) {
		UCFG_ERR("The devdrv_calculate_block_sha256 failed. (ret=%d)\n",
			 ret);
		return -ENODATA;
	}
	ret = memcmp(code, expected, UCFG_SHA256_LEN);
	if (ret != 0) {
		UCFG_ERR("The sha256 data is not equal. (ret=%d)\n", ret);
		return -EDOM;
	}
	return 0;
}
