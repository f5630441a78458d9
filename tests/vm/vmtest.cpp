// SPDX-License-Identifier: GPL-2.0
//
// The in-VM tests of drv_user_cfg: what only a real kernel shows. TAP on
// stdout; exits 0 only when every test passed.
//
//   vmtest suite [ATTEMPTS]   the main boot, with ATTEMPTS failed module starts
//   vmtest partial            the boot whose node lacks data_cpu_num
//   vmtest stress SEED SECS   daemons and root at once under flash faults
//
// and the processes those start; copies of this program at the daemons'
// paths run them under the daemons' uids: "op FD DEV CMD NAME HEX|@ROOM|-"
// (one item request; prints "CODE LENGTH HEXDATA"), "kcall FD LINE",
// "badmem FD", "worker ID SEED SECS GO-FD"; and "as UID PROGRAM [ARGS]"
// for the demo (the image has no su).
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "uapi/user_cfg.h"

namespace {

using Bytes = std::vector<uint8_t>;
const std::string kNode = "/dev/user_config", kSelf = "/bin/vmtest",
		  kDaemonExe = "/var/devmgr_daemon", kFlash = "/sys/kernel/debug/sec_flash/dev",
		  kCall = "/sys/kernel/debug/ucfg_probe/call", kCgroup = "/sys/fs/cgroup",
		  kCpuset = kCgroup + "/cpuset", kPause = "/tmp/stress-pause",
		  kView = "/sys/kernel/debug/user_config/dev0";
constexpr uid_t kDaemonUid = 1101, kSchedUid = 1000;
constexpr size_t kBlock = 65536;
constexpr uint32_t GET = USER_CFG_CMD_GET, SET = USER_CFG_CMD_SET, CLEAR = USER_CFG_CMD_CLEAR;

// ---- text, files, TAP ---------------------------------------------------------

template <typename... A> std::string cat(const A &...a)
{
	std::ostringstream o;
	(o << ... << a);
	return o.str();
}

// Seconds since boot.
double now()
{
	return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
	    .count();
}

// One line in one write, so that the lines of several processes do not mix.
void say(const std::string &line) { (void)!write(1, (line + "\n").data(), line.size() + 1); }

std::string slurp(const std::string &path)
{
	std::ostringstream o;
	o << std::ifstream(path, std::ios::binary).rdbuf();
	return o.str();
}

std::string trim(std::string s)
{
	while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
		s.pop_back();
	return s;
}

// Writes text to an existing file (sysfs, debugfs, procfs); 0 or the errno.
int put(const std::string &path, const std::string &text)
{
	int fd = open(path.c_str(), O_WRONLY);
	int err = fd < 0 || write(fd, text.data(), text.size()) < 0 ? errno : 0;
	close(fd);
	return err;
}

bool sh(const std::string &cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

bool install(const std::string &src, const std::string &dst)
{
	std::ofstream(dst, std::ios::binary) << slurp(src);
	return chmod(dst.c_str(), 0755) == 0;
}

size_t count(const std::string &text, const std::string &needle)
{
	size_t n = 0;
	for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1))
		n++;
	return n;
}

size_t in_log(const std::string &needle)
{
	std::string log(1 << 22, '\0');
	log.resize(static_cast<size_t>(std::max(klogctl(3, log.data(), 1 << 22), 0)));
	return count(log, needle);
}

bool loaded(const std::string &m) { return count("\n" + slurp("/proc/modules"), "\n" + m + " "); }

