// SPDX-License-Identifier: GPL-2.0
//
// Kernel services of the shim: memory, hash transforms, registers, the
// control module, sleeping, mutexes and a few library helpers.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

// The host's low-level SHA-256 calls are deprecated in favour of EVP, which
// allocates; the low-level state fits in the caller's descriptor instead.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include "tb_internal.h"
#include "testbed.h"

extern "C" {
#include <crypto/hash.h>
#include <linux/gfp.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/string.h>
#include "common/siblings.h"
}

using tb::detail::add_violation;
using tb::detail::Schedule;

// ---------------------------------------------------------------------------
// Memory

namespace tb::alloc {
namespace {

struct Block {
	std::size_t size;
	int kind;
};

struct State {
	std::mutex lock;
	std::map<const void *, Block> live;
	std::size_t bytes = 0, peak = 0;
	u64 total = 0;	// bytes of every successful allocation
	u32 calls = 0, injected = 0;
	unsigned last_gfp = 0;
	Schedule fail;
};

State &st()
{
	static State s;
	return s;
}

} // namespace

u32 calls()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().calls;
}

u32 outstanding()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(st().live.size());
}

std::size_t outstanding_bytes()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().bytes;
}

std::size_t peak_bytes()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().peak;
}

u64 bytes_allocated()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total;
}

void reset_peak()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().peak = st().bytes;
}

void fail_nth(u32 nth)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().fail.arm(nth, 0, false);
}

void fail_from(u32 nth)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().fail.arm(nth, 0, true);
}

void clear_faults()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().fail.disarm();
}

u32 failures_injected()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().injected;
}

unsigned last_gfp()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().last_gfp;
}

} // namespace tb::alloc

void tb::detail::reset_alloc()
{
	using namespace tb::alloc;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	// Leaked blocks of an earlier test are released here, not reported again.
	for (auto &kv : s.live)
		std::free(const_cast<void *>(kv.first));
	s.live.clear();
	s.bytes = s.peak = 0;
	s.total = 0;
	s.calls = s.injected = 0;
	s.last_gfp = 0;
	s.fail.disarm();
}

extern "C" void *tb_alloc(size_t size, unsigned int gfp, int kind)
{
	using namespace tb::alloc;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.calls++;
	s.last_gfp = gfp;
	if (size == 0) {
		add_violation("zero-size allocation");
		return nullptr;
	}
	if (s.fail.hit()) {
		s.injected++;
		return nullptr;
	}
	void *p = std::malloc(size);
	if (!p)
		return nullptr;
	// Unrequested zero-fill must not be relied upon: fill with junk.
	std::memset(p, (gfp & __GFP_ZERO) ? 0 : 0xa5, size);
	s.live[p] = Block{size, kind};
	s.bytes += size;
	s.total += size;
	s.peak = std::max(s.peak, s.bytes);
	return p;
}

extern "C" void tb_free(const void *ptr, int kind)
{
	using namespace tb::alloc;
	if (!ptr)
		return;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	auto it = s.live.find(ptr);
	if (it == s.live.end()) {
		char what[96];
		std::snprintf(what, sizeof(what), "%s of %p, which is not allocated",
			      kind == TB_ALLOC_VMALLOC ? "vfree" : "kfree", ptr);
		add_violation(what);
		return;
	}
	if (it->second.kind != kind)
		add_violation(kind == TB_ALLOC_VMALLOC ? "vfree of kmalloc memory"
						       : "kfree of vmalloc memory");
	s.bytes -= it->second.size;
	s.live.erase(it);
	std::free(const_cast<void *>(ptr));
}

// ---------------------------------------------------------------------------
// Hash transforms

namespace tb::crypto {
namespace {

constexpr u32 kMagic = 0x5348a256;
static_assert(sizeof(SHA256_CTX) <= TB_SHASH_CTX_SIZE, "descriptor too small");

struct State {
	std::mutex lock;
	std::set<const void *> live;
	u32 allocs = 0, digests = 0;
	u64 bytes = 0;	// bytes fed to successful updates
	Schedule alloc, init, update, final;
};

State &st()
{
	static State s;
	return s;
}

// Checks the descriptor's transform; returns the injected failure or 0.
int step(struct shash_desc *desc, Schedule State::*which, const char *name)
{
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	if (!desc || !s.live.count(desc->tfm)) {
		add_violation(std::string(name) + " on a descriptor without a live transform");
		return -EINVAL;
	}
	Schedule &f = s.*which;
	return f.hit() ? f.code : 0;
}

} // namespace

void fail_alloc(u32 nth, int code, bool sticky)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().alloc.arm(nth, code, sticky);
}

