// SPDX-License-Identifier: GPL-2.0
//
// The test bed behind the shim's hooks (see bed.h). One lock guards all of
// its state, so the module may run on several threads at once.
#include "bed.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <unistd.h>
#include <sys/syscall.h>

extern "C" {
#include "ucfg_shim/shim.h"
#include "common/siblings.h"
}

namespace tb {
namespace {

constexpr u32 kDevices = 4;
constexpr int kCapSysAdmin = 21;
constexpr gfp_t kGfpZero = 0x100;
constexpr std::uint64_t kRegBase = 0x80000000ull;
constexpr u32 kRegSize = 0x10000;

struct HostFile {
	std::string content;
	inode node;
};

struct Task {
	task_struct t{};
	cred c{};
	mm_struct mm{};
	file exe{};
	dentry d{};
	inode node{};
	std::string path, name;
};

struct World {
	std::mutex lock;
	Bytes area[kDevices];
	flash::Fault fault = flash::Fault::None;
	u32 nth = 0, torn = 0;
	bool erased = false, fired = false, powered = true;
	std::vector<flash::Transfer> trace;
	u32 alloc_calls = 0, alloc_fail = 0;
	std::map<const void *, std::size_t> allocs;
	std::map<std::string, HostFile> files;
	std::map<const file *, int> file_refs;
	int symbol_refs = 0, mappings = 0, held = 0;
	bool ctl_present = true, ioremap_fails = false;
	u32 dev_num = 2, dts[3] = {1, 0, 7};
	int ctl_ret = 0, dts_ret = 0;
	u32 regs[kRegSize / 4] = {};
	u32 slept = 0;
	std::vector<log::Line> log;
	std::vector<std::string> misuse;
};

World &w()
{
	static World world;
	return world;
}

thread_local std::unique_ptr<Task> t_task;

void misuse(const std::string &what)
{
	w().misuse.push_back(what);
}

void build_task(Task &k, const task::Spec &s)
{
	k.path = s.exe;
	k.name = s.exe.substr(s.exe.rfind('/') + 1);
	std::snprintf(k.t.comm, sizeof(k.t.comm), "%s", s.comm.c_str());
	k.t.pid = static_cast<pid_t>(syscall(SYS_gettid));
	k.c.uid.val = s.uid;
	k.t.cred = &k.c;
	k.t.shim_caps = s.admin ? 1ull << kCapSysAdmin : 0;
	k.node = inode{S_IFREG | 0755, std::hash<std::string>()(s.exe) | 1, nullptr};
	k.d.d_name.name = reinterpret_cast<const unsigned char *>(k.name.c_str());
	k.d.d_name.len = static_cast<u32>(k.name.size());
	k.d.shim_path = k.path.c_str();
	k.exe.f_path.dentry = &k.d;
	k.exe.f_inode = &k.node;
	k.mm.exe_file = &k.exe;
	k.t.active_mm = &k.mm;
	std::lock_guard<std::mutex> g(w().lock);
	// The host's file at that path: this very file, or another one.
	HostFile &h = w().files[s.exe];
	h.node = k.node;
	if (!s.host_exe)
		h.node.i_ino ^= 0x40;
}

std::string format(const char *fmt, va_list ap)
{
	// %*pE prints escaped in the kernel; the same arguments print as %.*s.
	std::string f = fmt;
	for (std::size_t p; (p = f.find("%*pE")) != std::string::npos;)
		f.replace(p, 4, "%.*s");
	char buf[2048];
	std::vsnprintf(buf, sizeof(buf), f.c_str(), ap);
	return buf;
}

} // namespace

void reset()
{
	World &s = w();
	{
		std::lock_guard<std::mutex> g(s.lock);
		for (auto &a : s.area)
			a.assign(flash::kArea, 0xff);
		s.fault = flash::Fault::None;
		s.fired = false;
		s.powered = true;
		s.trace.clear();
		s.alloc_calls = s.alloc_fail = 0;
		s.allocs.clear();
		s.files.clear();
		s.file_refs.clear();
		s.symbol_refs = s.mappings = s.held = 0;
		s.ctl_present = true;
		s.ioremap_fails = false;
		s.dev_num = 2;
		s.dts[0] = 1;
		s.dts[1] = 0;
		s.dts[2] = 7;
		s.ctl_ret = s.dts_ret = 0;
		std::memset(s.regs, 0, sizeof(s.regs));
		s.slept = 0;
		s.log.clear();
		s.misuse.clear();
	}
	task::set(task::Spec());
}

std::string problems()
{
	World &s = w();
	std::lock_guard<std::mutex> g(s.lock);
	std::string out;
	for (const auto &m : s.misuse)
		out += m + "; ";
	if (!s.allocs.empty())
		out += std::to_string(s.allocs.size()) + " allocations not freed; ";
	for (const auto &f : s.file_refs)
		if (f.second != 0)
			out += "a file reference left: " + std::to_string(f.second) + "; ";
	if (s.symbol_refs)
		out += "symbol references left: " + std::to_string(s.symbol_refs) + "; ";
	if (s.mappings)
		out += "register mappings left; ";
	if (s.held)
		out += "mutexes held: " + std::to_string(s.held) + "; ";
	return out;
}

namespace flash {

u8 *at(u32 dev, u32 blk)
{
	return w().area[dev].data() + static_cast<std::size_t>(blk) * kBlock;
}

void arm(Fault f, u32 nth, u32 torn, bool erased)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().fault = f;
	w().nth = nth;
	w().torn = torn;
	w().erased = erased;
	w().fired = false;
}

void reboot()
{
	std::lock_guard<std::mutex> g(w().lock);
	w().powered = true;
	w().fault = Fault::None;
}

const std::vector<Transfer> &trace()
{
	return w().trace;
}

void clear_trace()
{
	std::lock_guard<std::mutex> g(w().lock);
	w().trace.clear();
}

std::string trace_str(u32 dev)
{
	std::string out;
	for (const Transfer &t : w().trace) {
		if (t.dev != dev)
			continue;
		out += (out.empty() ? "" : " ") + std::string(t.write ? "W" : "R") +
		       std::to_string(t.blk) + (t.ret ? "!" : "");
	}
	return out;
}

// One transfer, with the armed fault applied when its turn has come.
static int transfer(bool write, u32 dev, u32 offset, u8 *buf, u32 len)
{
	World &s = w();
	std::lock_guard<std::mutex> g(s.lock);
	u32 blk = offset / kBlock - 164;
	if (dev >= kDevices)
		return -ENODEV;
	if (len != kBlock || offset % kBlock || offset / kBlock < 164 || blk >= kBlocks) {
		misuse("flash transfer of " + std::to_string(len) + " bytes at " +
		       std::to_string(offset));
		return -EINVAL;
	}
	u8 *mem = s.area[dev].data() + static_cast<std::size_t>(blk) * kBlock;
	int ret = 0;
	bool mine = s.fault != Fault::None && !s.fired &&
		    write == (s.fault != Fault::ReadError) && --s.nth == 0;
	if (!s.powered) {
		ret = -EIO;
	} else if (!write) {
		ret = mine ? -EIO : 0;
		if (!ret)
			std::memcpy(buf, mem, len);
	} else if (!mine) {
		std::memcpy(mem, buf, len);
	} else if (s.fault == Fault::Corrupt) {
		std::memcpy(mem, buf, len);
		mem[s.torn % kBlock] ^= 0x5a;
	} else if (s.fault != Fault::WriteError && s.fault != Fault::PowerCut) {
		std::memcpy(mem, buf, s.torn);
		if (s.erased)
			std::memset(mem + s.torn, 0xff, len - s.torn);
		ret = s.fault == Fault::SilentTear ? 0 : -EIO;
	} else {
		ret = -EIO;
	}
	if (mine) {
		s.fired = true;
		if (s.fault == Fault::PowerCut || s.fault == Fault::TornCut) {
			s.powered = false;
			ret = -EIO;
		}
	}
	s.trace.push_back({write, dev, blk, ret});
	return ret;
}

} // namespace flash

