// SPDX-License-Identifier: GPL-2.0
//
// The kernel services the store's code needs, for the offline image tool.
//
// The store's C sources are compiled against the same kernel-API shim as in
// the test bed (tests/host/include); this file implements the shim's
// functions for a product instead of a test: plain allocation, a real mutex,
// SHA-256 from the host's libcrypto, the module's messages kept for -v, and
// the two secure-flash transfers served from an image held in memory. There
// is no fault injection and no accounting here, and no logic of the store:
// what is valid, what is repaired and how an item is written is decided by
// the store's own code only.
#include "image_flash.h"

// The low-level SHA-256 calls keep their state in the caller's descriptor
// (EVP would allocate); they are deprecated, not gone.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" {
#include <crypto/hash.h>
#include <linux/capability.h>
#include <linux/gfp.h>
#include <linux/cred.h>
#include <linux/mutex.h>
#include <linux/sched.h>
}

namespace {

ucfg_image::FlashWindow *g_window;
std::string g_log;
bool g_log_echo;

// The tool acts with every right of a privileged daemon of the device: the
// access rules of the store are the device's business, not the image's.
struct cred g_cred = { {0}, {0}, {0}, {0}, {~0ULL} };
struct task_struct g_task = {"ucfg-image", 1, 1, nullptr, nullptr, &g_cred, &g_cred};

int transfer(bool write, u32 dev, u32 offset, u8 *buf, u32 len)
{
	if (!g_window || dev != 0 || !buf)
		return -ENODEV;
	return write ? g_window->write(offset, buf, len) : g_window->read(offset, buf, len);
}

} // namespace

namespace ucfg_image {

void attach_flash(FlashWindow *window)
{
	g_window = window;
}

std::string take_module_log()
{
	std::string s;
	s.swap(g_log);
	return s;
}

void echo_module_log(bool on)
{
	g_log_echo = on;
}

} // namespace ucfg_image

static void add_log(int level, const char *fmt, va_list ap)
{
	char line[512];
	std::vsnprintf(line, sizeof(line), fmt, ap);
	static const char *const names[] = {"emerg", "alert", "crit", "err", "warning",
					    "notice", "info", "debug"};
	std::string text = std::string(names[level & 7]) + ": " + line;
	if (text.empty() || text.back() != '\n')
		text += '\n';
	g_log += text;
	if (g_log_echo)
		std::fputs(text.c_str(), stderr);
}

extern "C" {

void tb_printk(int level, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	add_log(level, fmt, ap);
	va_end(ap);
}

int tb_printk_raw(const char *fmt, ...)
{
	int level = TB_LOG_WARNING;
	if (fmt[0] == '\001' && fmt[1] >= '0' && fmt[1] <= '7') {
		level = fmt[1] - '0';
		fmt += 2;
	}
	va_list ap;
	va_start(ap, fmt);
	add_log(level, fmt, ap);
	va_end(ap);
	return 0;
}

void tb_violation(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	std::fputs("ucfg-image: internal error: ", stderr);
	std::vfprintf(stderr, fmt, ap);
	std::fputc('\n', stderr);
	va_end(ap);
	std::abort();
}

struct task_struct *tb_current(void)
{
	return &g_task;
}

bool capable(int cap)
{
	return cap >= 0;
}

void *tb_alloc(size_t size, unsigned int gfp, int)
{
	return (gfp & __GFP_ZERO) ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1);
}

void tb_free(const void *ptr, int)
{
	std::free(const_cast<void *>(ptr));
}

// The board registers: there is no board. Every catalogue row of this
// module is valid on every board, so the id read here does not matter.
static u32 g_regs[USER_CFG_REG_WORDS];

void *tb_ioremap(uint64_t, size_t)
{
	return g_regs;
}

void tb_iounmap(volatile void *) {}

uint32_t tb_readl(const volatile void *addr)
{
	return *static_cast<const volatile u32 *>(addr);
}

void tb_writel(uint32_t value, volatile void *addr)
{
	*static_cast<volatile u32 *>(addr) = value;
}

// "User" memory is the tool's own memory: the item engine copies values
// in and out of the tool's buffers with these.
bool tb_access_ok(const void *, unsigned long)
{
	return true;
}

unsigned long tb_copy_from_user(void *to, const void *from, unsigned long n)
{
	std::memcpy(to, from, n);
	return 0;
}

unsigned long tb_copy_to_user(void *to, const void *from, unsigned long n)
{
	std::memcpy(to, from, n);
	return 0;
}

void tb_rcu_read_lock(void) {}
void tb_rcu_read_unlock(void) {}
void tb_msleep(unsigned int) {}

void tb_mutex_init(struct mutex *lock)
{
	pthread_mutex_init(&lock->m, nullptr);
	lock->locked = 0;
}

void tb_mutex_lock(struct mutex *lock)
{
	pthread_mutex_lock(&lock->m);
	__atomic_store_n(&lock->locked, 1, __ATOMIC_RELAXED);
}

int tb_mutex_trylock(struct mutex *lock)
{
	if (pthread_mutex_trylock(&lock->m) != 0)
		return 0;
	__atomic_store_n(&lock->locked, 1, __ATOMIC_RELAXED);
	return 1;
}

void tb_mutex_unlock(struct mutex *lock)
{
	__atomic_store_n(&lock->locked, 0, __ATOMIC_RELAXED);
	pthread_mutex_unlock(&lock->m);
}

void tb_mutex_destroy(struct mutex *lock)
{
	pthread_mutex_destroy(&lock->m);
}

// SHA-256 of the host's libcrypto, its state inside the caller's descriptor.
static_assert(sizeof(SHA256_CTX) <= TB_SHASH_CTX_SIZE, "descriptor too small");
static struct crypto_shash g_sha256 = { {0x5a256}, SHA256_DIGEST_SIZE };

struct crypto_shash *crypto_alloc_shash(const char *alg_name, u32, u32)
{
	if (std::strcmp(alg_name, "sha256") != 0)
		return static_cast<struct crypto_shash *>(ERR_PTR(-ENOENT));
	return &g_sha256;
}

void crypto_destroy_tfm(void *, struct crypto_tfm *) {}

int crypto_shash_init(struct shash_desc *desc)
{
	SHA256_Init(reinterpret_cast<SHA256_CTX *>(desc->__ctx));
	return 0;
}

int crypto_shash_update(struct shash_desc *desc, const u8 *data, unsigned int len)
{
	SHA256_Update(reinterpret_cast<SHA256_CTX *>(desc->__ctx), data, len);
	return 0;
}

int crypto_shash_final(struct shash_desc *desc, u8 *out)
{
	SHA256_Final(out, reinterpret_cast<SHA256_CTX *>(desc->__ctx));
	return 0;
}

// The platform's control module. An image holds one device, so the device
// count is 1; the device tree's CPU numbers do not exist offline, so the
// item whose default comes from them has no default here.
static int image_get_dev_num(u32 *dev_num)
{
	*dev_num = 1;
	return 0;
}

void *__symbol_get(const char *symbol)
{
	if (std::strcmp(symbol, "orvane_ctl_get_dev_num") == 0)
		return reinterpret_cast<void *>(&image_get_dev_num);
	return nullptr;
}

void __symbol_put(const char *) {}

int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return transfer(false, dev_id, offset, buf, len);
}

int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return transfer(true, dev_id, offset, buf, len);
}

} // extern "C"
