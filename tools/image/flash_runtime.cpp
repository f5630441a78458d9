// SPDX-License-Identifier: GPL-2.0
//
// The kernel services the store's code needs, for the offline image tool.
//
// The store's C sources are compiled against the same kernel-API shim as in
// the host tests (tools/shim); this file implements the shim's
// functions for a product instead of a test: plain allocation, a real mutex,
// SHA-256 from the host's libcrypto, the module's messages kept for -v, and
// the two secure-flash transfers served from an image held in memory. There
// is no fault injection and no accounting here, and no logic of the store:
// what is valid, what is repaired and how an item is written is decided by
// the store's own code only.
#include "image_flash.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" {
#include "ucfg_shim/shim.h"
}

namespace {

ucfg_image::FlashWindow *g_window;
std::string g_log;
bool g_log_echo;

// The tool acts with every right of a privileged daemon of the device: the
// access rules of the store are the device's business, not the image's.
struct cred g_cred = {{0}};
struct task_struct g_task = {"ucfg-image", 1, nullptr, &g_cred, nullptr, ~0ULL};

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

void shim_printk(int level, const char *fmt, ...)
{
	// The kernel prints "%*pE" escaped; the tool keeps the bytes.
	std::string f = fmt;
	for (std::size_t p; (p = f.find("%*pE")) != std::string::npos;)
		f.replace(p, 4, "%.*s");
	va_list ap;
	va_start(ap, fmt);
	add_log(level, f.c_str(), ap);
	va_end(ap);
}

struct task_struct *shim_current(void)
{
	return &g_task;
}

struct task_struct init_task;

void *shim_alloc(size_t size, gfp_t gfp)
{
	return (gfp & __GFP_ZERO) ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1);
}

void shim_free(const void *ptr)
{
	std::free(const_cast<void *>(ptr));
}

// The board registers: there is no board. Every catalogue row of this
// module is valid on every board, so the id read here does not matter.
static u32 g_regs[USER_CFG_REG_WORDS];

void *shim_ioremap(phys_addr_t, size_t)
{
	return g_regs;
}

void shim_iounmap(void *) {}

u32 shim_readl(const void *addr)
{
	return *static_cast<const u32 *>(addr);
}

void shim_msleep(unsigned int) {}

void shim_mutex_init(struct mutex *lock)
{
	pthread_mutex_init(&lock->m, nullptr);
}

void shim_mutex_lock(struct mutex *lock)
{
	pthread_mutex_lock(&lock->m);
}

void shim_mutex_unlock(struct mutex *lock)
{
	pthread_mutex_unlock(&lock->m);
}

// No files, no executable to check: the tool is not a process of a board.
bool get_file_rcu(struct file *)
{
	return true;
}

void fput(struct file *) {}

struct file *shim_file_open(const char *, int)
{
	return reinterpret_cast<struct file *>(static_cast<intptr_t>(-ENOENT));
}

ssize_t shim_file_read(struct file *, void *, size_t, loff_t *)
{
	return -EIO;
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