namespace alloc {
void fail_nth(u32 nth)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().alloc_fail = nth ? w().alloc_calls + nth : 0;
}

u32 calls()
{
	return w().alloc_calls;
}
} // namespace alloc

namespace ctl {
void set(bool present, u32 dev_num, int ret)
{
	w().ctl_present = present;
	w().dev_num = dev_num;
	w().ctl_ret = ret;
}

void dts(u32 ctrl, u32 data, u32 ai, int ret)
{
	w().dts[0] = ctrl;
	w().dts[1] = data;
	w().dts[2] = ai;
	w().dts_ret = ret;
}
} // namespace ctl

namespace regs {
void set(u32 board_id, bool ioremap_fails)
{
	w().regs[0xF07C / 4] = board_id;
	w().ioremap_fails = ioremap_fails;
}
} // namespace regs

namespace task {
void set(const Spec &s)
{
	t_task = std::make_unique<Task>();
	build_task(*t_task, s);
}

Spec daemon()
{
	Spec s;
	s.comm = "devmgr_daemon";
	s.exe = "/var/devmgr_daemon";
	s.uid = 1101;
	return s;
}
} // namespace task

namespace files {
void set(const std::string &path, const std::string &content)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().files[path] = HostFile{content, inode{S_IFREG | 0644, 7, nullptr}};
}