void fail_init(u32 nth, int code, bool sticky)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().init.arm(nth, code, sticky);
}

void fail_update(u32 nth, int code, bool sticky)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().update.arm(nth, code, sticky);
}

void fail_final(u32 nth, int code, bool sticky)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().final.arm(nth, code, sticky);
}

void clear_faults()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().alloc.disarm();
	st().init.disarm();
	st().update.disarm();
	st().final.disarm();
}

u32 allocs()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().allocs;
}

u32 live()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(st().live.size());
}

u32 digests()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().digests;
}

u64 bytes_hashed()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().bytes;
}

} // namespace tb::crypto

void tb::detail::reset_crypto()
{
	using namespace tb::crypto;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	for (const void *p : s.live)
		delete static_cast<const struct crypto_shash *>(p);
	s.live.clear();
	s.allocs = s.digests = 0;
	s.bytes = 0;
	s.alloc.disarm();
	s.init.disarm();
	s.update.disarm();
	s.final.disarm();
}

extern "C" struct crypto_shash *crypto_alloc_shash(const char *alg_name, u32 type,
						   u32 mask)
{
	using namespace tb::crypto;
	(void)type;
	(void)mask;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.allocs++;
	if (s.alloc.hit())
		return static_cast<struct crypto_shash *>(ERR_PTR(s.alloc.code));
	if (!alg_name || std::strcmp(alg_name, "sha256") != 0)
		return static_cast<struct crypto_shash *>(ERR_PTR(-ENOENT));
	auto *tfm = new crypto_shash();
	tfm->base.tb_magic = kMagic;
	tfm->digestsize = SHA256_DIGEST_SIZE;
	s.live.insert(tfm);
	return tfm;
}

extern "C" void crypto_destroy_tfm(void *mem, struct crypto_tfm *tfm)
{
	using namespace tb::crypto;
	(void)tfm;
	if (IS_ERR_OR_NULL(mem))
		return;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	if (!s.live.erase(mem)) {
		add_violation("crypto_free_shash of a transform that is not live");
		return;
	}
	delete static_cast<struct crypto_shash *>(mem);
}

extern "C" int crypto_shash_init(struct shash_desc *desc)
{
	int ret = tb::crypto::step(desc, &tb::crypto::State::init, "crypto_shash_init");
	if (ret == 0)
		SHA256_Init(reinterpret_cast<SHA256_CTX *>(desc->__ctx));
	return ret;
}

extern "C" int crypto_shash_update(struct shash_desc *desc, const u8 *data,
				   unsigned int len)
{
	int ret = tb::crypto::step(desc, &tb::crypto::State::update,
				   "crypto_shash_update");
	if (ret == 0) {
		SHA256_Update(reinterpret_cast<SHA256_CTX *>(desc->__ctx), data, len);
		std::lock_guard<std::mutex> g(tb::crypto::st().lock);
		tb::crypto::st().bytes += len;
	}
	return ret;
}

extern "C" int crypto_shash_final(struct shash_desc *desc, u8 *out)
{
	int ret = tb::crypto::step(desc, &tb::crypto::State::final,
				   "crypto_shash_final");
	if (ret == 0) {
		SHA256_Final(out, reinterpret_cast<SHA256_CTX *>(desc->__ctx));
		std::lock_guard<std::mutex> g(tb::crypto::st().lock);
		tb::crypto::st().digests++;
	}
	return ret;
}

// ---------------------------------------------------------------------------
// Registers