std::string hex(const Bytes &b)
{
	std::string s;
	for (uint8_t c : b)
		s += cat("0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]);
	return s;
}

Bytes pattern(size_t n, unsigned seed)
{
	Bytes b(n);
	for (size_t i = 0; i < n; i++)
		b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
	return b;
}

long first(const std::string &s)
{
	char *end = nullptr;
	long v = std::strtol(s.c_str(), &end, 10);
	return end == s.c_str() ? 9999 : v;
}

int g_tests, g_failed;

bool check(bool ok, const std::string &name, const std::string &diag = "")
{
	std::string out = cat(ok ? "ok " : "not ok ", ++g_tests, " - ", name);
	std::istringstream in(ok ? "" : diag);
	for (std::string line; std::getline(in, line);)
		out += "\n#   " + line;
	g_failed += !ok;
	say(out);
	return ok;
}

template <typename T, typename U> bool eq(const T &got, const U &want, const std::string &name)
{
	return check(got == want, name, cat("got '", got, "', want '", want, "'"));
}

void group(const char *title)
{
	say(cat("# --- ", title, " (", int(now() * 10) / 10.0, " s after boot)"));
}

// ---- the flash stand-in, item requests, the test module ------------------------------

std::string knob(int dev, const char *file) { return cat(kFlash, dev, "/", file); }
unsigned long long num(const std::string &path)
{
	return std::strtoull(slurp(path).c_str(), nullptr, 10);
}

// Block b of device 0's flash, as it is at rest.
Bytes block(size_t b)
{
	Bytes buf(kBlock);
	int fd = open(knob(0, "area").c_str(), O_RDONLY);
	buf.resize(size_t(std::max<ssize_t>(pread(fd, buf.data(), kBlock, off_t(b * kBlock)), 0)));
	close(fd);
	return buf;
}

// Both head copies of device 0 written, and alike.
bool heads_ok() { return block(0) != Bytes(kBlock, 0xff) && block(0) == block(32); }

struct Result {
	long code = 0;    // 0, -errno, or the positive count of bytes not copied
	uint32_t len = 0; // buf_size as the driver left it
	Bytes data;
};

Result item(int fd, uint32_t dev, uint32_t cmd, const std::string &name, Bytes buf, uint32_t room)
{
	user_cfg_para p{};
	p.device_id = dev;
	p.cmd = cmd;
	p.cfg_index = 3; // ignored by the driver
	std::memcpy(p.name, name.data(), std::min(name.size(), sizeof(p.name)));
	buf.resize(std::max<size_t>(buf.size(), room));
	p.buf_size = room;
	p.buf = room ? reinterpret_cast<uintptr_t>(buf.data()) : 0;
	long ret = ioctl(fd, USER_CFG_IOC_ITEM, &p);
	Result r{ret < 0 ? -errno : ret, p.buf_size, {}};
	if (r.code == 0 && cmd == GET)
		r.data.assign(buf.begin(), buf.begin() + std::min<long>(p.buf_size, room));
	return r;
}

int g_fd = -1; // root's descriptor of the node, inherited by the children

bool open_node() { return (g_fd = open(kNode.c_str(), O_RDWR)) >= 0; }
Result get(const std::string &name, uint32_t room, uint32_t dev = 0)
{
	return item(g_fd, dev, GET, name, {}, room);
}

std::string kcall_on(int fd, const std::string &line)
{
	std::string buf(70000, '\0');
	if (pwrite(fd, line.data(), line.size(), 0) < 0)
		return cat("write-error ", errno);
	ssize_t n = pread(fd, buf.data(), buf.size(), 0);
	return n < 0 ? cat("read-error ", errno) : trim(buf.substr(0, size_t(n)));
}

std::string kcall(const std::string &line)
{
	int fd = open(kCall.c_str(), O_RDWR);
	std::string r = fd < 0 ? cat("open-error ", errno) : kcall_on(fd, line);
	close(fd);
	return r;
}

struct Static {
	const char *name;
	uint32_t size;
	Bytes def; // what it reads as when nothing is stored
};

Bytes cpu_value(uint8_t c, uint8_t d, uint8_t a)
{
	Bytes v(16, 0);
	v[0] = c, v[1] = d, v[2] = a;
	return v;
}

const std::vector<Static> kStatics = {
    {"cpu_num_cfg", 16, cpu_value(1, 2, 4)}, // the control module's numbers
    {"p2p_mem_cfg", 4, {0x04, 0, 0, 0}},
    {"ddr_ecc_enable", 1, {0x01}},
    {"ccpu_usr_cert_hash", 1024, Bytes(1024, 0)},
    {"usershadow", 2048, Bytes(2048, 0)},
    {"ssh_status", 1, {0x00}},
};
constexpr size_t kUsershadow = 4;

// ---- other processes ----------------------------------------------------------------

struct Kid {
	pid_t pid;
	int out;
};

// fn in a child whose stdout is a pipe; what fn returns is printed too.
Kid spawn(const std::function<std::string()> &fn)
{
	int p[2];
	if (pipe(p) != 0)
		return {-1, -1};
	pid_t pid = fork();
	if (pid == 0) {
		dup2(p[1], 1);
		close(p[0]);
		say(fn());
		_exit(0);
	}
	close(p[1]);
	return {pid, p[0]};
}

// What the child printed; after limit seconds it is killed: "timeout".
std::string reap(const Kid &k, double limit = 120)
{
	std::string out;
	char buf[4096];
	double end = now() + limit;
	pollfd pf{k.out, POLLIN, 0};
	ssize_t n = 1;
	while (n > 0 && poll(&pf, 1, int(std::max(0.0, end - now()) * 1000)) > 0)
		if ((n = read(k.out, buf, sizeof(buf))) > 0)
			out.append(buf, size_t(n));
	if (n > 0)
		kill(k.pid, SIGKILL);
	close(k.out);
	waitpid(k.pid, nullptr, 0);
	return n > 0 ? "timeout" : trim(out);
}

std::string in_child(const std::function<std::string()> &fn, double limit = 120)
{
	return reap(spawn(fn), limit);
}

bool userns() { return access("/proc/self/ns/user", F_OK) == 0; }

// A private view of the file system for the calling process: a tmpfs over
// dir in a mount namespace of its own; with own_user also in a user
// namespace of its own, in which it is root (no privilege needed). With a
// copy of this program at copy_to when given. "" or what failed.
std::string private_mount(const std::string &dir, bool own_user, const std::string &copy_to = "")
{
	const std::string uid = cat("0 ", getuid(), " 1"), gid = cat("0 ", getgid(), " 1");
	const char *failed = nullptr;
	// A process that changed its uid without an exec is not dumpable, and
	// its /proc files stay root's: it could not write its id maps.
	if (own_user && (prctl(PR_SET_DUMPABLE, 1) || unshare(CLONE_NEWUSER | CLONE_NEWNS)))
		failed = "user namespace";
	else if (own_user && (put("/proc/self/setgroups", "deny") ||
			      put("/proc/self/uid_map", uid) || put("/proc/self/gid_map", gid)))
		failed = "id maps";
	else if (!own_user && (unshare(CLONE_NEWNS) || mount(0, "/", 0, MS_REC | MS_PRIVATE, 0)))
		failed = "mount namespace";
	else if (mount("tmpfs", dir.c_str(), "tmpfs", 0, nullptr) != 0)
		failed = "tmpfs";
	else if (!copy_to.empty() && !install(kSelf, copy_to))
		failed = "copy";
	return failed ? cat(failed, ": ", std::strerror(errno)) : "";
}

enum class View { host, sandbox, impostor };

// A process to start: its executable, identity and view of the files.
struct Who {
	std::string exe;
	uid_t uid;
	bool admin = false; // keeps CAP_SYS_ADMIN (meaningful for uid 0 only)
	View view = View::host;

	std::string label() const
	{
		std::string e = exe;
		for (size_t nl; (nl = e.find('\n')) != std::string::npos;)
			e.replace(nl, 1, "\\n");
		return cat(e, " as ", uid, uid || admin ? "" : " without CAP_SYS_ADMIN",
			   view == View::sandbox    ? " with its own /tmp"
			   : view == View::impostor ? " (another program, in its own namespace)"
						    : "");
	}
};

const Who kDaemon{kDaemonExe, kDaemonUid}, kRoot{kSelf, 0, true};

// Becomes who and execs its program (returns only on failure). No
// supplementary groups; without admin CAP_SYS_ADMIN leaves the bounding set
// first, so that the exec does not grant it back to root. The sandbox is
// the daemon in a private mount namespace with its own /tmp, as a service
// manager's sandboxing gives it; the impostor another program at the
// daemon's path in a user and mount namespace of its own (without user
// namespaces, a mount namespace root makes for it).
std::string exec_as(const Who &w, const std::vector<std::string> &args)
{
	bool by_root = w.view == View::sandbox || (w.view == View::impostor && !userns());
	std::string err;
	if (by_root)
		err = private_mount(w.view == View::sandbox ? "/tmp" : "/var", false,
				    w.view == View::impostor ? kDaemonExe : "");
	if (err.empty() && ((!w.admin && prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN) != 0) ||
			    setgroups(0, nullptr) != 0 || setresgid(w.uid, w.uid, w.uid) != 0 ||
			    setresuid(w.uid, w.uid, w.uid) != 0))
		err = "cannot change identity";
	if (err.empty() && w.view == View::impostor && !by_root)
		err = private_mount("/var", true, kDaemonExe);
	std::vector<char *> argv{const_cast<char *>(w.exe.c_str())};
	for (const std::string &a : args)
		argv.push_back(const_cast<char *>(a.c_str()));
	argv.push_back(nullptr);
	if (err.empty())
		execv(w.exe.c_str(), argv.data());
	return err.empty() ? "exec failed" : err;
}

std::string run(const Who &w, const std::vector<std::string> &args)
{
	return in_child([&] { return exec_as(w, args); });
}

// An item request by another process on root's descriptor: its code. A get
// has the room of v.
long op_as(const Who &w, uint32_t cmd, const std::string &name, const Bytes &v = {})
{
	std::string data = cmd == GET ? cat("@", v.size()) : v.empty() ? "-" : hex(v);
	std::string out = run(w, {"op", cat(g_fd), "0", cat(cmd), name, data});
	if (first(out) == 9999)
		say("#   the child said: " + out);
	return first(out);
}

// ---- the suite ----------------------------------------------------------------------