void fifo(const std::string &path)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().files[path] = HostFile{"", inode{S_IFIFO | 0644, 8, nullptr}};
}
} // namespace files

u32 slept_ms()
{
	return w().slept;
}

namespace log {
std::vector<Line> lines()
{
	std::lock_guard<std::mutex> g(w().lock);
	return w().log;
}

void clear()
{
	std::lock_guard<std::mutex> g(w().lock);
	w().log.clear();
}

bool has(int level, const std::string &step, const std::string &fmt)
{
	std::string re;
	for (std::size_t i = 0; i < fmt.size(); i++) {
		if (fmt[i] != '%') {
			re += std::strchr("\\^$.|?*+()[]{}", fmt[i]) ? "\\" : "";
			re += fmt[i];
			continue;
		}
		i = fmt.find_first_of("diuxscp%", i + 1);
		re += fmt[i] == '%' ? "%" : fmt[i] == 's' || fmt[i] == 'p' ? ".*" : "-?[0-9a-fx]+";
	}
	std::regex r(re);
	for (const Line &l : lines())
		if (l.level == level && (step.empty() || l.step == step) &&
		    std::regex_match(l.msg, r))
			return true;
	return false;
}

std::string dump(std::size_t last)
{
	std::vector<Line> all = lines();
	std::string out;
	for (std::size_t i = all.size() > last ? all.size() - last : 0; i < all.size(); i++)
		out += "  <" + std::to_string(all[i].level) + "> " + all[i].step + ": " +
		       all[i].msg + "\n";
	return out;
}
} // namespace log

} // namespace tb

using tb::w;

// --- The hooks of the shim and the sibling modules. -------------------------

extern "C" {

struct task_struct init_task;

void shim_printk(int level, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	std::string text = tb::format(fmt, ap);
	va_end(ap);
	static const std::regex prefix(
		R"(\[orvane\] (\[ERROR\] )?\[([^\]]*)\] \[(\S+) \d+\] <[^>]*:\d+> ([\s\S]*))");
	std::smatch m;
	tb::log::Line l{level, false, "", "", text};
	if (std::regex_match(text, m, prefix))
		l = {level, m[1].matched, m[2], m[3], m[4]};
	if (!l.msg.empty() && l.msg.back() == '\n')
		l.msg.pop_back();
	if (std::getenv("UCFG_LOG"))
		std::fprintf(stderr, "<%d>%s", level, text.c_str());
	std::lock_guard<std::mutex> g(w().lock);
	w().log.push_back(l);
}

struct task_struct *shim_current(void)
{
	if (!tb::t_task)
		tb::task::set(tb::task::Spec());
	return &tb::t_task->t;
}

void *shim_alloc(size_t size, gfp_t gfp)
{
	std::lock_guard<std::mutex> g(w().lock);
	if (++w().alloc_calls == w().alloc_fail)
		return nullptr;
	void *p = std::malloc(size ? size : 1);
	// Memory not asked to be zeroed is not: code relying on it shows.
	std::memset(p, (gfp & tb::kGfpZero) ? 0 : 0xa5, size);
	w().allocs[p] = size;
	return p;
}

void shim_free(const void *p)
{
	if (!p)
		return;
	std::lock_guard<std::mutex> g(w().lock);
	if (!w().allocs.erase(p)) {
		tb::misuse("free of memory not allocated (or freed twice)");
		return;
	}
	std::free(const_cast<void *>(p));
}

void shim_mutex_init(struct mutex *lock)
{
	pthread_mutexattr_t a;
	pthread_mutexattr_init(&a);
	pthread_mutexattr_settype(&a, PTHREAD_MUTEX_ERRORCHECK);
	pthread_mutex_init(&lock->m, &a);
}

void shim_mutex_lock(struct mutex *lock)
{
	if (pthread_mutex_lock(&lock->m) != 0) {
		std::lock_guard<std::mutex> g(w().lock);
		tb::misuse("a mutex taken twice by one task");
		return;
	}
	std::lock_guard<std::mutex> g(w().lock);
	w().held++;
}

void shim_mutex_unlock(struct mutex *lock)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().held--;
	if (pthread_mutex_unlock(&lock->m) != 0)
		tb::misuse("a mutex released that the task did not hold");
}

