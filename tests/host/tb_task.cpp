// SPDX-License-Identifier: GPL-2.0
//
// The current task, its executable file, user memory and the file table.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "tb_internal.h"
#include "testbed.h"

extern "C" {
#include <linux/capability.h>
#include <linux/cred.h>
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/file.h>
#include <linux/kernel.h>
#include <linux/fs.h>
#include <linux/sched.h>
}

using tb::detail::add_violation;

extern "C" {
struct user_namespace init_user_ns = {0};
}

// ---------------------------------------------------------------------------
// Task record

namespace tb::task {
namespace {

constexpr u32 kExeMagic = 0x45584546;	// files of a task record
constexpr u32 kOpenMagic = 0x4f50454e;	// files of filp_open

// What a struct file's tb_owner points to: says which kind of file it is.
struct Owner {
	u32 magic;
	void *self;
};

std::atomic<int> g_next_pid{1000};
std::atomic<int> g_exe_refs{0};
std::atomic<int> g_snapshots{0};
thread_local int t_rcu_depth = 0;
std::atomic<int> g_rcu_unbalanced{0};

struct Record {
	Owner owner{kExeMagic, this};
	struct task_struct task {};
	struct mm_struct mm {};
	struct cred cred {};
	struct file exe {};
	struct dentry dentry {};
	std::string path, name;
	Spec spec;
	int own_pid = g_next_pid++;

	Record() { apply(Spec()); }

	void apply(const Spec &s)
	{
		spec = s;
		std::memset(task.comm, 0, sizeof(task.comm));
		std::strncpy(task.comm, s.comm.c_str(), sizeof(task.comm) - 1);
		task.pid = task.tgid = s.pid ? s.pid : own_pid;
		cred.uid.val = cred.euid.val = s.uid;
		cred.gid.val = cred.egid.val = s.uid;
		cred.cap_effective.cap = s.cap_sys_admin ? 1ull << CAP_SYS_ADMIN : 0;
		task.cred = task.real_cred = &cred;
		task.mm = task.active_mm = s.no_active_mm ? nullptr : &mm;
		mm.exe_file = s.no_exe_file ? nullptr : &exe;
		path = s.exe;
		std::size_t slash = path.rfind('/');
		name = slash == std::string::npos ? path : path.substr(slash + 1);
		dentry.d_name.name = reinterpret_cast<const unsigned char *>(name.c_str());
		dentry.d_name.len = static_cast<u32>(name.size());
		exe.f_path.dentry = s.no_dentry ? nullptr : &dentry;
		exe.tb_owner = &owner;
	}
};

Record &me()
{
	thread_local Record r;
	return r;
}

Record *exe_owner(const struct file *f)
{
	if (!f || !f->tb_owner || static_cast<Owner *>(f->tb_owner)->magic != kExeMagic)
		return nullptr;
	return static_cast<Record *>(static_cast<Owner *>(f->tb_owner)->self);
}

} // namespace

void set(const Spec &spec)
{
	me().apply(spec);
}

Spec get()
{
	return me().spec;
}

void restore_default()
{
	me().apply(Spec());
}

int pid()
{
	return me().task.pid;
}

int exe_refs()
{
	return g_exe_refs.load();
}

int name_snapshots()
{
	return g_snapshots.load();
}

int rcu_unbalanced()
{
	return g_rcu_unbalanced.load() + t_rcu_depth;
}

} // namespace tb::task

void tb::detail::reset_task()
{
	tb::task::restore_default();
	tb::task::g_exe_refs.store(0);
	tb::task::g_snapshots.store(0);
	tb::task::g_rcu_unbalanced.store(0);
	tb::task::t_rcu_depth = 0;
}

extern "C" void tb_rcu_read_lock(void)
{
	tb::task::t_rcu_depth++;
}

extern "C" void tb_rcu_read_unlock(void)
{
	if (tb::task::t_rcu_depth <= 0) {
		add_violation("rcu_read_unlock without rcu_read_lock");
		return;
	}
	tb::task::t_rcu_depth--;
}

extern "C" struct task_struct *tb_current(void)
{
	return &tb::task::me().task;
}

extern "C" bool capable(int cap)
{
	if (cap < 0 || cap > CAP_LAST_CAP)
		return false;
	return (tb_current()->cred->cap_effective.cap >> cap) & 1;
}

extern "C" struct file *get_mm_exe_file(struct mm_struct *mm)
{
	if (!mm) {
		add_violation("get_mm_exe_file(NULL)");
		return nullptr;
	}
	if (!mm->exe_file)
		return nullptr;
	tb::task::g_exe_refs++;
	return mm->exe_file;
}