namespace tb::regs {
namespace {

struct State {
	std::mutex lock;
	alignas(8) std::array<u32, kSize / 4> mem{};
	std::multiset<const void *> maps;
	std::map<u32, u32> readl_count;
	u32 ioremap_calls = 0;
	bool fails = false;
};

State &st()
{
	static State s;
	return s;
}

const u8 *window(State &s)
{
	return reinterpret_cast<const u8 *>(s.mem.data());
}

bool reg_ok(u32 offset)
{
	if (offset < kSize && offset % 4 == 0)
		return true;
	ADD_FAILURE() << "tb::regs: no register at offset " << offset;
	return false;
}

// Offset of a register address, or -1 (recorded) when it is not mapped.
long offset_of(State &s, const volatile void *addr, const char *op)
{
	const u8 *p = reinterpret_cast<const u8 *>(const_cast<const void *>(addr));
	const u8 *base = window(s);
	if (p < base || p + 4 > base + kSize || (p - base) % 4 != 0 || s.maps.empty()) {
		char what[96];
		std::snprintf(what, sizeof(what), "%s of %p: not a mapped register", op,
			      static_cast<const void *>(p));
		add_violation(what);
		return -1;
	}
	return p - base;
}

} // namespace

void write(u32 offset, u32 value)
{
	if (!reg_ok(offset))
		return;
	std::lock_guard<std::mutex> g(st().lock);
	st().mem[offset / 4] = value;
}

u32 read(u32 offset)
{
	if (!reg_ok(offset))
		return 0;
	std::lock_guard<std::mutex> g(st().lock);
	return st().mem[offset / 4];
}

void set_board_id(u32 board_id)
{
	std::lock_guard<std::mutex> g(st().lock);
	u32 &r = st().mem[kBoardIdOffset / 4];
	r = (r & 0xffff0000u) | (board_id & 0xffffu);
}

void set_boot_cfg(u32 value)
{
	write(kBootCfgOffset, value);
}

void set_ioremap_fails(bool fails)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().fails = fails;
}

u32 mappings()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(st().maps.size());
}

u32 ioremap_calls()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().ioremap_calls;
}

u32 readl_count(u32 offset)
{
	std::lock_guard<std::mutex> g(st().lock);
	auto it = st().readl_count.find(offset);
	return it == st().readl_count.end() ? 0 : it->second;
}

} // namespace tb::regs

void tb::detail::reset_regs()
{
	using namespace tb::regs;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.mem.fill(0);
	s.maps.clear();
	s.readl_count.clear();
	s.ioremap_calls = 0;
	s.fails = false;
}

extern "C" void *tb_ioremap(uint64_t phys, size_t size)
{
	using namespace tb::regs;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.ioremap_calls++;
	if (s.fails)
		return nullptr;
	if (phys < kBase || size == 0 || size > kSize || phys - kBase > kSize - size) {
		char what[96];
		std::snprintf(what, sizeof(what),
			      "ioremap(0x%llx, 0x%zx) outside the register window",
			      static_cast<unsigned long long>(phys), size);
		add_violation(what);
		return nullptr;
	}
	u8 *p = const_cast<u8 *>(window(s)) + (phys - kBase);
	s.maps.insert(p);
	return p;
}

extern "C" void tb_iounmap(volatile void *addr)
{
	using namespace tb::regs;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	auto it = s.maps.find(const_cast<const void *>(addr));
	if (it == s.maps.end()) {
		add_violation("iounmap of an address ioremap did not return");
		return;
	}
	s.maps.erase(it);
}

extern "C" uint32_t tb_readl(const volatile void *addr)
{
	using namespace tb::regs;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	long off = offset_of(s, addr, "readl");
	if (off < 0)
		return 0xffffffffu;
	s.readl_count[static_cast<u32>(off)]++;
	return s.mem[static_cast<std::size_t>(off) / 4];
}

extern "C" void tb_writel(uint32_t value, volatile void *addr)
{
	using namespace tb::regs;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	long off = offset_of(s, addr, "writel");
	if (off >= 0)
		s.mem[static_cast<std::size_t>(off) / 4] = value;
}

// ---------------------------------------------------------------------------
// Control module

namespace tb::ctl {

const char *const kGetDevNum = ORVANE_CTL_GET_DEV_NUM;
const char *const kGetDtsCpuCfg = ORVANE_CTL_GET_DTS_CPU_CFG;

namespace {

struct Symbol {
	bool present = true;
	int refs = 0;
	u32 gets = 0;
	u32 calls = 0;
	int result = 0;
};

struct State {
	std::mutex lock;
	Symbol dev_num_sym, dts_sym;
	u32 dev_num = 2;
	u32 ctrl = 1, data = 0, ai = 7;
};

State &st()
{
	static State s;
	return s;
}

Symbol *lookup(State &s, const char *name)
{
	if (!name)
		return nullptr;
	if (std::strcmp(name, kGetDevNum) == 0)
		return &s.dev_num_sym;
	if (std::strcmp(name, kGetDtsCpuCfg) == 0)
		return &s.dts_sym;
	return nullptr;
}

Symbol &must(State &s, const char *name)
{
	Symbol *sym = lookup(s, name);
	if (!sym) {
		ADD_FAILURE() << "tb::ctl: unknown symbol " << (name ? name : "(null)");
		static Symbol dummy;
		return dummy;
	}
	return *sym;
}

} // namespace

void set_present(bool present)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().dev_num_sym.present = present;
	st().dts_sym.present = present;
}

