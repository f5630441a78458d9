// SPDX-License-Identifier: GPL-2.0
//
// The in-VM tests of drv_user_cfg: what only a real kernel shows. TAP on
// stdout; exits 0 only when every test passed.
//
//   vmtest suite [ATTEMPTS]   the main boot, with ATTEMPTS failed module starts
//   vmtest partial            the boot whose node lacks data_cpu_num
//   vmtest stress SEED SECS   daemons at once under flash faults
//
// and the processes those start; copies of this program at the daemons'
// paths run them under the daemons' uids: "set FD NAME HEX" (one set on
// device 0; prints its code), "kcall FD LINE", "read PATH", "worker ID SEED
// SECS GO-FD"; and "as UID PROGRAM [ARGS]" for the demo (the image has no su).
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
		  kFaults = "/tmp/stress-faults-dev",
		  kView = "/sys/kernel/debug/user_config/dev0";
constexpr uid_t kDaemonUid = 1101;
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

// The two head copies of device 0's flash alike, as they are at rest.
bool heads_alike()
{
	std::string area = slurp(knob(0, "area"));
	return area.size() > 33 * kBlock && !area.compare(0, kBlock, area, 32 * kBlock, kBlock);
}

struct Result {
	long code = 0; // 0, -errno, or the positive count of bytes not copied
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
	Result r{ret < 0 ? -errno : ret, {}};
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
	View view = View::host;
	bool admin = false; // keeps CAP_SYS_ADMIN (meaningful for uid 0 only)
};

const Who kDaemon{kDaemonExe, kDaemonUid}, kRoot{kSelf, 0, View::host, true};

// Becomes who and execs its program (returns only on failure). No
// supplementary groups; without admin CAP_SYS_ADMIN leaves the bounding set
// first, so that the exec does not grant it back to root. The sandbox is
// the daemon in a private mount namespace with its own /tmp, as a service
// manager's sandboxing gives it; the impostor another program at the
// daemon's path in a user and mount namespace of its own.
std::string exec_as(const Who &w, const std::vector<std::string> &args)
{
	std::string err;
	if (w.view == View::sandbox)
		err = private_mount("/tmp", false);
	if (err.empty() && ((!w.admin && prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN) != 0) ||
			    setgroups(0, nullptr) != 0 || setresgid(w.uid, w.uid, w.uid) != 0 ||
			    setresuid(w.uid, w.uid, w.uid) != 0))
		err = "cannot change identity";
	if (err.empty() && w.view == View::impostor)
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
	return reap(spawn([&] { return exec_as(w, args); }));
}

// A set on device 0 by another process on root's descriptor: its code.
long set_as(const Who &w, const std::string &name, const Bytes &v)
{
	std::string out = run(w, {"set", cat(g_fd), name, hex(v)});
	if (first(out) == 9999)
		say("#   the child said: " + out);
	return first(out);
}

// ---- the suite ----------------------------------------------------------------------

void test_loading(bool complete)
{
	group("loading and the device node");
	check(!access("/sys/module/sec_flash/holders/drv_user_cfg", F_OK) &&
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
		  trim(slurp("/sys/module/drv_user_cfg/version")) == version,
	      "modinfo: its description, licence GPL and version " + version);
	// The frame's messages: the host tests build everything but the frame.
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
	// The frame's own refusals, before any command runs: no address, and
	// numbers that differ from a command's in any field.
	std::string bad;
	for (unsigned long c : {0x80044301UL, 0x80044302UL, 0x80044304UL})
		if (ioctl(g_fd, c, 0UL) != -1 || errno != EINVAL)
			bad += cat(std::hex, c, " at 0; ");
	for (unsigned long c :
	     {0x80044300UL, 0x80044303UL, 0xC0384301UL, 0x40044301UL, 0x80084302UL})
		if (ioctl(g_fd, c, v) != -1 || errno != EINVAL)
			bad += cat(std::hex, c, "; ");
	check(bad.empty(), "address 0, and numbers of no command: -EINVAL", bad);
	void *hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	eq(cat(ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, hole), " ",
	       ioctl(g_fd, USER_CFG_IOC_DTS_CPU, hole), " ", ioctl(g_fd, USER_CFG_IOC_ITEM, hole)),
	   "4 12 56", "an unreadable user address: the positive count of bytes not copied");
}