bool get_file_rcu(struct file *f)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().file_refs[f]++;
	return true;
}

void fput(struct file *f)
{
	std::lock_guard<std::mutex> g(w().lock);
	if (--w().file_refs[f] == 0)
		w().file_refs.erase(f);
	if (f->f_path.dentry == nullptr) {
		delete f->f_inode;
		delete f;
	}
}

struct file *shim_file_open(const char *name, int)
{
	std::lock_guard<std::mutex> g(w().lock);
	auto it = w().files.find(name);
	if (it == w().files.end())
		return reinterpret_cast<struct file *>(static_cast<intptr_t>(-ENOENT));
	auto *f = new file{};
	f->f_inode = new inode(it->second.node);
	f->private_data = &it->second;
	w().file_refs[f]++;
	return f;
}

ssize_t shim_file_read(struct file *f, void *buf, size_t n, loff_t *pos)
{
	const std::string &c = static_cast<tb::HostFile *>(f->private_data)->content;
	std::size_t from = std::min<std::size_t>(static_cast<std::size_t>(*pos), c.size());
	std::size_t k = std::min(n, c.size() - from);
	std::memcpy(buf, c.data() + from, k);
	*pos += static_cast<loff_t>(k);
	return static_cast<ssize_t>(k);
}

void *shim_ioremap(phys_addr_t addr, size_t size)
{
	std::lock_guard<std::mutex> g(w().lock);
	if (w().ioremap_fails || addr < tb::kRegBase || addr + size > tb::kRegBase + tb::kRegSize)
		return nullptr;
	w().mappings++;
	return reinterpret_cast<u8 *>(w().regs) + (addr - tb::kRegBase);
}

void shim_iounmap(void *)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().mappings--;
}

u32 shim_readl(const void *addr)
{
	return *static_cast<const u32 *>(addr);
}

void shim_msleep(unsigned int ms)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().slept += ms;
}

static int ctl_get_dev_num(u32 *n)
{
	if (w().ctl_ret == 0)
		*n = w().dev_num;
	return w().ctl_ret;
}

static int ctl_get_dts(u32 *c, u32 *d, u32 *a)
{
	*c = w().dts[0];
	*d = w().dts[1];
	*a = w().dts[2];
	return w().dts_ret;
}

void *__symbol_get(const char *name)
{
	std::lock_guard<std::mutex> g(w().lock);
	if (!w().ctl_present)
		return nullptr;
	w().symbol_refs++;
	if (std::strcmp(name, ORVANE_CTL_GET_DEV_NUM) == 0)
		return reinterpret_cast<void *>(&ctl_get_dev_num);
	return reinterpret_cast<void *>(&ctl_get_dts);
}

void __symbol_put(const char *)
{
	std::lock_guard<std::mutex> g(w().lock);
	w().symbol_refs--;
}

int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return tb::flash::transfer(false, dev_id, offset, buf, len);
}

int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return tb::flash::transfer(true, dev_id, offset, buf, len);
}

} // extern "C"