void set_symbol_present(const char *name, bool present)
{
	std::lock_guard<std::mutex> g(st().lock);
	must(st(), name).present = present;
}

void set_dev_num(u32 n)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().dev_num = n;
}

void set_dev_num_result(int ret)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().dev_num_sym.result = ret;
}

void set_dts_cpu(u32 ctrl, u32 data, u32 ai)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().ctrl = ctrl;
	st().data = data;
	st().ai = ai;
}

void set_dts_cpu_result(int ret)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().dts_sym.result = ret;
}

int refs(const char *name)
{
	std::lock_guard<std::mutex> g(st().lock);
	return must(st(), name).refs;
}

u32 gets(const char *name)
{
	std::lock_guard<std::mutex> g(st().lock);
	return must(st(), name).gets;
}

u32 calls(const char *name)
{
	std::lock_guard<std::mutex> g(st().lock);
	return must(st(), name).calls;
}

} // namespace tb::ctl

void tb::detail::reset_ctl()
{
	using namespace tb::ctl;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.dev_num_sym = Symbol();
	s.dts_sym = Symbol();
	s.dev_num = 2;
	s.ctrl = 1;
	s.data = 0;
	s.ai = 7;
}

extern "C" int orvane_ctl_get_dev_num(u32 *dev_num)
{
	using namespace tb::ctl;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.dev_num_sym.calls++;
	if (s.dev_num_sym.result != 0)
		return s.dev_num_sym.result;
	if (!dev_num) {
		add_violation("orvane_ctl_get_dev_num(NULL)");
		return -EINVAL;
	}
	*dev_num = s.dev_num;
	return 0;
}

extern "C" int orvane_ctl_get_dts_cpu_cfg_to_user_cfg(u32 *ctrl_cpu_num,
						      u32 *data_cpu_num,
						      u32 *aicpu_num)
{
	using namespace tb::ctl;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.dts_sym.calls++;
	if (s.dts_sym.result != 0)
		return s.dts_sym.result;
	if (!ctrl_cpu_num || !data_cpu_num || !aicpu_num) {
		add_violation("orvane_ctl_get_dts_cpu_cfg_to_user_cfg with a NULL pointer");
		return -EINVAL;
	}
	*ctrl_cpu_num = s.ctrl;
	*data_cpu_num = s.data;
	*aicpu_num = s.ai;
	return 0;
}

extern "C" void *__symbol_get(const char *symbol)
{
	using namespace tb::ctl;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	Symbol *sym = lookup(s, symbol);
	if (!sym || !sym->present)
		return nullptr;
	sym->refs++;
	sym->gets++;
	if (sym == &s.dev_num_sym)
		return reinterpret_cast<void *>(&orvane_ctl_get_dev_num);
	return reinterpret_cast<void *>(&orvane_ctl_get_dts_cpu_cfg_to_user_cfg);
}

extern "C" void __symbol_put(const char *symbol)
{
	using namespace tb::ctl;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	Symbol *sym = lookup(s, symbol);
	if (!sym || sym->refs <= 0) {
		add_violation(std::string("__symbol_put(\"") + (symbol ? symbol : "(null)") +
			      "\") without a reference");
		return;
	}
	sym->refs--;
}

// ---------------------------------------------------------------------------
// Sleeping

namespace tb::delay {
namespace {

struct State {
	std::mutex lock;
	std::vector<unsigned> history;
	u64 total = 0;
	bool real = false;
};

State &st()
{
	static State s;
	return s;
}

} // namespace

u32 calls()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(st().history.size());
}

u64 total_ms()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total;
}

std::vector<unsigned> history()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().history;
}

void set_real(bool really_sleep)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().real = really_sleep;
}

} // namespace tb::delay

void tb::detail::reset_delay()
{
	using namespace tb::delay;
	std::lock_guard<std::mutex> g(st().lock);
	st().history.clear();
	st().total = 0;
	st().real = false;
}