// The image round trip: device 1 starts with the image ucfg-image made
// (/etc/image-items, line 2: "NAME TEXT"); the daemon leaves an item in
// device 0 for ucfg-image to read offline after the boot (line 1).
void test_image()
{
	group("the image round trip");
	std::istringstream in(slurp("/etc/image-items"));
	std::string ours, our_text, theirs, their_text;
	in >> ours >> our_text >> theirs >> their_text;
	Result r = get(theirs, USER_CFG_BUF_MAX, 1);
	eq(std::string(r.data.begin(), r.data.end()) + " " + hex(get("ssh_status", 1, 1).data),
	   their_text + " 01", "device 1 reads the named and the static item ucfg-image wrote");
	eq(set_as(kDaemon, ours, Bytes(our_text.begin(), our_text.end())), 0,
	   "the daemon stores " + ours + " for the offline check");
}

void test_authority()
{
	group("authority: real uids, executables, capabilities and namespaces");
	// A copy of the daemon under a path with a line end: the log line that
	// names it must not let the path forge a second line.
	const std::string odd = "/tmp/a\nb/devmgr_daemon";
	mkdir("/tmp/a\nb", 0755);
	install(kSelf, odd);
	// Each sets an item to a value of its size (2048 bytes for usershadow).
	const Who copy{odd, kDaemonUid}, impostor{kDaemonExe, kDaemonUid, View::impostor},
	    sandbox{kDaemonExe, kDaemonUid, View::sandbox};
	using Row = std::tuple<const char *, Who, const char *, long>;
	for (auto [what, who, name, want] : {
		 Row{"the daemon", kDaemon, "ssh_status", 0},
		 Row{"the daemon's file as uid 1000", {kDaemonExe, 1000}, "ssh_status", -EACCES},
		 Row{"a copy of it in /tmp/a\\nb as 1101", copy, "ssh_status", -EACCES},
		 Row{"root with CAP_SYS_ADMIN, not whitelisted", kRoot, "ssh_status", -EACCES},
		 Row{"root without CAP_SYS_ADMIN", {kSelf, 0}, "usershadow", -EACCES},
		 Row{"the impostor: another program at the daemon's path, as 1101 in a user and "
		     "mount namespace of its own",
		     impostor, "ssh_status", -EACCES},
		 Row{"the daemon in a mount namespace with its own /tmp", sandbox, "ssh_status", 0},
	     })
		eq(set_as(who, name, Bytes(std::string(name) == "usershadow" ? 2048 : 1, 1)), want,
		   cat(what, ": set ", name, ", ", want));
	const std::string fail = "match fail. (proc name=\"devmgr_daemon\";path=\"";
	check(in_log(fail + "/tmp/a\\nb/devmgr_daemon\";uid=1101)") == 1 &&
		  in_log(fail + "/var/devmgr_daemon\";uid=1101)") == 1,
	      "the copy and the impostor fail the identity stage, one escaped log line each");
}