void test_loading(bool complete)
{
	group("loading and the device node");
	check(loaded("drv_user_cfg") &&
		  !access("/sys/module/sec_flash/holders/drv_user_cfg", F_OK) &&
		  count(slurp("/sys/bus/platform/drivers/vexa-user-cfg/user_cfg/modalias"),
			"Cvexa-user-cfg"),
	      "drv_user_cfg came up for its device-tree node, bound to it, sec_flash under it");
	struct stat st {};
	stat(kNode.c_str(), &st);
	std::string dev = cat(major(st.st_rdev), ":", minor(st.st_rdev));
	check(S_ISCHR(st.st_mode) && (st.st_mode & 07777) == 0600 &&
		  trim(slurp("/sys/class/user_cfg_dev_class/user_config/dev")) == dev &&
		  count(slurp("/proc/devices"), cat("\n", major(st.st_rdev), " user_config\n")),
	      "/dev/user_config: char device " + dev + " of user_config, 0600, user_cfg_dev_class",
	      cat("mode ", std::oct, st.st_mode));
	utsname u{};
	uname(&u);
	std::string ko = slurp(cat("/lib/modules/", u.release, "/extra/drv_user_cfg.ko"));
	std::string version = trim(slurp("/etc/ucfg-version"));
	auto tag = [&ko](const std::string &t) { return count(ko, t + '\0') > 0; };
	check(tag("description=dev firmware user configure driver") && tag("license=GPL") &&
		  tag("version=" + version) &&
		  trim(slurp("/sys/module/drv_user_cfg/version")) == version,
	      "modinfo: its description, licence GPL and version " + version);
	bool lines = in_log("[orvane] [user_cfg_drv] [dev_user_cfg_probe ") &&
		     in_log("User config probe.") && in_log("Set the value of devnode to 0600.");
	if (complete)
		check(lines && in_log("Dts data cpu num. (num=2)"),
		      "the probe logged the node's numbers with the system's prefix");
	else
		check(lines && in_log("Dts data cpu num is not set. (ret=") == 1 &&
			  in_log("Dts data cpu num. (num=0)") == 1,
		      "the node lacks data_cpu_num: a warning at probe, the number 0");
}

void test_frame(uint32_t boot, const std::string &dts)
{
	group("device-file commands");
	uint32_t v[4] = {0xaaaaaaaa, 0xaaaaaaaa, 9, 9};
	long r = ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, v);
	eq(cat(r, " ", v[0], " ", v[1] == 0xaaaaaaaa), cat("0 ", boot, " 1"),
	   cat("the boot configuration is ", boot, ", 4 bytes"));
	v[3] = 0xaaaaaaaa;
	r = ioctl(g_fd, USER_CFG_IOC_DTS_CPU, v);
	eq(cat(r, " ", v[0], ",", v[1], ",", v[2], " ", v[3] == 0xaaaaaaaa), "0 " + dts + " 1",
	   "the device-tree CPU record is " + dts + ", 12 bytes");
	std::string bad;
	for (unsigned long c : {0x80044301UL, 0x80044302UL, 0x80044304UL})
		if (ioctl(g_fd, c, 0UL) != -1 || errno != EINVAL)
			bad += cat(std::hex, c, " ");
	check(bad.empty(), "argument 0 is -EINVAL for every command", bad);
	for (unsigned long c : {0x80044300UL, 0x80044303UL, 0x80044305UL, 0xC0384301UL,
				0x40044301UL, 0x4301UL, 0x80084302UL})
		if (ioctl(g_fd, c, v) != -1 || errno != EINVAL)
			bad += cat(std::hex, c, " ");
	check(bad.empty(), "other command numbers are -EINVAL", bad);
	void *hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	eq(cat(ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, hole), " ",
	       ioctl(g_fd, USER_CFG_IOC_DTS_CPU, hole), " ", ioctl(g_fd, USER_CFG_IOC_ITEM, hole)),
	   "4 12 56", "an unreadable user address: the positive count of bytes not copied");
}

// Device 1 starts with the image ucfg-image made (/etc/image-items, line 2:
// "NAME TEXT"); the daemon leaves an item for the offline check (line 1).
void test_items()
{
	group("items end to end");
	std::istringstream in(slurp("/etc/image-items"));
	std::string ours, our_text, theirs, their_text;
	in >> ours >> our_text >> theirs >> their_text;
	Result r = get(theirs, USER_CFG_BUF_MAX, 1);
	eq(std::string(r.data.begin(), r.data.end()) + " " + hex(get("ssh_status", 1, 1).data),
	   their_text + " 01", "device 1 reads the named and the static item ucfg-image wrote");
	long a = op_as(kDaemon, SET, "ssh_status", {1});
	r = get("ssh_status", 1);
	check(a == 0 && r.data == Bytes{1} && heads_ok(),
	      "the daemon sets ssh_status: it reads 01, both head copies alike",
	      cat("set ", a, " get ", r.code, " ", hex(r.data)));
	a = op_as(kDaemon, CLEAR, "ssh_status");
	eq(cat(a, " ", hex(get("ssh_status", 1).data)), "0 00",
	   "the daemon clears it: its default");
	for (size_t n : {7, 3000, 32768}) {
		Bytes v = pattern(n, unsigned(n));
		a = op_as(kDaemon, SET, "vm.item", v);
		r = get("vm.item", USER_CFG_BUF_MAX);
		check(a == 0 && r.code == 0 && r.len == n && r.data == v,
		      cat("a named item of ", n, " bytes, its length reported back"),
		      cat("set ", a, " get ", r.code, " length ", r.len));
	}
	a = op_as(kDaemon, CLEAR, "vm.item");
	eq(cat(a, " ", get("vm.item", 64).code), cat("0 ", -ENOENT),
	   "the daemon clears it: -ENOENT");
	Bytes shadow = pattern(2048, 0x33);
	a = item(g_fd, 0, SET, "usershadow", shadow, 2048).code;
	check(a == 0 && get("usershadow", 2048).data == shadow,
	      "root with CAP_SYS_ADMIN sets usershadow, no whitelist");
	eq(op_as(kDaemon, SET, ours, Bytes(our_text.begin(), our_text.end())), 0,
	   "the daemon stores " + ours + " for the offline check");
}

void test_authority()
{
	group("authority: real uids, executables, capabilities and namespaces");
	const std::string odd = "/tmp/a\nb/devmgr_daemon";
	mkdir("/tmp/a\nb", 0755);
	for (std::string copy :
	     {odd, std::string("/var/sched_daemon"), std::string("/tmp/devmgr_daemon"),
	      std::string("/var/devmgr_daemon2")})
		install(kSelf, copy);
	struct Row {
		Who who;
		uint32_t cmd;
		const char *name;
		Bytes v; // the value of a set, the room of a get
		long want;
	};
	const Row rows[] = {
	    {kDaemon, SET, "ssh_status", {1}, 0},
	    {kDaemon, GET, "usershadow", Bytes(2048), -EACCES},
	    {kDaemon, 7, "auth.item", {1}, -EINVAL},
	    {kDaemon, SET, "auth.item", {1, 2, 3}, 0},
	    {{kSelf, 0}, GET, "usershadow", Bytes(2048), -EACCES},
	    {{kSelf, 0}, GET, "auth.item", Bytes(64), 0},
	    {kRoot, SET, "ssh_status", {1}, -EACCES},
	    {kRoot, CLEAR, "auth.item", {}, -EACCES},
	    {kRoot, 7, "auth.item", {1}, -EACCES},
	    {{"/var/sched_daemon", kSchedUid}, SET, "ssh_status", {1}, -EACCES},
	    {{"/tmp/devmgr_daemon", kDaemonUid}, SET, "ssh_status", {1}, -EACCES},
	    {{odd, kDaemonUid}, SET, "ssh_status", {1}, -EACCES},
	    {{"/var/devmgr_daemon2", kDaemonUid}, SET, "ssh_status", {1}, -EACCES},
	    {{kDaemonExe, 0, true}, SET, "ssh_status", {1}, -EACCES},
	    {{kDaemonExe, kSchedUid}, SET, "ssh_status", {1}, -EACCES},
	    {{kDaemonExe, kDaemonUid, false, View::impostor}, SET, "ssh_status", {0}, -EACCES},
	    {{kDaemonExe, kDaemonUid, false, View::sandbox}, SET, "ssh_status", {0}, 0},
	    {kDaemon, CLEAR, "auth.item", {}, 0},
	};
	const char *verbs[] = {"get", "set", "clear", "", "", "", "", "command 7"};
	for (const Row &r : rows)
		eq(op_as(r.who, r.cmd, r.name, r.v), r.want,
		   cat(r.who.label(), ": ", verbs[r.cmd], " ", r.name, ", ", r.want));
	const std::string fail = "match fail. (proc name=\"devmgr_daemon\";path=\"";
	check(in_log(fail + "/tmp/devmgr_daemon\";uid=1101)") == 1 &&
		  in_log(fail + "/tmp/a\\nb/devmgr_daemon\";uid=1101)") == 1 &&
		  in_log(fail + "/var/devmgr_daemon\";uid=1101)") == 1,
	      cat("the copies and the impostor (", userns() ? "user" : "root's mount",
		  " namespace) fail the identity stage, one escaped log line each"));
	check(in_log("[orvane] [ERROR] [whitelist] [whitelist_check_process_name "),
	      "sched_daemon fails the name stage, logged under the whitelist's tag");
}