extern "C" void tb_msleep(unsigned int ms)
{
	using namespace tb::delay;
	bool real;
	{
		std::lock_guard<std::mutex> g(st().lock);
		st().history.push_back(ms);
		st().total += ms;
		real = st().real;
	}
	if (real)
		std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// ---------------------------------------------------------------------------
// Mutexes

namespace {
std::atomic<int> g_held{0};
} // namespace

int tb::locks::held()
{
	return g_held.load();
}

void tb::detail::reset_locks()
{
	g_held.store(0);
}

extern "C" void tb_mutex_init(struct mutex *lock)
{
	pthread_mutexattr_t attr;

	if (__atomic_load_n(&lock->locked, __ATOMIC_ACQUIRE))
		add_violation("mutex_init of a held mutex");
	pthread_mutexattr_init(&attr);
	pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
	pthread_mutex_init(&lock->m, &attr);
	pthread_mutexattr_destroy(&attr);
	lock->locked = 0;
}

extern "C" void tb_mutex_lock(struct mutex *lock)
{
	int rc = pthread_mutex_lock(&lock->m);
	if (rc != 0) {
		add_violation(rc == EDEADLK ? "mutex_lock of a mutex this thread holds "
					      "(deadlock in the kernel)"
					    : "mutex_lock failed");
		return;
	}
	__atomic_store_n(&lock->locked, 1, __ATOMIC_RELEASE);
	g_held++;
}

extern "C" int tb_mutex_trylock(struct mutex *lock)
{
	int rc = pthread_mutex_trylock(&lock->m);
	if (rc != 0)
		return 0;
	__atomic_store_n(&lock->locked, 1, __ATOMIC_RELEASE);
	g_held++;
	return 1;
}

extern "C" void tb_mutex_unlock(struct mutex *lock)
{
	int was = __atomic_exchange_n(&lock->locked, 0, __ATOMIC_ACQ_REL);
	int rc = pthread_mutex_unlock(&lock->m);
	if (rc != 0) {
		__atomic_store_n(&lock->locked, was, __ATOMIC_RELEASE);
		add_violation("mutex_unlock of a mutex this thread does not hold");
		return;
	}
	g_held--;
}

extern "C" void tb_mutex_destroy(struct mutex *lock)
{
	if (__atomic_load_n(&lock->locked, __ATOMIC_ACQUIRE))
		add_violation("mutex_destroy of a held mutex");
}

// ---------------------------------------------------------------------------
// Library helpers

extern "C" ssize_t strscpy(char *dest, const char *src, size_t size)
{
	if (size == 0)
		return -E2BIG;
	size_t len = strnlen(src, size);
	if (len == size) {
		std::memcpy(dest, src, size - 1);
		dest[size - 1] = '\0';
		return -E2BIG;
	}
	std::memcpy(dest, src, len + 1);
	return static_cast<ssize_t>(len);
}

namespace {

// Kernel rules: optional sign (signed only), base prefix, digits, at most
// one trailing newline, nothing else.
int parse_ull(const char *s, unsigned int base, bool allow_minus, bool *neg,
	      unsigned long long *out)
{
	*neg = false;
	if (*s == '+') {
		s++;
	} else if (*s == '-' && allow_minus) {
		*neg = true;
		s++;
	}
	if (!std::isxdigit(static_cast<unsigned char>(*s)))
		return -EINVAL;
	char *end = nullptr;
	errno = 0;
	unsigned long long v = std::strtoull(s, &end, static_cast<int>(base));
	if (end == s)
		return -EINVAL;
	if (*end == '\n')
		end++;
	if (*end != '\0')
		return -EINVAL;
	if (errno == ERANGE)
		return -ERANGE;
	*out = v;
	return 0;
}

} // namespace

extern "C" int kstrtouint(const char *s, unsigned int base, unsigned int *res)
{
	bool neg;
	unsigned long long v;
	int ret = parse_ull(s, base, false, &neg, &v);
	if (ret)
		return ret;
	if (v > UINT_MAX)
		return -ERANGE;
	*res = static_cast<unsigned int>(v);
	return 0;
}

extern "C" int kstrtoint(const char *s, unsigned int base, int *res)
{
	bool neg;
	unsigned long long v;
	int ret = parse_ull(s, base, true, &neg, &v);
	if (ret)
		return ret;
	if (neg ? v > 1ull + INT_MAX : v > static_cast<unsigned long long>(INT_MAX))
		return -ERANGE;
	*res = neg ? static_cast<int>(-static_cast<long long>(v)) : static_cast<int>(v);
	return 0;
}