extern "C" bool get_file_rcu(struct file *file)
{
	if (!tb::task::exe_owner(file)) {
		add_violation("get_file_rcu of a file that is not a task's executable");
		return false;
	}
	tb::task::g_exe_refs++;
	return true;
}

extern "C" struct file *get_file(struct file *file)
{
	get_file_rcu(file);
	return file;
}

extern "C" void take_dentry_name_snapshot(struct name_snapshot *name,
					  struct dentry *dentry)
{
	const char *src = reinterpret_cast<const char *>(dentry->d_name.name);
	std::size_t len = std::strlen(src);
	unsigned char *dst = name->inline_name;
	if (len + 1 > sizeof(name->inline_name))
		dst = static_cast<unsigned char *>(std::malloc(len + 1));
	std::memcpy(dst, src, len + 1);
	name->name.name = dst;
	name->name.len = static_cast<u32>(len);
	tb::task::g_snapshots++;
}

extern "C" void release_dentry_name_snapshot(struct name_snapshot *name)
{
	if (tb::task::g_snapshots.fetch_sub(1) <= 0) {
		tb::task::g_snapshots++;
		add_violation("release_dentry_name_snapshot without a snapshot");
		return;
	}
	if (name->name.name != name->inline_name)
		std::free(const_cast<unsigned char *>(name->name.name));
}

extern "C" void fput(struct file *file)
{
	if (!tb::task::exe_owner(file)) {
		add_violation("fput of a file that get_mm_exe_file did not return");
		return;
	}
	if (tb::task::g_exe_refs.fetch_sub(1) <= 0) {
		tb::task::g_exe_refs++;
		add_violation("fput without a reference");
	}
}

extern "C" char *d_path(const struct path *path, char *buf, int buflen)
{
	using namespace tb::task;
	const struct file *f = path ? container_of(path, struct file, f_path) : nullptr;
	Record *r = exe_owner(f);
	if (!r) {
		add_violation("d_path of a path that is not a task's executable");
		return static_cast<char *>(ERR_PTR(-EINVAL));
	}
	if (!path->dentry) {
		add_violation("d_path of a path without a dentry");
		return static_cast<char *>(ERR_PTR(-EINVAL));
	}
	if (r->spec.d_path_null)
		return nullptr;
	if (r->spec.d_path_error < 0)
		return static_cast<char *>(ERR_PTR(r->spec.d_path_error));
	std::string s = r->path + (r->spec.exe_deleted ? " (deleted)" : "");
	if (!buf || buflen < 0 || s.size() + 1 > static_cast<std::size_t>(buflen))
		return static_cast<char *>(ERR_PTR(-ENAMETOOLONG));
	char *p = buf + buflen - static_cast<int>(s.size() + 1);
	std::memcpy(p, s.c_str(), s.size() + 1);
	return p;
}

// ---------------------------------------------------------------------------
// Files

namespace tb::files {
namespace {

struct Entry {
	std::string content;
	int open_err = 0;
	int read_err = 0;
	u32 opens = 0;
};

struct Open {
	task::Owner owner{task::kOpenMagic, this};
	struct file file {};
	std::string path;
};

struct State {
	std::mutex lock;
	std::map<std::string, Entry> table;
	u32 open = 0;
};

State &st()
{
	static State s;
	return s;
}

Open *open_of(struct file *f)
{
	if (IS_ERR_OR_NULL(f) || !f->tb_owner ||
	    static_cast<task::Owner *>(f->tb_owner)->magic != task::kOpenMagic)
		return nullptr;
	return static_cast<Open *>(static_cast<task::Owner *>(f->tb_owner)->self);
}

} // namespace

void set(const std::string &path, const std::string &content)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().table[path].content = content;
}

void remove(const std::string &path)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().table.erase(path);
}

void fail_open(const std::string &path, int code)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().table[path].open_err = code;
}

void fail_read(const std::string &path, int code)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().table[path].read_err = code;
}

u32 open_count()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().open;
}

u32 opens(const std::string &path)
{
	std::lock_guard<std::mutex> g(st().lock);
	auto it = st().table.find(path);
	return it == st().table.end() ? 0 : it->second.opens;
}

} // namespace tb::files

void tb::detail::reset_files()
{
	std::lock_guard<std::mutex> g(tb::files::st().lock);
	tb::files::st().table.clear();
	tb::files::st().open = 0;
}