// Body of "vmtest badmem FD", run as the daemon: each request fails with the
// count of bytes not copied and leaves the items alone. A copy stopped by a
// fault reports at least the bytes in the bad page and at most all of them.
// Prints "T OK NAME|DIAG" per case.
int run_badmem(int fd)
{
	const size_t page = size_t(sysconf(_SC_PAGESIZE));
	const uint32_t ssz = 1024, dsz = 3000;
	const Bytes sval = pattern(ssz, 0x61), dval = pattern(dsz, 0x62);
	const char *snm = "ccpu_usr_cert_hash", *dnm = "bad.item";
	say(cat("T ",
		!item(fd, 0, SET, snm, sval, ssz).code && !item(fd, 0, SET, dnm, dval, dsz).code,
		" the daemon stores the two items|"));
	const long rec = sizeof(user_cfg_para);
	struct Case {
		bool record; // the record lies at the bad page, else the data
		int prot;    // of the bad page: PROT_NONE is unmapped
		size_t lead; // bytes before the bad page
		uint32_t cmd;
		bool named;
		long lo, hi; // accepted results
	} cases[] = {
	    {true, PROT_NONE, 0, SET, true, rec, rec},
	    {true, PROT_NONE, 20, SET, true, rec - 20, rec},
	    {true, PROT_READ, 0, GET, true, 4, 4},  // content out, its length not
	    {true, PROT_READ, 0, GET, false, 0, 0}, // nothing to write back
	    {false, PROT_NONE, 0, SET, false, ssz, ssz},
	    {false, PROT_NONE, 0, SET, true, dsz, dsz},
	    {false, PROT_NONE, 0, GET, false, ssz, ssz},
	    {false, PROT_READ, 0, GET, true, dsz, dsz},
	    {false, PROT_NONE, 100, SET, true, dsz - 100, dsz},
	    {false, PROT_NONE, 100, GET, false, ssz - 100, ssz},
	};
	int failed = 0;
	for (const Case &c : cases) {
		// A set offers a value the item must not take; a named get more
		// room than its content, so that a length written back shows.
		const uint32_t size = c.named ? dsz : ssz,
			       room = c.cmd == GET && c.named ? dsz + 100 : size;
		Bytes good = c.cmd == SET ? pattern(size, 0x7e) : Bytes(room, 0);
		auto *m = static_cast<uint8_t *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		uint8_t *part = m + page - c.lead, *data = c.record ? good.data() : part;
		user_cfg_para q{}, *p = c.record ? reinterpret_cast<user_cfg_para *>(part) : &q;
		std::memcpy(data, good.data(), c.record ? 0 : room);
		q.cmd = c.cmd;
		std::strcpy(q.name, c.named ? dnm : snm);
		q.buf_size = room;
		q.buf = reinterpret_cast<uintptr_t>(data);
		std::memmove(static_cast<void *>(p), &q, sizeof(q));
		c.prot == PROT_NONE ? munmap(m + page, page) : mprotect(m + page, page, PROT_READ);
		long r = ioctl(fd, USER_CFG_IOC_ITEM, p);
		r = r < 0 ? -errno : r;
		uint32_t field = room; // left alone whenever the content did not arrive
		if (!c.record || c.prot == PROT_READ)
			std::memcpy(
			    &field,
			    reinterpret_cast<uint8_t *>(p) + offsetof(user_cfg_para, buf_size), 4);
		bool ok = r >= c.lo && r <= c.hi && field == room &&
			  item(fd, 0, GET, snm, {}, ssz).data == sval &&
			  item(fd, 0, GET, dnm, {}, USER_CFG_BUF_MAX).data == dval &&
			  (!c.record || c.prot == PROT_NONE ||
			   Bytes(good.begin(), good.begin() + size) == (c.named ? dval : sval));
		say(cat("T ", ok, " ", c.named ? "named " : "static ", c.cmd == GET ? "get" : "set",
			c.record ? ", record " : ", data ",
			c.lead                ? "straddling into an unmapped page"
			: c.prot == PROT_NONE ? "unmapped"
					      : "read-only",
			"|got ", r, ", want ", c.lo, "..", c.hi, "; buf_size field ", field,
			"; or the items changed"));
		failed += !ok;
		munmap(m, c.prot == PROT_NONE ? page : 2 * page);
	}
	return failed ? 1 : 0;
}

void test_bad_memory()
{
	group("bad user memory: the daemon's records and data");
	std::istringstream in(run(kDaemon, {"badmem", cat(g_fd)}));
	int seen = 0, ok;
	char rest[512];
	for (std::string line; std::getline(in, line);)
		if (std::sscanf(line.c_str(), "T %d %511[^\n]", &ok, rest) == 2 && ++seen) {
			std::string r = rest;
			check(ok, r.substr(0, r.find('|')), r.substr(r.find('|') + 1));
		}
	eq(seen, 11, "every bad-memory case ran");
}

