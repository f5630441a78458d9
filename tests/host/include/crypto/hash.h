/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Host shim: synchronous hashes. Only "sha256" exists; it is computed by
 * the C library of the host (OpenSSL). The hash state lives inside the
 * descriptor, which the caller keeps on its stack, so an abandoned
 * descriptor owns nothing. Transforms are counted (tb::crypto) and their
 * allocation and every step can be made to fail.
 */
#ifndef UCFG_SHIM_CRYPTO_HASH_H
#define UCFG_SHIM_CRYPTO_HASH_H

#include <linux/types.h>
#include <linux/err.h>
#include <linux/string.h>

#define SHA256_DIGEST_SIZE	32
#define TB_SHASH_CTX_SIZE	128	/* room for the host's SHA-256 state */

struct crypto_tfm {
	u32 tb_magic;
};

struct crypto_shash {
	struct crypto_tfm base;
	unsigned int digestsize;
};

struct shash_desc {
	struct crypto_shash *tfm;
	unsigned char __ctx[TB_SHASH_CTX_SIZE] __attribute__((aligned(16)));
};

/* Declares a descriptor on the stack; does not evaluate ctx. */
#define SHASH_DESC_ON_STACK(shash, ctx)					\
	struct shash_desc __##shash##_desc;				\
	struct shash_desc *shash = &__##shash##_desc

#ifdef __cplusplus
extern "C" {
#endif
struct crypto_shash *crypto_alloc_shash(const char *alg_name, u32 type,
					u32 mask);
int crypto_shash_init(struct shash_desc *desc);
int crypto_shash_update(struct shash_desc *desc, const u8 *data,
			unsigned int len);
int crypto_shash_final(struct shash_desc *desc, u8 *out);
void crypto_destroy_tfm(void *mem, struct crypto_tfm *tfm);
#ifdef __cplusplus
}
#endif

static inline struct crypto_tfm *crypto_shash_tfm(struct crypto_shash *tfm)
{
	return &tfm->base;
}

static inline void crypto_free_shash(struct crypto_shash *tfm)
{
	crypto_destroy_tfm(tfm, crypto_shash_tfm(tfm));
}

static inline unsigned int crypto_shash_digestsize(struct crypto_shash *tfm)
{
	return tfm->digestsize;
}

static inline void shash_desc_zero(struct shash_desc *desc)
{
	memset(desc, 0, sizeof(*desc));
}

#endif