extern "C" struct file *filp_open(const char *filename, int flags, umode_t mode)
{
	using namespace tb::files;
	(void)mode;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	auto it = filename ? s.table.find(filename) : s.table.end();
	if (it == s.table.end())
		return static_cast<struct file *>(ERR_PTR(-ENOENT));
	it->second.opens++;
	if (it->second.open_err)
		return static_cast<struct file *>(ERR_PTR(it->second.open_err));
	Open *o = new Open();
	o->path = filename;
	o->file.f_flags = static_cast<unsigned int>(flags);
	o->file.tb_owner = &o->owner;
	s.open++;
	return &o->file;
}

extern "C" ssize_t kernel_read(struct file *file, void *buf, size_t count, loff_t *pos)
{
	using namespace tb::files;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	Open *o = open_of(file);
	if (!o || !pos) {
		add_violation("kernel_read on a file filp_open did not return, or without pos");
		return -EINVAL;
	}
	auto it = s.table.find(o->path);
	if (it == s.table.end())
		return -ENOENT;
	if (it->second.read_err)
		return it->second.read_err;
	const std::string &c = it->second.content;
	if (*pos < 0)
		return -EINVAL;
	std::size_t at = std::min(static_cast<std::size_t>(*pos), c.size());
	std::size_t n = std::min(count, c.size() - at);
	std::memcpy(buf, c.data() + at, n);
	*pos += static_cast<loff_t>(n);
	return static_cast<ssize_t>(n);
}

extern "C" int filp_close(struct file *filp, fl_owner_t id)
{
	using namespace tb::files;
	(void)id;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	Open *o = open_of(filp);
	if (!o) {
		add_violation("filp_close of a file filp_open did not return");
		return -EINVAL;
	}
	delete o;
	s.open--;
	return 0;
}

// ---------------------------------------------------------------------------
// User memory

namespace tb::user {
namespace {

struct Range {
	std::uintptr_t begin, end;
	bool not_user;	// else unmapped
};

struct State {
	std::mutex lock;
	std::vector<Range> ranges;
	u32 from = 0, to = 0;
};

State &st()
{
	static State s;
	return s;
}

void add(const void *addr, std::size_t len, bool not_user)
{
	auto b = reinterpret_cast<std::uintptr_t>(addr);
	std::lock_guard<std::mutex> g(st().lock);
	st().ranges.push_back(Range{b, b + len, not_user});
}

bool access_ok_locked(State &s, std::uintptr_t a, unsigned long n)
{
	if (a + n < a)
		return false;
	for (const Range &r : s.ranges)
		if (r.not_user && a < r.end && r.begin < a + n)
			return false;
	return true;
}

// Bytes that can be copied from a before the first unmapped byte.
unsigned long reachable(State &s, std::uintptr_t a, unsigned long n)
{
	unsigned long k = n;
	auto clip = [&](std::uintptr_t b, std::uintptr_t e) {
		if (a < e && b < a + n)
			k = std::min<unsigned long>(k, b > a ? b - a : 0);
	};
	clip(0, 4096);
	for (const Range &r : s.ranges)
		if (!r.not_user)
			clip(r.begin, r.end);
	return k;
}

} // namespace

void mark_not_user(const void *addr, std::size_t len)
{
	add(addr, len, true);
}

void mark_unmapped(const void *addr, std::size_t len)
{
	add(addr, len, false);
}

void clear()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().ranges.clear();
}

u32 copies_from()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().from;
}

u32 copies_to()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().to;
}

} // namespace tb::user

void tb::detail::reset_user()
{
	std::lock_guard<std::mutex> g(tb::user::st().lock);
	tb::user::st().ranges.clear();
	tb::user::st().from = tb::user::st().to = 0;
}

extern "C" bool tb_access_ok(const void *addr, unsigned long size)
{
	using namespace tb::user;
	std::lock_guard<std::mutex> g(st().lock);
	return access_ok_locked(st(), reinterpret_cast<std::uintptr_t>(addr), size);
}

extern "C" unsigned long tb_copy_from_user(void *to, const void *from, unsigned long n)
{
	using namespace tb::user;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.from++;
	if (n == 0)
		return 0;
	auto a = reinterpret_cast<std::uintptr_t>(from);
	unsigned long k = access_ok_locked(s, a, n) ? reachable(s, a, n) : 0;
	if (k)
		std::memcpy(to, from, k);
	std::memset(static_cast<u8 *>(to) + k, 0, n - k);
	return n - k;
}

extern "C" unsigned long tb_copy_to_user(void *to, const void *from, unsigned long n)
{
	using namespace tb::user;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.to++;
	if (n == 0)
		return 0;
	auto a = reinterpret_cast<std::uintptr_t>(to);
	unsigned long k = access_ok_locked(s, a, n) ? reachable(s, a, n) : 0;
	if (k)
		std::memcpy(to, from, k);
	return n - k;
}