void test_kernel_api()
{
	group("the kernel API through the test module");
	check(sh("modprobe ucfg_probe") && kcall("get 0 p2p_mem_cfg 4") == "0 4 04000000",
	      "the test module loads against the exports, gets p2p_mem_cfg by name");
	Bytes v = pattern(500, 0x42);
	using Call = std::tuple<std::string, long, bool, const char *>; // line, result, sleeps
	for (auto [line, want, sleeps, what] :
	     {Call{"set 0 k.item " + hex(v), 0, true, "a set of a named item"},
	      Call{"set 0 ssh_status 0101", -EINVAL, true, "a set the store refuses (2 bytes)"},
	      Call{"set 2 ssh_status 01", -EINVAL, false, "a set on device 2 of 2, refused"}}) {
		std::string r = kcall(line);
		check(first(r) == want && (first(r.substr(r.find(' ') + 1)) >= 100) == sleeps,
		      cat(what, ": ", want, sleeps ? ", then 100 ms asleep" : ", at once"), r);
	}
	eq(kcall("get 0 k.item 32768") + cat(" ", get("k.item", 32768).len),
	   "0 500 " + hex(v) + " 500",
	   "the named item reads back with its length, through the device file too");
	const std::string dead = " 3735928559"; // an output word left alone
	eq(cat(first(kcall("set 0 cpu_num_cfg " + hex(cpu_value(3, 5, 6)))), "; ",
	       kcall("cpu_cfg 0 12"), "; ", kcall("cpu_cfg 0 16")),
	   "0; 0 3 5 6" + dead + "; -22" + dead + dead + dead + dead,
	   "dev_user_cfg_get_cpu_cfg: the numbers stored by name in 12 bytes, -EINVAL for 16");
	eq(cat(first(kcall("clear 0 0")), "; ", kcall("cpu_cfg 0 12"), "; ", kcall("cpu_cfg 1 12"),
	       "; ", first(kcall("clear 2 5"))),
	   "0; 0 1 2 4" + dead + "; 0 1 2 4" + dead + "; -22",
	   "cleared by index, or never set (device 1): the device tree's numbers; device 2 "
	   "-EINVAL");
	// whitelist_process_handler judges the process that makes the call.
	int fd = open(kCall.c_str(), O_RDWR);
	const Who sched{"/var/sched_daemon", kSchedUid};
	using Judge = std::tuple<const Who *, const char *, const char *>;
	for (auto [who, list, want] :
	     {Judge{&sched, "sched_daemon", "0"}, Judge{&sched, "devmgr_daemon", "-1"},
	      Judge{&kDaemon, "devmgr_daemon", "0"}, Judge{&kRoot, "vmtest", "-6"}})
		eq(run(*who, {"kcall", cat(fd), cat("whitelist ", list)}), std::string(want),
		   cat("whitelist_process_handler(", list, ") called by ", who->label()));
	close(fd);
}

std::string cpus(const char *grp) { return trim(slurp(cat(kCpuset, "/", grp, "/cpuset.cpus"))); }
bool mk(const std::string &dir) { return mkdir((kCpuset + dir).c_str(), 0755) == 0; }

void test_cpusets()
{
	group("CPU partition from real cgroup v1 cpusets");
	eq(first(kcall("cpu_number 0")), -EINVAL, "no cpuset hierarchy: -EINVAL");
	// A FIFO at the path the module reads, in the host's own namespace.
	bool fifo = mount("none", kCgroup.c_str(), "tmpfs", 0, nullptr) == 0 && mk("") &&
		    mk("/CtrlCPU") && mkfifo((kCpuset + "/CtrlCPU/cpuset.cpus").c_str(), 0644) == 0;
	double t0 = now();
	std::string r = in_child([] { return kcall("cpu_number 0"); }, 5);
	check(fifo && first(r) == -EINVAL && now() - t0 < 3,
	      "a FIFO at a cpuset file's path: -EINVAL at once, no waiting",
	      cat("result '", r, "' after ", now() - t0, " s"));
	umount(kCgroup.c_str());
	bool made = !mount("cgroup", kCgroup.c_str(), "tmpfs", 0, nullptr) && mk("") &&
		    !mount("none", kCpuset.c_str(), "cgroup", 0, "cpuset") && mk("/CtrlCPU") &&
		    mk("/DataCPU") && !put(kCpuset + "/CtrlCPU/cpuset.cpus", "0-1,3") &&
		    !put(kCpuset + "/DataCPU/cpuset.cpus", "3,2") && cpus("DataCPU") == "2-3";
	eq(cat(made, " ", first(kcall("cpu_number 0"))), cat("1 ", -EINVAL),
	   "cpusets made (the kernel writes 3,2 as 2-3), no AICPU: -EINVAL");
	mk("/AICPU");
	eq(kcall("cpu_number 0"), "0 2 1 2 1 0 1 0 0",
	   "device 0: ranges counted, the empty AICPU 0, the files read again after the failures");
	eq(kcall("cpu_number 1") + "; " + kcall("cpu_number 2").substr(0, 3),
	   "0 1 1 0 1 0 1 0 0; -22",
	   "device 1: a single CPU counts 1, a list too short 0; device 2 of 2: -EINVAL");
	put(kCpuset + "/AICPU/cpuset.cpus", "0-3");
	eq(kcall("cpu_number 0") + cat("; ", in_log("Cpus number config. (ccpu_num=")),
	   "0 2 1 2 1 0 1 0 0; 1",
	   "the files are read once per module life, the record logged once");

	// After a reload the first caller sits in a mount namespace of its own
	// whose cpuset files say something else: the host's files count.
	close(g_fd);
	check(sh("rmmod ucfg_probe && rmmod drv_user_cfg && modprobe ucfg_probe") && open_node(),
	      "drv_user_cfg reloaded (the test module pulls it in)");
	std::string own = in_child([] {
		std::string err = private_mount(kCpuset, false);
		for (const char *g : {"/CtrlCPU", "/DataCPU", "/AICPU"})
			if (err.empty() &&
			    !(mk(g) && std::ofstream(kCpuset + g + "/cpuset.cpus") << "0-7\n"))
				err = "no files";
		return err.empty() ? kcall("cpu_number 0") : err;
	});
	eq(own, "0 2 1 2 1 4 1 0 0",
	   "the first caller after it, in a mount namespace with other files: the host's numbers");
	eq(kcall("cpu_number 0") + "; " + kcall("cpu_number 1"),
	   "0 2 1 2 1 4 1 0 0; 0 1 1 0 1 0 1 0 0",
	   "a later caller in the host's namespace: the same, AICPU read anew");
	check(in_log("String parse failed. (dev_id=1; buf=\"0-3\")") &&
		  in_log("Cpus number config. (ccpu_num=") == 2,
	      "the short list logged, the record logged once in the new life");
}

// The store's view: root's alone; a damaged copy shown as found, and
// nothing written; the next request repairs it.
void test_view()
{
	group("the store's view in debugfs");
	struct stat st {};
	eq(cat(stat(kView.c_str(), &st), " ", std::oct, st.st_mode & 07777, std::dec, " ",
	       st.st_uid, " ", run(kDaemon, {"read", kView}), " ",
	       run({kSelf, 0}, {"read", kView})),
	   cat("0 400 0 ", -EACCES, " ", -EPERM),
	   "user_config/dev0 is 0400 root's: the daemon and root without CAP_SYS_ADMIN refused");
	int fd = open(knob(0, "area").c_str(), O_WRONLY);
	bool hit = pwrite(fd, "garbage!garbage!", 16, 100) == 16;
	close(fd);
	put(knob(0, "writes"), "0");
	std::string text = slurp(kView);
	check(hit && count(text, "head main bad-check\nhead backup valid\n") &&
		  count(text, "\nspace blocks=") && num(knob(0, "writes")) == 0 &&
		  block(0) != block(32),
	      "garbage in the main head at rest: the view shows it and writes nothing", text);
	check(get("ssh_status", 1).code == 0 && count(slurp(kView), "head main valid\n") &&
		  heads_ok(),
	      "the next request repairs the copy, and the view shows it");
}