// Root's records and data in unmapped, read-only and page-straddling
// memory: each request fails with the count of bytes not copied (a copy
// stopped by a fault reports at least the bytes in the bad page and at most
// all of them), leaves the length field alone when the content did not
// arrive, and changes no item. Sets aim at usershadow, gets at a named item.
void test_bad_memory()
{
	group("bad user memory");
	const size_t page = size_t(sysconf(_SC_PAGESIZE));
	const uint32_t ssz = 2048, dsz = 3000;
	const Bytes sval = pattern(ssz, 0x61), dval = pattern(dsz, 0x62);
	check(!item(g_fd, 0, SET, "usershadow", sval, ssz).code &&
		  !set_as(kDaemon, "bad.item", dval),
	      "root stores usershadow, the daemon a named item");
	const long rec = sizeof(user_cfg_para);
	struct Case {
		const char *what;
		bool record; // the record lies at the bad page, else the data
		int prot;    // of the bad page: PROT_NONE is unmapped
		size_t lead; // bytes before the bad page
		uint32_t cmd;
		long lo, hi; // accepted results
	} cases[] = {
	    {"set, record unmapped", true, PROT_NONE, 0, SET, rec, rec},
	    {"set, record straddling into an unmapped page", true, PROT_NONE, 20, SET, rec - 20,
	     rec},
	    {"get, record read-only: the content out, its length not", true, PROT_READ, 0, GET, 4,
	     4},
	    {"set, data unmapped", false, PROT_NONE, 0, SET, ssz, ssz},
	    {"get, data unmapped", false, PROT_NONE, 0, GET, dsz, dsz},
	    {"set, data straddling into an unmapped page", false, PROT_NONE, 100, SET, ssz - 100,
	     ssz},
	};
	for (const Case &c : cases) {
		// A set offers a value the item must not take; a get more room
		// than the content, so that a length written back shows.
		const uint32_t room = c.cmd == SET ? ssz : dsz + 100;
		Bytes good = c.cmd == SET ? pattern(ssz, 0x7e) : Bytes(room, 0);
		auto *m = static_cast<uint8_t *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		uint8_t *part = m + page - c.lead, *data = c.record ? good.data() : part;
		user_cfg_para q{}, *p = c.record ? reinterpret_cast<user_cfg_para *>(part) : &q;
		std::memcpy(data, good.data(), c.record ? 0 : room);
		q.cmd = c.cmd;
		std::strcpy(q.name, c.cmd == SET ? "usershadow" : "bad.item");
		q.buf_size = room;
		q.buf = reinterpret_cast<uintptr_t>(data);
		std::memmove(static_cast<void *>(p), &q, sizeof(q));
		c.prot == PROT_NONE ? munmap(m + page, page) : mprotect(m + page, page, PROT_READ);
		long r = ioctl(g_fd, USER_CFG_IOC_ITEM, p);
		r = r < 0 ? -errno : r;
		uint32_t field = room; // left alone whenever the content did not arrive
		if (!c.record || c.prot == PROT_READ)
			std::memcpy(
			    &field,
			    reinterpret_cast<uint8_t *>(p) + offsetof(user_cfg_para, buf_size), 4);
		check(r >= c.lo && r <= c.hi && field == room &&
			  get("usershadow", ssz).data == sval &&
			  get("bad.item", USER_CFG_BUF_MAX).data == dval &&
			  (c.prot == PROT_NONE || Bytes(good.begin(), good.begin() + dsz) == dval),
		      c.what,
		      cat("got ", r, ", want ", c.lo, "..", c.hi, "; buf_size field ", field,
			  "; or the items changed"));
		munmap(m, c.prot == PROT_NONE ? page : 2 * page);
	}
}

void test_kernel_api()
{
	group("the kernel API through the test module");
	check(sh("modprobe ucfg_probe") && kcall("get 0 p2p_mem_cfg 4") == "0 4 04000000",
	      "the test module loads against the exports, gets p2p_mem_cfg by name");
	using Call = std::tuple<std::string, long, bool, const char *>; // line, result, sleeps
	for (auto [line, want, sleeps, what] :
	     {Call{"set 0 k.item " + hex(pattern(500, 0x42)), 0, true, "a set of a named item"},
	      Call{"set 2 ssh_status 01", -EINVAL, false, "a set on device 2 of 2, refused"}}) {
		std::string r = kcall(line);
		check(first(r) == want && (first(r.substr(r.find(' ') + 1)) >= 100) == sleeps,
		      cat(what, ": ", want, sleeps ? ", then 100 ms asleep" : ", at once"), r);
	}
	eq(cat(first(kcall("set 0 cpu_num_cfg 03050600" + std::string(24, '0'))), "; ",
	       kcall("cpu_cfg 0 12")),
	   "0; 0 3 5 6 3735928559",
	   "dev_user_cfg_get_cpu_cfg: the numbers stored by name, in 12 bytes");
	// whitelist_process_handler judges the process that makes the call.
	int fd = open(kCall.c_str(), O_RDWR);
	using Judge = std::tuple<const Who *, const char *, const char *, const char *>;
	for (auto [who, list, want, what] :
	     {Judge{&kDaemon, "devmgr_daemon", "0", "the daemon"},
	      Judge{&kDaemon, "sched_daemon", "-1", "the daemon, not in the list"},
	      Judge{&kRoot, "vmtest", "-6", "root's vmtest, in the list but no daemon"}})
		eq(run(*who, {"kcall", cat(fd), cat("whitelist ", list)}), std::string(want),
		   cat("whitelist_process_handler(", list, ") called by ", what));
	close(fd);
}

bool mk(const std::string &dir) { return mkdir((kCpuset + dir).c_str(), 0755) == 0; }