void test_control_module()
{
	group("the control module");
	check(sh("rmmod orvane_ctl"), "the control module unloads under drv_user_cfg");
	uint32_t boot = 0;
	long rb = ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, &boot);
	eq(cat(get("ssh_status", 1).code, " ", op_as(kDaemon, SET, "x.item", {1}), " ",
	       first(kcall("get 0 ssh_status 1")), " ", first(kcall("cpu_number 0")), " ", rb, " ",
	       boot),
	   cat(-EINVAL, " ", -EINVAL, " ", -EINVAL, " ", -EINVAL, " 0 32"),
	   "without it: get, the daemon's set, the kernel API, the CPU query -EINVAL; boot query "
	   "served");
	check(sh("modprobe orvane_ctl") && get("ssh_status", 1).code == 0,
	      "loaded again: requests served");
}

void test_reload()
{
	group("unload and reload");
	check(sh("rmmod ucfg_probe"), "the test module unloads");
	errno = 0;
	long a = syscall(SYS_delete_module, "drv_user_cfg", O_NONBLOCK), ea = errno;
	long b = syscall(SYS_delete_module, "sec_flash", O_NONBLOCK);
	eq(cat(a, " ", ea, " ", b, " ", errno), cat("-1 ", EWOULDBLOCK, " -1 ", EWOULDBLOCK),
	   "an open node pins drv_user_cfg, and drv_user_cfg pins sec_flash");
	auto store = [] {
		return hex(get("k.item", 32768).data) + hex(get("usershadow", 2048).data) +
		       hex(get("ssh_status", 1).data);
	};
	const std::string before = store();
	const unsigned long long writes = num(knob(0, "writes")),
				 exits = in_log("User cfg drv clean ok.");
	std::string bad;
	for (int i = 0; i < 3; i++) {
		struct stat st {};
		close(g_fd);
		if (!sh("rmmod drv_user_cfg") || !access(kNode.c_str(), F_OK) ||
		    !sh("modprobe drv_user_cfg") || stat(kNode.c_str(), &st) ||
		    (st.st_mode & 07777) != 0600 || !open_node() || store() != before)
			bad += cat("round ", i, " failed\n");
	}
	check(bad.empty() && in_log("User cfg drv clean ok.") - exits == 3 &&
		  num(knob(0, "writes")) == writes,
	      "three rounds of rmmod and modprobe: the node goes and comes back 0600, the store "
	      "unchanged",
	      bad);
}

volatile sig_atomic_t g_stop;

// Opens the node over and over until SIGUSR1, holding what it gets open a
// while and using it; "OPENED REFUSED ABSENT".
std::string open_loop()
{
	unsigned long n[3] = {};
	for (uint32_t v; !g_stop;) {
		int fd = open(kNode.c_str(), O_RDWR);
		n[fd >= 0 ? 0 : errno == ENODEV ? 1 : 2]++;
		if (fd >= 0) {
			usleep(20000);
			ioctl(fd, USER_CFG_IOC_BOOT_CFG, &v);
			close(fd);
		}
	}
	return cat(n[0], " ", n[1], " ", n[2]);
}

// A start that fails after its node went live (the platform driver's name
// taken) must leave no open file behind on what it frees. Two processes
// open the node all the while. The window between the node going live and
// the failed registration is short: some attempts land an open in it, some
// none (the count is reported), so this shows the refusal when it is hit
// and, with KASAN, any use of freed memory an open in it causes.
void test_failed_start(int attempts)
{
	group("starts that fail after the node went live");
	utsname u{};
	uname(&u);
	close(g_fd);
	bool ready = sh("rmmod drv_user_cfg && modprobe ucfg_squat");
	size_t logged = in_log("Register platform driver failed. (ret=-16)");
	signal(SIGUSR1, [](int) { g_stop = 1; });
	Kid loops[] = {spawn(open_loop), spawn(open_loop)};
	signal(SIGUSR1, SIG_DFL);
	int fd = open(cat("/lib/modules/", u.release, "/extra/drv_user_cfg.ko").c_str(), O_RDONLY),
	    busy = 0;
	for (int i = 0; i < attempts; i++)
		busy += syscall(SYS_finit_module, fd, "", 0) == -1 && errno == EBUSY;
	close(fd);
	unsigned long n[3] = {}, k[3];
	for (const Kid &l : loops)
		if (!kill(l.pid, SIGUSR1) &&
		    std::sscanf(reap(l, 30).c_str(), "%lu %lu %lu", k, k + 1, k + 2) == 3)
			for (int i = 0; i < 3; i++)
				n[i] += k[i];
	eq(cat(ready, " ", busy, " ",
	       in_log("Register platform driver failed. (ret=-16)") - logged),
	   cat("1 ", attempts, " ", attempts),
	   cat(attempts, " starts with the driver name taken fail with -EBUSY, each logged"));
	check(access(kNode.c_str(), F_OK) && access("/sys/class/user_cfg_dev_class", F_OK) &&
		  !count(slurp("/proc/devices"), " user_config\n"),
	      "the node, its class and its device number are released again");
	check(n[0] == 0 && n[2] > 0,
	      cat("no open succeeded meanwhile (", n[1], " refused inside the window, ", n[2],
		  " outside)"),
	      cat(n[0], " opens succeeded"));
	check(sh("rmmod ucfg_squat && modprobe drv_user_cfg") && open_node() &&
		  !get("ssh_status", 1).code,
	      "with the name free again drv_user_cfg loads and serves");
}

int run_suite(int attempts, bool partial)
{
	say("TAP version 13");
	bool up = check(open_node() && install(kSelf, kDaemonExe),
			"the node opens, the daemon installed");
	if (up) {
		test_loading(!partial);
		test_frame(partial ? 0 : 32, partial ? "1,0,4" : "1,2,4");
	}
	if (up && partial)
		eq(hex(get("cpu_num_cfg", 16).data), hex(cpu_value(1, 2, 4)),
		   "cpu_num_cfg's default comes from the control module, not the node");
	if (up && !partial) {
		test_items();
		test_authority();
		test_bad_memory();
		test_kernel_api();
		test_cpusets();
		test_view();
		test_control_module();
		test_reload();
		test_failed_start(attempts);
	}
	say(cat("1..", g_tests));
	return g_failed ? 1 : 0;
}

// ---- stress ---------------------------------------------------------------------------
//
// Several processes make random item requests on both devices at once while
// the flash stand-in fails, damages and powers off transfers under them,
// with a module reload in the middle. Each worker models the items it alone
// writes: a request that succeeded fixes the value; one that failed with
// -ENODEV may or may not have reached the flash, so the item may read as its
// old or its new value until the next successful write. Anything else (a
// value outside the model, another error, -ENODEV with the faults off) is a
// fault of the module.

using Value = std::optional<Bytes>; // nullopt: a named item not stored
constexpr int kDaemons = 4;         // daemon workers; one more runs as root
enum { kGets, kSets, kClears, kByFault, kWrong, kOpen, kGhosts, kCounts };
const char *const kCountNames[] = {"gets",
				   "sets",
				   "clears",
				   "failed by a fault",
				   "wrong",
				   "left old-or-new",
				   "0xff contents read"};

std::string show(const Value &v)
{
	return v ? cat(v->size(), " bytes ",
		       hex(Bytes(v->begin(), v->begin() + std::min<size_t>(v->size(), 6))))
		 : "absent";
}

struct Item {
	uint32_t dev;
	std::string name;
	int st;                     // index into kStatics, -1 for a named item
	std::vector<Value> allowed; // what it may read as now
};

struct Worker {
	int id, fd = -1; // the node, open for one request
	std::mt19937_64 rng;
	std::vector<Item> items;
	unsigned long c[kCounts] = {};

	// The root worker owns usershadow; every other static item of both
	// devices has one daemon owner; each daemon has five named items per
	// device, the last with a name of exactly 32 bytes.
	Worker(int id, uint64_t seed) : id(id), rng(seed * 1000003u + unsigned(id))
	{
		for (uint32_t d = 0; d < 2; d++) {
			for (size_t i = 0; i < kStatics.size(); i++)
				if (id == kDaemons
					? i == kUsershadow
					: i != kUsershadow && (d * 6 + i) % kDaemons == size_t(id))
					items.push_back(
					    {d, kStatics[i].name, int(i), {kStatics[i].def}});
			for (int j = 0; j < 5 && id < kDaemons; j++) {
				std::string n = cat(
				    "w", id, j < 4 ? ".item" : ".a-name-of-exactly-32-bytes", j);
				n.resize(j < 4 ? n.size() : USER_CFG_NAME_LEN, 'x');
				items.push_back({d, n, -1, {Value()}});
			}
		}
	}

	size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); }

	// A failure the faults explain (true), or a wrong outcome, reported.
	bool by_fault(const Item &it, const std::string &what, const Result &r, bool off)
	{
		if (r.code == -ENODEV && !off)
			return ++c[kByFault];
		std::string allowed;
		for (const Value &v : it.allowed)
			allowed += "; " + show(v);
		say(cat("# worker ", id, ", device ", it.dev, ", ", it.name, ": ", what, " -> ",
			r.code, r.code ? "" : " " + show(r.data), "; allowed", allowed));
		return !++c[kWrong];
	}

	void get(Item &it, bool off)
	{
		c[kGets]++;
		uint32_t room = it.st >= 0 ? kStatics[it.st].size : USER_CFG_BUF_MAX;
		if (it.st < 0 && it.allowed[0] && pick(10) == 0) // too small for it
			room = uint32_t(std::max<size_t>(it.allowed[0]->size(), 2) - 1);
		Result r = item(fd, it.dev, GET, it.name, {}, room);
		bool ok = false;
		for (const Value &v : it.allowed)
			ok |= !v                 ? r.code == -ENOENT
			      : v->size() > room ? r.code == -ENXIO
						 : r.code == 0 && r.data == *v;
		if (!ok)
			by_fault(it, cat("get(", room, ")"), r, off);
		else if (!r.code && it.st < 0 && r.data == Bytes(r.data.size(), 0xff))
			c[kGhosts]++; // what an interrupted clear left: set values are random
	}

	// A set of a random value, or a clear. An interrupted clear of a named
	// item may also leave 0xff bytes of the old length: the clear writes
	// them, with a valid check code, into the main slot before the main
	// head drops the record, and a head that still lists the record then
	// reads them. Accepted and counted.
	void change(Item &it, bool clear)
	{
		c[clear ? kClears : kSets]++;
		Value v = it.st >= 0 ? Value(kStatics[it.st].def) : Value();
		size_t r = pick(10), n = it.st >= 0 ? kStatics[it.st].size
						    : 1 + pick(r < 6   ? 256
							       : r < 9 ? 4096
								       : 32768);
		for (v = clear ? v : Bytes(n); !clear && n--;)
			(*v)[n] = uint8_t(rng());
		Result res = item(fd, it.dev, clear ? CLEAR : SET, it.name, v.value_or(Bytes()),
				  clear ? 0 : uint32_t(v->size()));
		bool absent = std::count(it.allowed.begin(), it.allowed.end(), Value()),
		     present = it.allowed.size() > size_t(absent) || it.st >= 0;
		std::vector<Value> old = it.allowed;
		if ((!res.code && (!clear || present)) ||
		    (clear && res.code == -ENOENT && absent && it.st < 0)) {
			it.allowed = {v};
		} else if (by_fault(it, clear ? "clear" : "set " + show(v), res, false)) {
			if (std::find(old.begin(), old.end(), v) == old.end())
				it.allowed.push_back(v);
			for (const Value &o : old)
				if (clear && o && it.st < 0)
					it.allowed.push_back(Bytes(o->size(), 0xff));
		}
	}
};

// A worker process: requests until its time is up, each on a freshly opened
// node, so that the module can be reloaded halfway (no worker opens it while
// the pause file exists); then, once the controller has turned the faults
// off and closed the pipe GO, every item once more, and "done" with the
// counts.
int run_worker(int id, uint64_t seed, double secs, int go)
{
	Worker w(id, seed);
	for (double end = now() + secs; now() < end; close(w.fd), w.fd = -1) {
		if (!access(kPause.c_str(), F_OK) || (w.fd = open(kNode.c_str(), O_RDWR)) < 0) {
			usleep(10000);
			continue;
		}
		Item &it = w.items[w.pick(w.items.size())];
		size_t r = w.pick(100);
		r < 50 ? w.get(it, false) : w.change(it, r >= 80);
	}
	char ch;
	while (read(go, &ch, 1) > 0)
		;
	std::string answer = (w.fd = open(kNode.c_str(), O_RDWR)) < 0 ? "no node" : "done";
	for (Item &it : w.items)
		w.get(it, true), w.c[kOpen] += it.allowed.size() > 1;
	for (unsigned long x : w.c)
		answer += cat(" ", x);
	say(answer);
	return 0;
}

// The faults of one device, one at a time: armed at a random moment to hit
// the Nth transfer from then, held a while, disarmed (which powers the flash
// back on after a power cut). A countdown that reads 0 again has fired.
struct Injector {
	static constexpr const char *kinds[] = {"fail_read", "fail_write", "corrupt_write",
						"power_cut"};
	int dev = 0, kind = -1;
	double until = 0;
	unsigned long armed[4] = {}, fired[4] = {};

	void step(std::mt19937_64 &rng, bool end = false)
	{
		auto later = [&](double a, double b) {
			return now() + std::uniform_real_distribution<double>(a, b)(rng);
		};
		// With the power off every request fails at once: it comes back
		// soon, so that the run is not mostly refusals.
		if (kind == 3 && num(knob(dev, kinds[3])) == 0)
			until = std::min(until, later(0.01, 0.05));
		if (now() < until && !end)
			return;
		if (kind >= 0) {
			fired[kind] += num(knob(dev, kinds[kind])) == 0;
			put(knob(dev, kinds[kind]), "0");
			put(knob(dev, "power_off"), "0");
			kind = -1;
			until = later(0, 0.4);
		} else if (!end) {
			kind = int(rng() % 4);
			put(knob(dev, "fail_code"),
			    std::vector<const char *>{"5", "110", "16"}[rng() % 3]);
			put(knob(dev, kinds[kind]), cat(1 + rng() % 4));
			armed[kind]++;
			until = later(0.05, 0.6);
		}
	}
};

// Kernel complaints in the log since the last call (the harness's list of
// fixed strings), each reported.
unsigned long complaints(int kmsg)
{
	static std::vector<std::string> needles;
	std::istringstream in(needles.empty() ? slurp("/etc/complaints") : "");
	for (std::string s; std::getline(in, s);)
		needles.push_back(s);
	unsigned long n = 0;
	char buf[8192];
	for (ssize_t got;
	     (got = read(kmsg, buf, sizeof(buf))) > 0 || errno == EPIPE;) { // EPIPE: lost some
		std::string line(buf, size_t(std::max<ssize_t>(got, 0)));
		for (const std::string &s : needles)
			if (!s.empty() && count(line, s) && ++n) {
				say("# kernel: " + trim(line));
				break;
			}
	}
	return n;
}