void test_cpusets()
{
	group("CPU partition from real cgroup v1 cpusets");
	eq(first(kcall("cpu_number 0")), -EINVAL, "no cpuset hierarchy: -EINVAL");
	// A FIFO at the path the module reads, in the host's own namespace:
	// nobody writes to it, so a read would wait for ever.
	bool fifo = mount("none", kCgroup.c_str(), "tmpfs", 0, nullptr) == 0 && mk("") &&
		    mk("/CtrlCPU") && mkfifo((kCpuset + "/CtrlCPU/cpuset.cpus").c_str(), 0644) == 0;
	double t0 = now();
	std::string r = reap(spawn([] { return kcall("cpu_number 0"); }), 5);
	check(fifo && first(r) == -EINVAL && now() - t0 < 3,
	      "a FIFO at a cpuset file's path: -EINVAL at once, no waiting",
	      cat("result '", r, "' after ", now() - t0, " s"));
	umount(kCgroup.c_str());
	bool made = !mount("cgroup", kCgroup.c_str(), "tmpfs", 0, nullptr) && mk("") &&
		    !mount("none", kCpuset.c_str(), "cgroup", 0, "cpuset") && mk("/CtrlCPU") &&
		    mk("/DataCPU") && mk("/AICPU") &&
		    !put(kCpuset + "/CtrlCPU/cpuset.cpus", "0-1,3") &&
		    !put(kCpuset + "/DataCPU/cpuset.cpus", "2-3");
	eq(cat(made, " ", kcall("cpu_number 0")), "1 0 2 1 2 1 0 1 0 0",
	   "real cpusets: device 0's numbers, the empty AICPU 0, read anew after the failures");
	put(kCpuset + "/AICPU/cpuset.cpus", "0-3");
	eq(kcall("cpu_number 0"), "0 2 1 2 1 0 1 0 0", "the files are read once per module life");

	// After a reload the first caller sits in a mount namespace of its own
	// whose cpuset files say something else: the host's files count.
	close(g_fd);
	check(sh("rmmod ucfg_probe && rmmod drv_user_cfg && modprobe ucfg_probe") && open_node(),
	      "drv_user_cfg reloaded (the test module pulls it in)");
	std::string own = reap(spawn([] {
		std::string err = private_mount(kCpuset, false);
		for (const char *g : {"/CtrlCPU", "/DataCPU", "/AICPU"})
			if (err.empty() &&
			    !(mk(g) && std::ofstream(kCpuset + g + "/cpuset.cpus") << "0-7\n"))
				err = "no files";
		return err.empty() ? kcall("cpu_number 0") : err;
	}));
	eq(own, "0 2 1 2 1 4 1 0 0",
	   "the first caller after it, in a mount namespace with other files: the host's numbers");
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
	// What the suite stored so far, as root lists it.
	std::istringstream in(slurp("/etc/image-items"));
	std::string ours, our_text, listed = slurp(kView);
	in >> ours >> our_text;
	auto shown = [&listed](const std::string &name, size_t n) {
		std::istringstream lines(listed);
		for (std::string l; std::getline(lines, l);)
			if (l.size() >= name.size() + 6 &&
			    l.substr(l.size() - name.size() - 6) == " name=" + name)
				return count(l, cat(" ok ok size=", n, " block=")) == 1;
		return false;
	};
	check(shown("k.item", 500) && shown(ours, our_text.size()) &&
		  count(listed, "head main valid\nhead backup valid\nin_use main\ncopies same\n"),
	      "the view lists the named items stored, both copies intact", listed);
	int fd = open(knob(0, "area").c_str(), O_WRONLY);
	bool hit = pwrite(fd, "garbage!garbage!", 16, 100) == 16;
	close(fd);
	put(knob(0, "writes"), "0");
	std::string text = slurp(kView);
	check(hit && count(text, "head main bad-check\nhead backup valid\n") &&
		  count(text, "\nspace blocks=") && num(knob(0, "writes")) == 0 && !heads_alike(),
	      "garbage in the main head at rest: the view shows it and writes nothing", text);
	check(get("ssh_status", 1).code == 0 && count(slurp(kView), "head main valid\n") &&
		  heads_alike(),
	      "the next request repairs the copy, and the view shows it");
}

void test_control_module()
{
	group("the control module");
	bool out = sh("rmmod orvane_ctl");
	uint32_t boot = 0;
	long rb = ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, &boot);
	eq(cat(out, " ", get("ssh_status", 1).code, " ", first(kcall("get 0 ssh_status 1")), " ",
	       rb, " ", boot),
	   cat("1 ", -EINVAL, " ", -EINVAL, " 0 32"),
	   "unloaded under drv_user_cfg: a get and the kernel API -EINVAL, the boot query served");
	check(sh("modprobe orvane_ctl") && get("ssh_status", 1).code == 0,
	      "loaded again: requests served");
}

void test_reload()
{
	group("unload and reload");
	bool probe_out = sh("rmmod ucfg_probe");
	errno = 0;
	long a = syscall(SYS_delete_module, "drv_user_cfg", O_NONBLOCK), ea = errno;
	long b = syscall(SYS_delete_module, "sec_flash", O_NONBLOCK);
	eq(cat(probe_out, " ", a, " ", ea, " ", b, " ", errno),
	   cat("1 -1 ", EWOULDBLOCK, " -1 ", EWOULDBLOCK),
	   "an open node pins drv_user_cfg, and drv_user_cfg pins sec_flash");
	auto store = [] {
		return hex(get("k.item", USER_CFG_BUF_MAX).data) +
		       hex(get("usershadow", 2048).data);
	};
	const std::string before = store();
	const unsigned long long writes = num(knob(0, "writes"));
	const size_t exits = in_log("User cfg drv clean ok.");
	std::string bad;
	for (int i = 0; i < 3; i++) {
		struct stat st {};
		close(g_fd);
		if (!sh("rmmod drv_user_cfg") || !access(kNode.c_str(), F_OK) ||
		    !sh("modprobe drv_user_cfg") || stat(kNode.c_str(), &st) ||
		    (st.st_mode & 07777) != 0600 || !open_node() || store() != before)
			bad += cat("round ", i, " failed\n");
	}
	check(bad.empty() && num(knob(0, "writes")) == writes &&
		  in_log("User cfg drv clean ok.") - exits == 3,
	      "three rounds of rmmod and modprobe: the node goes and comes back 0600, the store "
	      "unchanged, nothing written, each exit logged",
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
	const size_t logged = in_log("Register platform driver failed. (ret=-16)");
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
		eq(hex(get("cpu_num_cfg", 16).data), "01020400" + std::string(24, '0'),
		   "cpu_num_cfg's default comes from the control module, not the node");
	if (up && !partial) {
		test_image();
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
// Several daemon processes make random requests on named items of both
// devices at once while the flash stand-in fails, damages and powers off
// transfers under them, with a module reload in the middle. Each worker
// models the items it alone writes: a request that succeeded fixes the
// value; one that failed with -ENODEV may or may not have reached the flash,
// so the item may read as its old or its new value until the next
// successful write. Anything else (a value outside the model, another
// error, -ENODEV with the faults off) is a fault of the module, with one
// exception, the store's documented limit: once two faults have fired on
// the device since an item's last successful write, a second fault may have
// struck before the copies agreed again, and the item may be gone (-ENOENT),
// unreadable (-ENXIO) or back at one of its own earlier values; never
// another item's bytes. Such reads are counted. The injector waits for the
// store to write on between two faults, so that most reads stay within one.

using Value = std::optional<Bytes>; // nullopt: not stored
constexpr int kWorkers = 4;
enum { kRequests, kByFault, kWrong, kSecond, kCounts };

std::string show(const Value &v)
{
	return v ? cat(v->size(), " bytes ",
		       hex(Bytes(v->begin(), v->begin() + std::min<size_t>(v->size(), 6))))
		 : "absent";
}

struct Item {
	uint32_t dev;
	std::string name;
	std::vector<Value> allowed; // what it may read as now
	std::vector<Value> history; // what it was allowed to be lately
	unsigned long since = 0; // the device's faults at its last successful write
};


struct Worker {
	int id, fd = -1; // the node, open for one request
	std::mt19937_64 rng;
	std::vector<Item> items;
	unsigned long c[kCounts] = {};

	// Five named items per device, the last with a name of exactly 32 bytes.
	Worker(int id, uint64_t seed) : id(id), rng(seed * 1000003u + unsigned(id))
	{
		for (uint32_t d = 0; d < 2; d++)
			for (int j = 0; j < 5; j++) {
				std::string n = cat(
				    "w", id, j < 4 ? ".item" : ".a-name-of-exactly-32-bytes", j);
				n.resize(j < 4 ? n.size() : USER_CFG_NAME_LEN, 'x');
				items.push_back({d, n, {Value()}, {Value()}, 0});
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
		c[kRequests]++;
		Result r = item(fd, it.dev, GET, it.name, {}, USER_CFG_BUF_MAX);
		bool ok = false, own = false;
		for (const Value &v : it.allowed)
			ok |= v ? r.code == 0 && r.data == *v : r.code == -ENOENT;
		for (const Value &v : it.history)
			own |= r.code == 0 && v && r.data == *v;
		if (!ok) // a fault that fired in this request is counted within ms
			usleep(50000);
		if (!ok && num(cat(kFaults, it.dev)) >= it.since + 2 &&
		    (own || r.code == -ENOENT || r.code == -ENXIO)) {
			c[kSecond]++;
			if (r.code != -ENXIO)
				it.allowed.push_back(r.code ? Value() : Value(r.data));
		} else if (!ok) {
			by_fault(it, "get", r, off);
		}
	}

	// A set of a random value, or a clear. An interrupted clear may also
	// leave 0xff bytes of the old length: the clear writes them, with a
	// valid check code, into the main slot before the main head drops the
	// record, and a head that still lists the record then reads them.
	void change(Item &it, bool clear)
	{
		c[kRequests]++;
		size_t r = pick(10), n = 1 + pick(r < 6 ? 256 : r < 9 ? 4096 : 32768);
		Value v = clear ? Value() : Bytes(n);
		for (; !clear && n--;)
			(*v)[n] = uint8_t(rng());
		unsigned long f0 = num(cat(kFaults, it.dev));
		Result res = item(fd, it.dev, clear ? CLEAR : SET, it.name, v.value_or(Bytes()),
				  clear ? 0 : uint32_t(v->size()));
		size_t absent = std::count(it.allowed.begin(), it.allowed.end(), Value());
		std::vector<Value> old = it.allowed;
		if (!res.code && (!clear || old.size() > absent)) {
			it.allowed = {v};
			it.since = f0;
		} else if (clear && res.code == -ENOENT && absent) {
			// Gone from the main head, but a backup head left behind by
			// an interrupted write may still name it until the next
			// head write: what the model allowed stays allowed.
		} else if (by_fault(it, clear ? "clear" : "set " + show(v), res, false)) {
			if (std::find(old.begin(), old.end(), v) == old.end())
				it.allowed.push_back(v);
			for (const Value &o : old)
				if (clear && o)
					it.allowed.push_back(Bytes(o->size(), 0xff));
		}
		for (const Value &a : it.allowed)
			if (std::find(it.history.begin(), it.history.end(), a) == it.history.end())
				it.history.push_back(a);
		if (it.history.size() > 16) // the recent ones: a stale copy is recent
			it.history.erase(it.history.begin(), it.history.end() - 16);
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
		w.get(it, true);
	for (unsigned long x : w.c)
		answer += cat(" ", x);
	say(answer);
	return 0;
}

// The faults of one device, one at a time: armed to hit one of the next few
// transfers, disarmed as soon as it fired (which powers the flash back on
// after a power cut: with the power off every request fails at once). A
// countdown that reads 0 has fired. The next is armed a random while later
// and only after the device took 40 more block writes, so that a slow
// kernel gets as many faults per request as a fast one. The faults fired so
// far are in kFaults for the workers.
struct Injector {
	static constexpr const char *kinds[] = {"fail_read", "fail_write", "corrupt_write",
						"power_cut"};
	int dev = 0, kind = -1;
	double until = 0;
	unsigned long fired[4] = {}, all = 0;
	unsigned long long settle = 0;

	void step(std::mt19937_64 &rng, bool end)
	{
		bool hit = kind >= 0 && num(knob(dev, kinds[kind])) == 0;
		if (kind >= 0 && (hit || end)) {
			fired[kind] += hit;
			put(knob(dev, kinds[kind]), "0");
			put(knob(dev, "power_off"), "0");
			kind = -1;
			all += hit;
			std::ofstream(cat(kFaults, dev, ".new")) << all; // whole, for readers
			rename(cat(kFaults, dev, ".new").c_str(), cat(kFaults, dev).c_str());
			settle = num(knob(dev, "writes")) + 40;
			until = now() + std::uniform_real_distribution<double>(0.05, 0.4)(rng);
		} else if (kind < 0 && !end && now() >= until && num(knob(dev, "writes")) >= settle) {
			kind = int(rng() % 4);
			put(knob(dev, kinds[kind]), cat(1 + rng() % 4));
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

// The node belongs to root; the workers open it as its owner.
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
	say(cat("# seed ", seed, ", ", secs, " s, ", kWorkers, " daemon workers, devices 0 and 1"));
	// The workers' models start from blank flash: no item stored.
	install(kSelf, kDaemonExe);
	put(knob(0, "area"), std::string(64 * kBlock, '\xff'));
	put(knob(1, "area"), std::string(64 * kBlock, '\xff'));
	// Every failed request is logged at error level and would flood the
	// console; the log is read here instead, and an oops reaches the console.
	std::string level = slurp("/proc/sys/kernel/printk").substr(0, 1);
	put("/proc/sys/kernel/printk", "1");
	int kmsg = open("/dev/kmsg", O_RDONLY | O_NONBLOCK), go[2];
	unsigned long bad = 0, sum[kCounts] = {}, views[3] = {};
	check(kmsg >= 0 && hand_node_to_daemon() && sh("rmmod ucfg_probe; true") && !pipe(go) &&
		  !fcntl(go[1], F_SETFD, FD_CLOEXEC),
	      "the kernel log is readable, the node handed to the daemon");
	std::vector<Kid> kids;
	for (int id = 0; id < kWorkers; id++)
		kids.push_back(spawn([&] {
			return exec_as(kDaemon,
				       {"worker", cat(id), cat(seed), cat(secs), cat(go[0])});
		}));
	std::mt19937_64 rng(seed);
	Injector inj[2];
	inj[1].dev = 1;
	for (double t0 = now(), half = t0 + secs / 2; now() < t0 + secs; usleep(5000)) {
		// The last fifth is free of faults, so that most items end settled.
		for (Injector &i : inj)
			i.step(rng, now() > t0 + secs * 0.8);
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
	for (Injector &i : inj)
		i.step(rng, true);
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
	std::string fired;
	unsigned long all = 0;
	for (int k = 0; k < 4; k++) {
		unsigned long n = inj[0].fired[k] + inj[1].fired[k];
		fired += cat(k ? ", " : " ", Injector::kinds[k], " ", n);
		all += n;
	}
	check(answered, "the final check with the faults off: every worker read every item");
	check(sum[kWrong] == 0, cat("no value outside its model, no unexplained error (",
				     sum[kSecond], " reads after a second fault, within its limit)"));
	check(sum[kRequests] >= 25 && all > 0,
	      cat(sum[kRequests], " requests made, ", sum[kByFault],
		  " failed by a fault; faults fired:", fired));
	check(bad == 0, "no kernel complaint in the log");
	check(views[1] > 0 && views[2] == 0,
	      cat("the view read meanwhile: ", views[1], " whole, none cut short"));
	say(cat("1..", g_tests));
	return g_failed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
	signal(SIGPIPE, SIG_IGN);
	std::vector<std::string> a(argv + 1, argv + argc);
	a.resize(std::max<size_t>(a.size(), 5));
	if (a[0] == "suite" || a[0] == "partial")
		return run_suite(a[1].empty() ? 15 : std::stoi(a[1]), a[0] == "partial");
	if (a[0] == "stress")
		return run_stress(std::stoull(a[1]), std::stod(a[2]));
	if (a[0] == "worker")
		return run_worker(std::stoi(a[1]), std::stoull(a[2]), std::stod(a[3]),
				  std::stoi(a[4]));
	if (a[0] == "read") { // PATH: its length, or -errno
		int fd = open(a[1].c_str(), O_RDONLY);
		return say(cat(fd < 0 ? -errno : long(slurp(a[1]).size()))), 0;
	}
	if (a[0] == "kcall")
		return say(kcall_on(std::stoi(a[1]), a[2])), 0;
	if (a[0] == "set") { // FD NAME HEX
		Bytes v;
		for (size_t i = 0; i + 1 < a[3].size(); i += 2)
			v.push_back(uint8_t(std::stoul(a[3].substr(i, 2), nullptr, 16)));
		return say(cat(item(std::stoi(a[1]), 0, SET, a[2], v, uint32_t(v.size())).code)), 0;
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