// The node belongs to root; the daemon workers open it as its owner.
bool hand_node_to_daemon()
{
	for (int i = 0; i < 500; i++, usleep(10000))
		if (chown(kNode.c_str(), kDaemonUid, kDaemonUid) == 0)
			return true;
	return false;
}

int run_stress(uint64_t seed, double secs)
{
	say("TAP version 13");
	group("stress");
	say(cat("# seed ", seed, ", ", secs, " s, ", kDaemons,
		" daemon workers and one as root, devices 0 and 1"));
	// The workers' models start from blank flash: every item its default.
	install(kSelf, kDaemonExe);
	put(knob(0, "area"), std::string(64 * kBlock, '\xff'));
	put(knob(1, "area"), std::string(64 * kBlock, '\xff'));
	// Every failed request is logged at error level and would flood the
	// console; the log is read here instead, and an oops reaches the console.
	std::string level = slurp("/proc/sys/kernel/printk").substr(0, 1);
	put("/proc/sys/kernel/printk", "1");
	int kmsg = open("/dev/kmsg", O_RDONLY | O_NONBLOCK), go[2];
	unsigned long bad = 0, fired = 0, sum[kCounts] = {}, views[3] = {};
	check(kmsg >= 0 && hand_node_to_daemon() && sh("rmmod ucfg_probe; true") && !pipe(go) &&
		  !fcntl(go[1], F_SETFD, FD_CLOEXEC),
	      "the kernel log is readable, the node handed to the daemon");
	std::vector<Kid> kids;
	for (int id = 0; id <= kDaemons; id++)
		kids.push_back(spawn([&] {
			return exec_as(id < kDaemons ? kDaemon : kRoot,
				       {"worker", cat(id), cat(seed), cat(secs), cat(go[0])});
		}));
	std::mt19937_64 rng(seed);
	Injector inj[2];
	inj[1].dev = 1;
	for (double t0 = now(), half = t0 + secs / 2; now() < t0 + secs; usleep(5000)) {
		// The last fifth is free of faults, so that most items end settled.
		inj[0].step(rng, now() > t0 + secs * 0.8),
		    inj[1].step(rng, now() > t0 + secs * 0.8);
		bad += complaints(kmsg);
		// Root reads the view meanwhile: all of it (up to the space line,
		// or the statics when no head copy is valid), or nothing when a
		// read fails under it or the module is out.
		std::string text = rng() % 8 ? "" : slurp(kView);
		bool whole = count(text, "\nstatic ssh_status ") &&
			     (count(text, "\nspace blocks=") || count(text, "\nin_use none\n"));
		views[text.empty() ? 0 : whole ? 1 : 2]++;
		if (now() < half)
			continue;
		half = t0 + 2 * secs; // once: the reload, every worker paused
		std::ofstream(kPause).put('1');
		bool out = false;
		for (int i = 0;
		     i < 3000 && !(out = !syscall(SYS_delete_module, "drv_user_cfg", O_NONBLOCK));
		     i++)
			usleep(10000);
		check(out && access(kNode.c_str(), F_OK) && sh("modprobe drv_user_cfg") &&
			  hand_node_to_daemon() && !unlink(kPause.c_str()),
		      "drv_user_cfg unloaded and loaded again halfway, the workers paused");
	}
	inj[0].step(rng, true), inj[1].step(rng, true);
	close(go[1]);
	bool answered = true;
	for (Kid &k : kids) {
		std::istringstream in(reap(k, secs * 20 + 300));
		std::string line, done;
		while (std::getline(in, line))
			line.compare(0, 4, "done") ? say(line) : (void)(done = line);
		std::istringstream counts(done.substr(std::min<size_t>(done.size(), 4)));
		for (unsigned long &s : sum) {
			unsigned long x = 0;
			answered &= bool(counts >> x);
			s += x;
		}
	}
	bad += complaints(kmsg);
	put("/proc/sys/kernel/printk", level);
	std::string figures = cat("# ", secs, " s:");
	for (int i = 0; i < kCounts; i++)
		figures += cat(i ? ", " : " ", sum[i], " ", kCountNames[i]);
	for (int k = 0; k < 4; k++)
		fired += inj[0].fired[k] + inj[1].fired[k];
	unsigned long requests = sum[kGets] + sum[kSets] + sum[kClears];
	check(answered, "the final check with the faults off: every worker read every item");
	check(sum[kWrong] == 0, "no value outside its model, no unexplained error");
	check(requests >= 25 && fired > 0,
	      cat(requests, " requests made, ", fired, " faults fired"));
	check(bad == 0, "no kernel complaint in the log");
	check(views[1] > 0 && views[2] == 0,
	      cat("the view read meanwhile: ", views[1], " whole, none cut short"));
	say(figures);
	for (int k = 0; k < 4; k++)
		say(cat("# ", Injector::kinds[k], " armed/fired: ",
			inj[0].armed[k] + inj[1].armed[k], "/", inj[0].fired[k] + inj[1].fired[k]));
	say(cat("1..", g_tests));
	return g_failed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
	signal(SIGPIPE, SIG_IGN);
	std::vector<std::string> a(argv + 1, argv + argc);
	a.resize(std::max<size_t>(a.size(), 6));
	if (a[0] == "suite" || a[0] == "partial")
		return run_suite(a[1].empty() ? 15 : std::stoi(a[1]), a[0] == "partial");
	if (a[0] == "stress")
		return run_stress(std::stoull(a[1]), std::stod(a[2]));
	if (a[0] == "worker")
		return run_worker(std::stoi(a[1]), std::stoull(a[2]), std::stod(a[3]),
				  std::stoi(a[4]));
	if (a[0] == "badmem")
		return run_badmem(std::stoi(a[1]));
	if (a[0] == "read") { // PATH: its length, or -errno
		int fd = open(a[1].c_str(), O_RDONLY);
		return say(cat(fd < 0 ? -errno : long(slurp(a[1]).size()))), 0;
	}
	if (a[0] == "kcall")
		return say(kcall_on(std::stoi(a[1]), a[2])), 0;
	if (a[0] == "op") { // FD DEV CMD NAME HEX|@ROOM|-
		Bytes v;
		uint32_t room = a[5][0] == '@' ? uint32_t(std::stoul(a[5].substr(1))) : 0;
		for (size_t i = 0; a[5] != "-" && !room && i + 1 < a[5].size(); i += 2)
			v.push_back(uint8_t(std::stoul(a[5].substr(i, 2), nullptr, 16)));
		Result r =
		    item(std::stoi(a[1]), uint32_t(std::stoul(a[2])), uint32_t(std::stoul(a[3])),
			 a[4], v, room ? room : uint32_t(v.size()));
		return say(cat(r.code, " ", r.len, " ", hex(r.data))), 0;
	}
	if (a[0] == "as" && argc > 3) { // the image has no su
		uid_t uid = uid_t(std::stoul(a[1]));
		if (!setgroups(0, nullptr) && !setresgid(uid, uid, uid) &&
		    !setresuid(uid, uid, uid))
			execv(argv[3], argv + 3);
		return 1;
	}
	say("usage: vmtest suite [ATTEMPTS] | partial | stress SEED SECONDS");
	return 2;
}
