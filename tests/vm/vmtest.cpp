// SPDX-License-Identifier: GPL-2.0
//
// In-VM tests of drv_user_cfg: what only a real kernel can show. Prints TAP
// on stdout and exits 0 only when every test passed.
//
//   vmtest suite        the main run (device-tree node complete)
//   vmtest partial      the boot whose node lacks "data_cpu_num"
//   vmtest op FD DEV CMD NAME [HEX|@SIZE]
//                       one item request on the inherited descriptor FD;
//                       prints "RET ERRNO BUF_SIZE HEXDATA" (used as the
//                       body of the trusted-daemon copies)
//   vmtest as UID PROGRAM [ARGS...]
//                       runs PROGRAM as UID (the image has no su)
//   vmtest kcall FD LINE
//                       one call of the test module's call file, opened by
//                       the parent and inherited; prints the result line
//   vmtest badmem FD    item requests with records and data in unmapped,
//                       read-only and page-straddling memory (run as the
//                       daemon); prints one "T OK NAME|DIAG" line per case
//
// The binary is copied to /var/devmgr_daemon and friends and started there
// under other uids and capabilities by run_as(): the whitelist looks at the
// executable's real path, so the copies are the daemons.
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "uapi/user_cfg.h"
#include "vmio.h"

namespace {

using vmio::put;
using vmio::sh;

using Bytes = std::vector<uint8_t>;

constexpr const char *kNode = "/dev/user_config";
constexpr const char *kFlash = "/sys/kernel/debug/sec_flash/dev";
constexpr const char *kCall = "/sys/kernel/debug/ucfg_probe/call";
constexpr const char *kCtl = "/sys/module/orvane_ctl/parameters/";
constexpr size_t kBlock = 65536;
constexpr int kDaemonUid = 1101;
constexpr int kSchedUid = 1000;

// ---- TAP -----------------------------------------------------------------

int g_count;
int g_failed;

bool check(bool ok, const std::string &name, const std::string &diag = "")
{
	++g_count;
	std::printf("%s %d - %s\n", ok ? "ok" : "not ok", g_count, name.c_str());
	if (!ok) {
		++g_failed;
		std::istringstream in(diag);
		for (std::string line; std::getline(in, line);)
			std::printf("#   %s\n", line.c_str());
	}
	std::fflush(stdout);
	return ok;
}

template <typename T> std::string str(const T &v)
{
	std::ostringstream o;
	o << v;
	return o.str();
}

bool expect_eq(long got, long want, const std::string &name)
{
	return check(got == want, name,
		     "got " + str(got) + ", want " + str(want));
}

bool expect_str(const std::string &got, const std::string &want,
		const std::string &name)
{
	return check(got == want, name,
		     "got '" + got + "', want '" + want + "'");
}

void group(const char *title)
{
	std::printf("# --- %s\n", title);
}

// ---- helpers ---------------------------------------------------------------

std::string hex(const Bytes &b)
{
	static const char d[] = "0123456789abcdef";
	std::string s;
	for (uint8_t c : b) {
		s += d[c >> 4];
		s += d[c & 15];
	}
	return s;
}

Bytes unhex(const std::string &s)
{
	Bytes b;
	for (size_t i = 0; i + 1 < s.size(); i += 2)
		b.push_back(static_cast<uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
	return b;
}

Bytes pattern(size_t n, uint8_t seed)
{
	Bytes b(n);
	for (size_t i = 0; i < n; i++)
		b[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
	return b;
}

std::string slurp(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	std::ostringstream o;
	o << f.rdbuf();
	return o.str();
}

std::string trim(std::string s)
{
	while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
		s.pop_back();
	return s;
}

bool module_loaded(const std::string &name)
{
	std::istringstream in(slurp("/proc/modules"));
	for (std::string line; std::getline(in, line);)
		if (line.compare(0, name.size() + 1, name + " ") == 0)
			return true;
	return false;
}

std::string kernel_log()
{
	int size = klogctl(10, nullptr, 0);
	std::string buf(static_cast<size_t>(size > 0 ? size : 1 << 20), '\0');
	int n = klogctl(3, buf.data(), static_cast<int>(buf.size()));
	buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
	return buf;
}

size_t count_in_log(const std::string &needle)
{
	std::string log = kernel_log();
	size_t n = 0;
	for (size_t p = log.find(needle); p != std::string::npos;
	     p = log.find(needle, p + 1))
		n++;
	return n;
}

// ---- flash stand-in ----------------------------------------------------------

std::string flash(int dev, const char *file)
{
	return std::string(kFlash) + str(dev) + "/" + file;
}

Bytes area(int dev = 0)
{
	std::string s = slurp(flash(dev, "area"));
	return Bytes(s.begin(), s.end());
}

Bytes block(const Bytes &a, size_t b)
{
	if (a.size() < (b + 1) * kBlock)
		return {};
	return Bytes(a.begin() + static_cast<long>(b * kBlock),
		     a.begin() + static_cast<long>((b + 1) * kBlock));
}

bool blank(const Bytes &b)
{
	for (uint8_t c : b)
		if (c != 0xff)
			return false;
	return !b.empty();
}

unsigned long long counter(int dev, const char *name)
{
	return std::strtoull(slurp(flash(dev, name)).c_str(), nullptr, 10);
}

// Damages len bytes at offset of the area at rest.
bool damage(int dev, size_t offset, size_t len)
{
	int fd = open(flash(dev, "area").c_str(), O_WRONLY);
	if (fd < 0)
		return false;
	Bytes junk = pattern(len, 0x5a);
	bool ok = pwrite(fd, junk.data(), len, static_cast<off_t>(offset)) ==
		  static_cast<ssize_t>(len);
	close(fd);
	return ok;
}

// ---- item requests -----------------------------------------------------------

struct Result {
	long ret = 0;
	int err = 0;
	uint32_t buf_size = 0;
	Bytes data;
	// The ioctl's result as the driver returned it: -errno or a count.
	long code() const { return ret < 0 ? -err : ret; }
};

Result item(int fd, uint32_t dev, uint32_t cmd, const std::string &name,
	    const Bytes &in, uint32_t size)
{
	user_cfg_para p{};
	p.device_id = dev;
	p.cmd = cmd;
	p.cfg_index = 3; // ignored by the driver
	std::memcpy(p.name, name.data(), std::min(name.size(), sizeof(p.name)));
	Bytes buf = in;
	if (buf.size() < size)
		buf.resize(size);
	p.buf_size = size;
	p.buf = size ? reinterpret_cast<uintptr_t>(buf.data()) : 0;
	Result r;
	r.ret = ioctl(fd, USER_CFG_IOC_ITEM, &p);
	r.err = r.ret < 0 ? errno : 0;
	r.buf_size = p.buf_size;
	if (r.ret == 0 && cmd == USER_CFG_CMD_GET)
		r.data.assign(buf.begin(),
			      buf.begin() + std::min<size_t>(p.buf_size, buf.size()));
	return r;
}

int g_fd = -1; // root's descriptor of the node, inherited by the children

bool open_node()
{
	g_fd = open(kNode, O_RDWR);
	return g_fd >= 0;
}

Result get(const std::string &name, uint32_t size, uint32_t dev = 0)
{
	return item(g_fd, dev, USER_CFG_CMD_GET, name, {}, size);
}

Result set(const std::string &name, const Bytes &v, uint32_t dev = 0)
{
	return item(g_fd, dev, USER_CFG_CMD_SET, name, v,
		    static_cast<uint32_t>(v.size()));
}

// A process started by run_as(): executable, identity, capability.
struct Who {
	std::string exe;
	uid_t uid;
	bool sys_admin; // keep CAP_SYS_ADMIN (only meaningful for uid 0)
	std::string label;
};

const Who kDaemon{"/var/devmgr_daemon", kDaemonUid, false, "devmgr_daemon/1101"};
const Who kRootNoAdmin{"/bin/vmtest", 0, false, "root without CAP_SYS_ADMIN"};
const Who kRoot{"/bin/vmtest", 0, true, "root with CAP_SYS_ADMIN"};

// Runs who.exe with args in a child: no supplementary groups, real and
// effective ids who.uid, and for root without CAP_SYS_ADMIN the capability
// dropped from the bounding set so that the exec does not grant it back.
std::string run_as(const Who &who, const std::vector<std::string> &args)
{
	int pipefd[2];
	if (pipe(pipefd) != 0)
		return "pipe failed";
	pid_t pid = fork();
	if (pid == 0) {
		dup2(pipefd[1], 1);
		close(pipefd[0]);
		if (!who.sys_admin && prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN) != 0)
			_exit(120);
		if (setgroups(0, nullptr) != 0 ||
		    setresgid(who.uid, who.uid, who.uid) != 0 ||
		    setresuid(who.uid, who.uid, who.uid) != 0)
			_exit(121);
		std::vector<char *> argv;
		argv.push_back(const_cast<char *>(who.exe.c_str()));
		for (const auto &a : args)
			argv.push_back(const_cast<char *>(a.c_str()));
		argv.push_back(nullptr);
		execv(who.exe.c_str(), argv.data());
		_exit(122);
	}
	close(pipefd[1]);
	std::string out;
	char buf[4096];
	for (ssize_t n; (n = read(pipefd[0], buf, sizeof(buf))) > 0;)
		out.append(buf, static_cast<size_t>(n));
	close(pipefd[0]);
	int st = 0;
	waitpid(pid, &st, 0);
	if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
		out += " (child exit " + str(WIFEXITED(st) ? WEXITSTATUS(st) : -1) + ")";
	return trim(out);
}

// An item request made by another process; returns the driver's code.
long op_as(const Who &who, uint32_t cmd, const std::string &name,
	   const Bytes &v = {}, uint32_t size = 0, uint32_t dev = 0)
{
	std::string data = size ? "@" + str(size) : hex(v);
	std::string out = run_as(who, {"op", str(g_fd), str(dev), str(cmd), name,
				       data.empty() ? "-" : data});
	long ret = 0, err = 0;
	if (std::sscanf(out.c_str(), "%ld %ld", &ret, &err) != 2) {
		std::printf("#   child said: %s\n", out.c_str());
		return 9999;
	}
	return ret < 0 ? -err : ret;
}

// ---- the test module ------------------------------------------------------

std::string kcall_on(int fd, const std::string &line)
{
	if (pwrite(fd, line.data(), line.size(), 0) < 0)
		return "write-error " + str(errno);
	char buf[70000];
	ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
	if (n < 0)
		return "read-error " + str(errno);
	return trim(std::string(buf, static_cast<size_t>(n)));
}

std::string kcall(const std::string &line)
{
	int fd = open(kCall, O_RDWR);
	if (fd < 0)
		return "open-error " + str(errno);
	std::string r = kcall_on(fd, line);
	close(fd);
	return r;
}

long first_field(const std::string &s)
{
	char *end = nullptr;
	long v = std::strtol(s.c_str(), &end, 10);
	return end == s.c_str() ? 9999 : v;
}

// ---- reference values ------------------------------------------------------

struct StaticItem {
	const char *name;
	uint32_t size;
	Bytes def;
};

Bytes zeros(size_t n) { return Bytes(n, 0); }

Bytes cpu_value(uint8_t c, uint8_t d, uint8_t a)
{
	Bytes v(16, 0);
	v[0] = c;
	v[1] = d;
	v[2] = a;
	return v;
}

std::vector<StaticItem> static_items()
{
	return {
		{"cpu_num_cfg", 16, cpu_value(1, 2, 4)},
		{"p2p_mem_cfg", 4, {0x04, 0x00, 0x00, 0x00}},
		{"ddr_ecc_enable", 1, {0x01}},
		{"ccpu_usr_cert_hash", 1024, zeros(1024)},
		{"usershadow", 2048, zeros(2048)},
		{"ssh_status", 1, {0x00}},
	};
}

// ---- test groups -------------------------------------------------------------

void test_loading(bool complete_node)
{
	group("loading and the device node");
	check(module_loaded("drv_user_cfg"),
	      "drv_user_cfg loaded by the coldplug pass for the device-tree node");
	check(access("/sys/module/sec_flash/holders/drv_user_cfg", F_OK) == 0,
	      "sec_flash came in as its dependency and holds it");
	std::string bound;
	std::string drv = "/sys/bus/platform/drivers/vexa-user-cfg";
	FILE *ls = popen(("ls " + drv).c_str(), "r");
	if (ls) {
		char line[256];
		while (std::fgets(line, sizeof(line), ls))
			if (std::strstr(line, "user"))
				bound = trim(line);
		pclose(ls);
	}
	std::string alias = trim(slurp(drv + "/" + bound + "/modalias"));
	check(!bound.empty() && alias.find("Cvexa-user-cfg") != std::string::npos,
	      "the platform driver is bound to the node",
	      "bound '" + bound + "' modalias '" + alias + "'");

	struct stat st {};
	int sr = stat(kNode, &st);
	unsigned major = 0;
	std::istringstream devs(slurp("/proc/devices"));
	for (std::string line; std::getline(devs, line);) {
		unsigned m;
		char name[64];
		if (std::sscanf(line.c_str(), "%u %63s", &m, name) == 2 &&
		    std::strcmp(name, "user_config") == 0)
			major = m;
	}
	check(sr == 0 && S_ISCHR(st.st_mode) && (st.st_mode & 07777) == 0600 &&
		      st.st_uid == 0 && ::major(st.st_rdev) == major && major,
	      "/dev/user_config is a char device of user_config, mode 0600",
	      "mode " + str(std::oct) + str(st.st_mode & 07777) +
		      " major " + str(::major(st.st_rdev)) + " registered " + str(major));
	check(trim(slurp("/sys/class/user_cfg_dev_class/user_config/dev")) ==
		      str(major) + ":" + str(::minor(st.st_rdev)),
	      "the class user_cfg_dev_class carries the node");

	struct utsname_buf {
		char s[6][65];
	} u;
	syscall(SYS_uname, &u);
	std::string ko = slurp(std::string("/lib/modules/") + u.s[2] +
			       "/extra/drv_user_cfg.ko");
	auto tag = [&ko](const std::string &t) {
		return ko.find(t + '\0') != std::string::npos;
	};
	check(tag("description=dev firmware user configure driver") && tag("license=GPL"),
	      "modinfo: description and licence GPL");
	std::string taint = trim(slurp("/sys/module/drv_user_cfg/taint"));
	check(taint.find('P') == std::string::npos,
	      "the kernel sees a GPL module (no proprietary taint)", "taint " + taint);

	std::string log = kernel_log();
	check(log.find("User config probe.") != std::string::npos &&
		      log.find("Set the value of devnode to 0600.") != std::string::npos &&
		      log.find("[orvane] [user_cfg_drv] [dev_user_cfg_probe ") !=
			      std::string::npos,
	      "probe and devnode hook logged with the system's prefix");
	if (complete_node)
		check(log.find("Dts data cpu num. (num=2)") != std::string::npos,
		      "probe read the device-tree numbers");
}

void test_frame(uint32_t want_boot, std::vector<uint32_t> want_dts)
{
	group("device-file commands");
	uint32_t boot[2] = {0xaaaaaaaa, 0xaaaaaaaa};
	long r = ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, boot);
	check(r == 0 && boot[0] == want_boot && boot[1] == 0xaaaaaaaa,
	      "boot configuration is exactly " + str(want_boot) + ", 4 bytes",
	      "ret " + str(r) + " value " + str(boot[0]) + " next " + str(boot[1]));
	uint32_t dts[4] = {9, 9, 9, 0xaaaaaaaa};
	r = ioctl(g_fd, USER_CFG_IOC_DTS_CPU, dts);
	check(r == 0 && dts[0] == want_dts[0] && dts[1] == want_dts[1] &&
		      dts[2] == want_dts[2] && dts[3] == 0xaaaaaaaa,
	      "device-tree CPU record " + str(want_dts[0]) + "," + str(want_dts[1]) +
		      "," + str(want_dts[2]) + ", 12 bytes",
	      "ret " + str(r) + " got " + str(dts[0]) + "," + str(dts[1]) + "," +
		      str(dts[2]) + " next " + str(dts[3]));

	const unsigned long cmds[] = {USER_CFG_IOC_ITEM, USER_CFG_IOC_BOOT_CFG,
				      USER_CFG_IOC_DTS_CPU, 0x80044303};
	bool all = true;
	for (unsigned long c : cmds)
		all &= ioctl(g_fd, c, 0UL) == -1 && errno == EINVAL;
	check(all, "argument 0 is -EINVAL for every command");
	const unsigned long unknown[] = {0x80044300, 0x80044303, 0x80044305,
					 0xC0384301, 0x40044301, 0x4301, 0x80084302};
	all = true;
	for (unsigned long c : unknown) {
		uint32_t v = 0;
		bool ok = ioctl(g_fd, c, &v) == -1 && errno == EINVAL;
		if (!ok)
			std::printf("#   command %#lx: errno %d\n", c, errno);
		all &= ok;
	}
	check(all, "other command numbers are -EINVAL");

	// A faulting user address: the result is the count not copied.
	void *hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	long a = ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, hole);
	long b = ioctl(g_fd, USER_CFG_IOC_DTS_CPU, hole);
	long c = ioctl(g_fd, USER_CFG_IOC_ITEM, hole);
	check(a == 4 && b == 12 && c == 56,
	      "unreadable user address: positive count of bytes not copied",
	      "boot " + str(a) + " dts " + str(b) + " item " + str(c));
	munmap(hole, 4096);
}

void test_defaults()
{
	group("defaults on blank flash");
	unsigned long long w0 = counter(0, "writes");
	for (const auto &it : static_items()) {
		Result r = get(it.name, it.size);
		check(r.ret == 0 && r.data == it.def, std::string("default of ") + it.name,
		      "code " + str(r.code()) + " data " + hex(r.data).substr(0, 64));
	}
	Result small = get("ssh_status", 2);
	expect_eq(small.code(), -EINVAL, "static get with a larger buffer is -EINVAL");
	expect_eq(get("never.set", 64).code(), -ENOENT, "dynamic item never set: -ENOENT");
	check(counter(0, "writes") == w0 && blank(block(area(0), 0)),
	      "reading defaults leaves blank flash unwritten");

	// The default of cpu_num_cfg is asked of the control module each time.
	put(std::string(kCtl) + "ctrl_cpu_num", "3");
	put(std::string(kCtl) + "data_cpu_num", "5");
	put(std::string(kCtl) + "aicpu_num", "6");
	Result r = get("cpu_num_cfg", 16);
	check(r.ret == 0 && r.data == cpu_value(3, 5, 6),
	      "cpu_num_cfg default follows the control module at run time",
	      hex(r.data));
	put(std::string(kCtl) + "ctrl_cpu_num", "1");
	put(std::string(kCtl) + "data_cpu_num", "2");
	put(std::string(kCtl) + "aicpu_num", "4");
}

void test_items()
{
	group("items end to end");
	expect_eq(op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status", {1}), 0,
		  "daemon sets ssh_status");
	Result r = get("ssh_status", 1);
	check(r.ret == 0 && r.data == Bytes{1}, "ssh_status reads back 01", hex(r.data));
	Bytes a = area(0);
	check(!blank(block(a, 0)) && block(a, 0) == block(a, 32),
	      "head written to block 0 and its backup block 32, equal");

	unsigned long long w0 = counter(0, "writes");
	expect_eq(op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status", {1}), 0,
		  "daemon sets the same value again");
	expect_eq(static_cast<long>(counter(0, "writes") - w0), 0,
		  "an unchanged value costs no flash write");

	expect_eq(op_as(kDaemon, USER_CFG_CMD_CLEAR, "ssh_status"), 0,
		  "daemon clears ssh_status");
	r = get("ssh_status", 1);
	check(r.ret == 0 && r.data == Bytes{0}, "cleared ssh_status reads its default",
	      hex(r.data));

	const size_t sizes[] = {100, 3000, 32768, 7};
	for (size_t n : sizes) {
		Bytes v = pattern(n, static_cast<uint8_t>(n));
		long rc = op_as(kDaemon, USER_CFG_CMD_SET, "vm.item", v);
		r = get("vm.item", 32768);
		check(rc == 0 && r.ret == 0 && r.buf_size == n && r.data == v,
		      "dynamic item of " + str(n) + " bytes stored and read back",
		      "set " + str(rc) + " get " + str(r.code()) + " len " +
			      str(r.buf_size));
	}
	expect_eq(op_as(kDaemon, USER_CFG_CMD_CLEAR, "vm.item"), 0,
		  "daemon clears the dynamic item");
	expect_eq(get("vm.item", 32768).code(), -ENOENT, "cleared dynamic item is -ENOENT");

	Bytes shadow = pattern(2048, 0x33);
	expect_eq(set("usershadow", shadow).code(), 0,
		  "root with CAP_SYS_ADMIN sets usershadow without the whitelist");
	r = get("usershadow", 2048);
	check(r.ret == 0 && r.data == shadow, "usershadow reads back");
}

void test_authority()
{
	group("authority with real uids and executables");
	const Who sched{"/var/sched_daemon", kSchedUid, false, "sched_daemon/1000"};
	const Who tmp{"/tmp/devmgr_daemon", kDaemonUid, false, "/tmp/devmgr_daemon/1101"};
	const Who as_root{"/var/devmgr_daemon", 0, true, "/var/devmgr_daemon as root"};
	const Who as_1000{"/var/devmgr_daemon", kSchedUid, false, "/var/devmgr_daemon as 1000"};
	const Who longer{"/var/devmgr_daemon2", kDaemonUid, false, "devmgr_daemon2/1101"};
	struct Row {
		const Who &who;
		uint32_t cmd;
		const char *name;
		Bytes value;
		uint32_t size;
		long want;
	};
	const Row rows[] = {
		{kDaemon, USER_CFG_CMD_SET, "ssh_status", {1}, 0, 0},
		{kDaemon, USER_CFG_CMD_CLEAR, "ssh_status", {}, 0, 0},
		{kDaemon, USER_CFG_CMD_SET, "auth.item", {1, 2, 3}, 0, 0},
		{kDaemon, USER_CFG_CMD_GET, "ssh_status", {}, 1, 0},
		{kDaemon, USER_CFG_CMD_GET, "usershadow", {}, 2048, -EACCES},
		{kDaemon, USER_CFG_CMD_SET, "usershadow", zeros(2048), 0, -EACCES},
		{kDaemon, 7, "auth.item", {1}, 0, -EINVAL},
		{kRootNoAdmin, USER_CFG_CMD_GET, "usershadow", {}, 2048, -EACCES},
		{kRootNoAdmin, USER_CFG_CMD_GET, "ssh_status", {}, 1, 0},
		{kRootNoAdmin, USER_CFG_CMD_GET, "auth.item", {}, 64, 0},
		{kRoot, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{kRoot, USER_CFG_CMD_SET, "auth.item", {9}, 0, -EACCES},
		{kRoot, USER_CFG_CMD_CLEAR, "auth.item", {}, 0, -EACCES},
		{kRoot, 7, "auth.item", {1}, 0, -EACCES},
		{sched, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{tmp, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{as_root, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{as_1000, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{longer, USER_CFG_CMD_SET, "ssh_status", {1}, 0, -EACCES},
		{kDaemon, USER_CFG_CMD_CLEAR, "auth.item", {}, 0, 0},
	};
	static const char *cmds[] = {"get", "set", "clear"};
	for (const Row &row : rows) {
		std::string what = row.cmd < 3 ? cmds[row.cmd] : "cmd " + str(row.cmd);
		expect_eq(op_as(row.who, row.cmd, row.name, row.value, row.size), row.want,
			  row.who.label + ": " + what + " " + row.name + " -> " +
				  str(row.want));
	}
	check(count_in_log("match fail. (proc name=\"devmgr_daemon\";path=\"/tmp/devmgr_daemon\";uid=1101)") > 0,
	      "the copy in /tmp fails the identity stage by its real path");
	check(count_in_log("[orvane] [ERROR] [whitelist] [whitelist_check_process_name ") > 0,
	      "sched_daemon fails the name stage, logged under the whitelist tag");
}

// ---- bad user memory ---------------------------------------------------------

// One item request with the record wherever the caller put it; returns the
// driver's code (-errno or the positive count not copied).
long raw_item(int fd, user_cfg_para *p)
{
	long r = ioctl(fd, USER_CFG_IOC_ITEM, p);
	return r < 0 ? -errno : r;
}

void fill_para(user_cfg_para *p, uint32_t cmd, const char *name, uint32_t size,
	       const void *buf)
{
	user_cfg_para q{};
	q.cmd = cmd;
	std::strncpy(q.name, name, sizeof(q.name));
	q.buf_size = size;
	q.buf = reinterpret_cast<uintptr_t>(buf);
	std::memcpy(static_cast<void *>(p), &q, sizeof(q));
}

// Body of "vmtest badmem FD", run as the whitelisted daemon: every case
// must fail cleanly with the count of bytes not copied, and leave the items
// as they were. A copy stopped by a fault reports at least the bytes that
// lie in the bad page and at most all of them (the kernel may give up on a
// few good bytes before the faulting one); a copy to or from a page that
// is not there, or not writable, at all reports every byte.
int run_badmem(int fd)
{
	const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	const char *snm = "ccpu_usr_cert_hash";
	const uint32_t ssz = 1024;
	const char *dnm = "bad.item";
	const uint32_t dsz = 3000;
	const Bytes sval = pattern(ssz, 0x61), dval = pattern(dsz, 0x62);
	auto say = [](bool ok, const std::string &name, const std::string &diag) {
		std::printf("T %d %s|%s\n", ok ? 1 : 0, name.c_str(), diag.c_str());
	};
	bool base = item(fd, 0, USER_CFG_CMD_SET, snm, sval, ssz).ret == 0 &&
		    item(fd, 0, USER_CFG_CMD_SET, dnm, dval, dsz).ret == 0;
	say(base, "baseline values stored", "");
	// Both items must still read back exactly after each case.
	auto intact = [&]() {
		Result a = item(fd, 0, USER_CFG_CMD_GET, snm, {}, ssz);
		Result b = item(fd, 0, USER_CFG_CMD_GET, dnm, {}, USER_CFG_BUF_MAX);
		return a.ret == 0 && a.data == sval && b.ret == 0 && b.data == dval;
	};
	enum Where { kRecord, kData };
	struct Case {
		const char *name;
		Where bad;	// the part that lies in the bad page
		int prot;	// of the bad page: PROT_NONE unmapped, or PROT_READ
		size_t lead;	// bytes of the part before the bad page
		uint32_t cmd;
		bool dynamic;
		long lo, hi;	// accepted results
	};
	const long rec = sizeof(user_cfg_para);
	const uint32_t get = USER_CFG_CMD_GET, set = USER_CFG_CMD_SET;
	const Case cases[] = {
		{"record unmapped: 56", kRecord, PROT_NONE, 0, set, true, rec, rec},
		{"record straddling into an unmapped page: its 36 missing bytes or more",
		 kRecord, PROT_NONE, 20, set, true, rec - 20, rec},
		{"record read-only, dynamic get: content delivered, length field not (4)",
		 kRecord, PROT_READ, 0, get, true, 4, 4},
		{"record read-only, static get: nothing written back, 0", kRecord,
		 PROT_READ, 0, get, false, 0, 0},
		{"static set, data unmapped: 1024", kData, PROT_NONE, 0, set, false, ssz, ssz},
		{"dynamic set, data unmapped: 3000", kData, PROT_NONE, 0, set, true, dsz, dsz},
		{"static get, data unmapped: 1024", kData, PROT_NONE, 0, get, false, ssz, ssz},
		{"dynamic get, data unmapped: 3000", kData, PROT_NONE, 0, get, true, dsz, dsz},
		{"static get, data read-only: 1024", kData, PROT_READ, 0, get, false, ssz, ssz},
		{"dynamic get, data read-only: 3000", kData, PROT_READ, 0, get, true, dsz, dsz},
		{"static set, data straddling into an unmapped page", kData, PROT_NONE, 100,
		 set, false, ssz - 100, ssz},
		{"dynamic set, data straddling into an unmapped page", kData, PROT_NONE, 100,
		 set, true, dsz - 100, dsz},
		{"static get, data straddling into an unmapped page", kData, PROT_NONE, 100,
		 get, false, ssz - 100, ssz},
		{"dynamic get, data straddling into an unmapped page", kData, PROT_NONE, 100,
		 get, true, dsz - 100, dsz},
	};
	int failed = 0;
	for (const Case &c : cases) {
		const char *name = c.dynamic ? dnm : snm;
		const uint32_t size = c.dynamic ? dsz : ssz;
		const Bytes &value = c.dynamic ? dval : sval;
		// A set offers a value the item must not take; a dynamic get
		// offers more room than the content needs, so that a length
		// written back would show.
		const uint32_t room = c.cmd == get && c.dynamic ? dsz + 1000 : size;
		Bytes good(room, 0);
		if (c.cmd == set)
			good = pattern(size, 0x7e);
		user_cfg_para good_rec{};

		// Two pages, both written while writable; then the second one
		// is unmapped or made read-only.
		auto *m = static_cast<uint8_t *>(mmap(nullptr, 2 * page,
						      PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		if (m == MAP_FAILED) {
			say(false, c.name, "mmap failed");
			failed++;
			continue;
		}
		uint8_t *part = m + page - c.lead;
		user_cfg_para *p = &good_rec;
		uint8_t *data = good.data();
		if (c.bad == kRecord) {
			p = reinterpret_cast<user_cfg_para *>(part);
		} else {
			data = part;
			std::memcpy(data, good.data(), room);
		}
		fill_para(p, c.cmd, name, room, data);
		if (c.prot == PROT_NONE)
			munmap(m + page, page);
		else
			mprotect(m + page, page, PROT_READ);

		long r = raw_item(fd, p);
		std::string diag = "got " + str(r) + ", want " + str(c.lo) +
				   (c.hi != c.lo ? ".." + str(c.hi) : "");
		bool ok = r >= c.lo && r <= c.hi;
		// A record the driver could read: the length field is left as
		// it was whenever the content did not reach the caller.
		if (c.bad == kData || c.prot == PROT_READ) {
			uint32_t field = 0;
			std::memcpy(&field, reinterpret_cast<uint8_t *>(p) +
						    offsetof(user_cfg_para, buf_size),
				    sizeof(field));
			ok &= field == room;
			diag += "; buf_size field " + str(field);
		}
		// With the record read-only the content copy comes first and
		// succeeds.
		if (c.bad == kRecord && c.prot == PROT_READ) {
			bool got = Bytes(good.begin(), good.begin() + size) == value;
			ok &= got;
			diag += got ? "; content delivered" : "; content wrong";
		}
		bool still = intact();
		ok &= still;
		diag += still ? "; items intact" : "; ITEMS CHANGED";
		say(ok, c.name, diag);
		failed += !ok;
		munmap(m, c.prot == PROT_NONE ? page : 2 * page);
	}
	return failed ? 1 : 0;
}

void test_bad_memory()
{
	group("bad user memory (the daemon's records and data)");
	std::string out = run_as(kDaemon, {"badmem", str(g_fd)});
	std::istringstream in(out);
	int seen = 0;
	for (std::string line; std::getline(in, line);) {
		int ok = 0;
		char rest[512] = "";
		if (std::sscanf(line.c_str(), "T %d %511[^\n]", &ok, rest) != 2)
			continue;
		std::string r = rest;
		size_t bar = r.find('|');
		check(ok == 1, r.substr(0, bar), bar == std::string::npos ? "" : r.substr(bar + 1));
		seen++;
	}
	check(seen == 15, "every bad-memory case ran", "ran " + str(seen) + ": " + out);
}

void test_kernel_api()
{
	group("kernel API through the test module");
	check(sh("modprobe ucfg_probe") == 0, "test module loads against the exports");
	expect_str(kcall("index usershadow"), "4", "index of usershadow");
	expect_str(kcall("index no.such.item"), "-1", "unknown name is a dynamic item");
	expect_str(kcall("get 0 ssh_status 1"), "0 1 00", "get ssh_status by name");

	Bytes v = pattern(500, 0x42);
	std::string r = kcall("set 0 k.item " + hex(v));
	unsigned ms = 0;
	long ret = -1;
	std::sscanf(r.c_str(), "%ld %u", &ret, &ms);
	check(ret == 0 && ms >= 100, "set of a dynamic item, then 100 ms asleep",
	      "result '" + r + "'");
	expect_str(kcall("get 0 k.item 32768"), "0 500 " + hex(v),
		   "the dynamic item reads back with its length");
	expect_eq(get("k.item", 32768).buf_size, 500, "and through the device file");
	expect_str(kcall("get 1 k.item 32768"), "-2 0", "device 1 does not have it");
	r = kcall("set 0 k.item ");
	std::sscanf(r.c_str(), "%ld %u", &ret, &ms);
	check(ret == -EINVAL && ms < 100, "a refused set returns at once", r);

	std::string v1 = hex(cpu_value(3, 5, 6));
	std::sscanf(kcall("set 0 cpu_num_cfg " + v1).c_str(), "%ld", &ret);
	expect_eq(ret, 0, "cpu_num_cfg stored by name");
	expect_str(kcall("cpu_cfg 0 12"), "0 3 5 6 3735928559",
		   "dev_user_cfg_get_cpu_cfg reports the stored numbers, 12 bytes");
	expect_str(kcall("cpu_cfg 0 16"), "-22 3735928559 3735928559 3735928559 3735928559",
		   "size 16 is -EINVAL, output untouched");
	expect_str(kcall("core 0 0 16"), "0 16 " + v1, "devdrv_get_user_config_core");
	std::sscanf(kcall("clear 0 0").c_str(), "%ld", &ret);
	expect_eq(ret, 0, "devdrv_config_clear_user_item clears cpu_num_cfg");
	expect_str(kcall("cpu_cfg 0 12"), "0 1 2 4 3735928559",
		   "then the device tree's numbers come back");
	expect_str(kcall("cpu_cfg 1 12"), "0 1 2 4 3735928559",
		   "device 1 without configuration: device-tree numbers");
	expect_eq(first_field(kcall("clear 2 5")), -EINVAL, "clear on device 2 is -EINVAL");

	// whitelist_process_handler judges the process that makes the call.
	int fd = open(kCall, O_RDWR);
	const Who sched{"/var/sched_daemon", kSchedUid, false, "sched"};
	expect_str(run_as(sched, {"kcall", str(fd), "whitelist sched_daemon"}), "0",
		   "whitelist: sched_daemon passes with its own name in the list");
	expect_str(run_as(sched, {"kcall", str(fd), "whitelist devmgr_daemon"}), "-1",
		   "whitelist: sched_daemon is not in the list devmgr_daemon");
	expect_str(run_as(kDaemon, {"kcall", str(fd), "whitelist devmgr_daemon"}), "0",
		   "whitelist: devmgr_daemon passes");
	expect_str(kcall_on(fd, "whitelist vmtest"), "-6",
		   "whitelist: root's own executable named but not in the table");
	close(fd);
}

std::string cpus(const char *grp)
{
	return trim(slurp(std::string("/sys/fs/cgroup/cpuset/") + grp + "/cpuset.cpus"));
}

void test_cpusets()
{
	group("CPU partition from real cgroup v1 cpusets");
	expect_eq(first_field(kcall("cpu_number 0")), -EINVAL,
		  "no cpuset hierarchy mounted: -EINVAL");
	bool ok = sh("mount -t tmpfs cgroup /sys/fs/cgroup") == 0 &&
		  sh("mkdir -p /sys/fs/cgroup/cpuset") == 0 &&
		  sh("mount -t cgroup -o cpuset none /sys/fs/cgroup/cpuset") == 0 &&
		  sh("mkdir /sys/fs/cgroup/cpuset/CtrlCPU /sys/fs/cgroup/cpuset/DataCPU") == 0;
	put("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", "0-1,3");
	put("/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus", "3,2");
	check(ok && cpus("CtrlCPU") == "0-1,3" && cpus("DataCPU") == "2-3",
	      "cpusets created (the kernel normalises 3,2 to 2-3)",
	      "CtrlCPU '" + cpus("CtrlCPU") + "' DataCPU '" + cpus("DataCPU") + "'");
	put("/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus", "2,3");
	expect_eq(first_field(kcall("cpu_number 0")), -EINVAL, "AICPU missing: -EINVAL");
	sh("mkdir /sys/fs/cgroup/cpuset/AICPU");
	check(slurp("/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus") == "\n",
	      "a new cpuset is empty (its file holds only a line end)");
	expect_str(kcall("cpu_number 0"), "0 2 1 2 1 0 1 0 0",
		   "device 0: range 0-1 -> 2, 2-3 -> 2, empty AICPU -> 0; files read again after the failure");
	expect_str(kcall("cpu_number 1"), "0 1 1 0 1 0 1 0 0",
		   "device 1: single CPU 3 -> 1, one-element list -> 0, empty -> 0");
	expect_eq(first_field(kcall("cpu_number 2")), -EINVAL, "device 2 of 2: -EINVAL");
	put("/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus", "0-3");
	expect_str(kcall("cpu_number 0"), "0 2 1 2 1 0 1 0 0",
		   "the table is read once per module life");
	expect_eq(static_cast<long>(count_in_log("Cpus number config. (ccpu_num=")), 1,
		  "the record is logged once");
	close(g_fd);
	bool reload = sh("rmmod ucfg_probe") == 0 && sh("rmmod drv_user_cfg") == 0 &&
		      sh("modprobe ucfg_probe") == 0 && open_node();
	check(reload && module_loaded("drv_user_cfg"),
	      "reload (modprobe pulls drv_user_cfg in for the test module)");
	expect_str(kcall("cpu_number 0"), "0 2 1 2 1 4 1 0 0",
		   "after the reload the cpusets are read again: AICPU 0-3 -> 4");
	expect_str(kcall("cpu_number 1"), "0 1 1 0 1 0 1 0 0",
		   "device 1 has no element in AICPU: 0");
	check(count_in_log("String parse failed. (dev_id=1; buf=\"0-3\")") > 0,
	      "and the parse failure is logged");
	expect_eq(static_cast<long>(count_in_log("Cpus number config. (ccpu_num=")), 2,
		  "the record is logged once in the second module life");
}

bool heads_equal_and_valid()
{
	Bytes a = area(0);
	return !blank(block(a, 0)) && block(a, 0) == block(a, 32);
}

// After a failed request the item holds its old or its new value, never
// anything else, and the store stays readable.
bool old_or_new(const std::string &name, uint32_t size, const Bytes &old_v,
		const Bytes &new_v, std::string &diag)
{
	Result r = get(name, size);
	diag += "get " + str(r.code()) + " " + hex(r.data).substr(0, 16) + "; ";
	return r.ret == 0 && (r.data == old_v || r.data == new_v);
}

void test_faults()
{
	group("flash faults from the stand-in");
	Bytes dyn = pattern(900, 1);
	expect_eq(op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status", {1}), 0, "baseline value 01");
	expect_eq(op_as(kDaemon, USER_CFG_CMD_SET, "f.item", dyn), 0, "baseline dynamic item");
	struct Fault {
		const char *knob;
		const char *value;
		bool is_set; // the faulted request is a set (else a get)
		const char *name;
	};
	const Fault faults[] = {
		{"fail_read", "1", false, "failed first read of a get"},
		{"fail_read", "2", false, "failed second read of a get"},
		{"fail_write", "1", true, "failed main head write of a static set"},
		{"fail_write", "2", true, "failed backup head write of a static set"},
		{"corrupt_write", "1", true, "main head stored wrongly (read-back check)"},
		{"corrupt_write", "2", true, "backup head stored wrongly (read-back check)"},
		{"power_cut", "1", true, "power cut at the main head write"},
		{"power_cut", "2", true, "power cut at the backup head write"},
	};
	for (const Fault &f : faults) {
		// A value the flash does not hold yet, so that the set writes.
		Result cur = get("ssh_status", 1);
		uint8_t value = cur.data.empty() || cur.data[0] == 0 ? 1 : 0;
		put(flash(0, "trace"), "0");
		put(flash(0, "fail_code"), f.knob[5] == 'r' ? "110" : "5");
		put(flash(0, f.knob), f.value);
		long rc = f.is_set ? op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status", {value})
				   : get("ssh_status", 1).code();
		put(flash(0, f.knob), "0");
		put(flash(0, "fail_code"), "5");
		check(rc == -ENODEV, std::string(f.name) + ": -ENODEV",
		      "got " + str(rc) + " setting " + str(int(value)) + " over " +
			      hex(cur.data) + "; transfers (op block result):\n" +
			      slurp(flash(0, "trace")));
		std::string diag;
		bool ok = old_or_new("ssh_status", 1, cur.data, {value}, diag);
		Result d = get("f.item", 32768);
		// A successful set of the new value leaves both head copies equal.
		long again = f.is_set ? op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status", {value}) : 0;
		check(ok && d.data == dyn && again == 0 && heads_equal_and_valid(),
		      std::string(f.name) + ": old or new value, other items intact, heads equal after a set",
		      diag + "dyn " + str(d.code()) + " set again " + str(again));
	}
	Result cur = get("ssh_status", 1);
	put(flash(0, "power_cut"), "1");
	op_as(kDaemon, USER_CFG_CMD_SET, "ssh_status",
	      {static_cast<uint8_t>(cur.data.empty() || cur.data[0] == 0)});
	expect_eq(get("ssh_status", 1).code(), -ENODEV, "while the power is off a get is -ENODEV");
	put(flash(0, "power_cut"), "0");
	expect_eq(get("ssh_status", 1).code(), 0, "power back: get works");

	// A dynamic set failing at each of its writes in turn: -ENODEV, the
	// item reads its old or new content, and a retry stores it.
	int failing = 0;
	bool all = true;
	Bytes old_v = dyn;
	for (int n = 1; n <= 12; n++) {
		Bytes v = pattern(1200 + static_cast<size_t>(n), static_cast<uint8_t>(n));
		unsigned long long w0 = counter(0, "writes");
		put(flash(0, "fail_write"), str(n));
		long rc = op_as(kDaemon, USER_CFG_CMD_SET, "f.item", v);
		put(flash(0, "fail_write"), "0");
		if (rc == 0 && counter(0, "writes") - w0 < static_cast<unsigned>(n)) {
			old_v = v; // fewer writes than n: the fault never fired
			break;
		}
		failing++;
		std::string diag;
		bool ok = rc == -ENODEV && old_or_new("f.item", 32768, old_v, v, diag);
		long rc2 = op_as(kDaemon, USER_CFG_CMD_SET, "f.item", v);
		Result d = get("f.item", 32768);
		ok = ok && rc2 == 0 && d.data == v;
		if (!ok)
			std::printf("#   write %d: first %ld, %sretry %ld, get %ld\n", n, rc,
				    diag.c_str(), rc2, d.code());
		all &= ok;
		old_v = v;
	}
	check(all && failing >= 2,
	      "dynamic set failing at each of its " + str(failing) +
		      " writes: -ENODEV, old or new content, retry stores it");
	dyn = old_v;

	// Damage at rest: the head copy that no longer checks is rebuilt from
	// the other one by the next request.
	const size_t victims[] = {0, 32};
	for (size_t b : victims) {
		Bytes before = block(area(0), b);
		damage(0, b * kBlock + 100, 16);
		Result r = get("ssh_status", 1);
		Result d = get("f.item", 32768);
		Bytes after = block(area(0), b);
		check(r.ret == 0 && d.data == dyn && after == before && heads_equal_and_valid(),
		      "garbage in head block " + str(b) + ": values intact, block rewritten",
		      "get " + str(r.code()) + " dyn " + str(d.code()));
	}
}

void test_control_module()
{
	group("device count and the control module");
	const std::string dn = std::string(kCtl) + "dev_num";
	put(dn, "1");
	expect_eq(get("ssh_status", 1, 1).code(), -EINVAL, "count 1: device 1 refused");
	expect_eq(get("ssh_status", 1, 0).code(), 0, "count 1: device 0 served");
	put(dn, "3");
	expect_eq(get("ssh_status", 1, 0).code(), -EINVAL, "count 3: every request refused");
	expect_eq(first_field(kcall("get 0 ssh_status 1")), -EINVAL,
		  "count 3: kernel API refused too");
	put(dn, "2");
	put(std::string(kCtl) + "dev_num_ret", "-5");
	expect_eq(get("ssh_status", 1, 0).code(), -EINVAL, "control module error: -EINVAL");
	put(std::string(kCtl) + "dev_num_ret", "0");

	check(sh("rmmod orvane_ctl") == 0, "the control module unloads under drv_user_cfg");
	expect_eq(get("ssh_status", 1).code(), -EINVAL, "without it: get -EINVAL");
	expect_eq(op_as(kDaemon, USER_CFG_CMD_SET, "x.item", {1}), -EINVAL,
		  "without it: daemon set -EINVAL");
	expect_eq(first_field(kcall("get 0 ssh_status 1")), -EINVAL,
		  "without it: kernel API -EINVAL");
	expect_eq(first_field(kcall("cpu_number 0")), -EINVAL,
		  "without it: CPU partition query -EINVAL");
	uint32_t boot = 0;
	check(ioctl(g_fd, USER_CFG_IOC_BOOT_CFG, &boot) == 0 && boot == 32,
	      "without it: the boot configuration still answers");
	check(sh("modprobe orvane_ctl") == 0 && get("ssh_status", 1).code() == 0,
	      "loaded again: requests are served");
}

void test_reload()
{
	group("unload and reload");
	check(sh("rmmod ucfg_probe") == 0, "test module unloads");
	errno = 0;
	long r = syscall(SYS_delete_module, "drv_user_cfg", O_NONBLOCK);
	check(r == -1 && (errno == EWOULDBLOCK || errno == EBUSY),
	      "an open /dev/user_config pins the module", "errno " + str(errno));
	errno = 0;
	r = syscall(SYS_delete_module, "sec_flash", O_NONBLOCK);
	check(r == -1 && (errno == EWOULDBLOCK || errno == EBUSY),
	      "sec_flash is pinned by its user", "errno " + str(errno));
	Bytes before = area(0);
	Result d0 = get("f.item", 32768);
	close(g_fd);
	size_t cleaned = count_in_log("User cfg drv clean ok.");
	bool all = true;
	for (int i = 0; i < 5; i++) {
		bool ok = sh("rmmod drv_user_cfg") == 0 && !module_loaded("drv_user_cfg") &&
			  access(kNode, F_OK) != 0 && sh("modprobe drv_user_cfg") == 0;
		struct stat st {};
		ok = ok && stat(kNode, &st) == 0 && (st.st_mode & 07777) == 0600;
		if (!ok)
			std::printf("#   round %d failed\n", i);
		all &= ok;
	}
	check(all, "five rounds of rmmod and modprobe; the node comes and goes, mode 0600");
	expect_eq(static_cast<long>(count_in_log("User cfg drv clean ok.") - cleaned), 5,
		  "each unload logs its clean exit");
	check(open_node(), "the node opens again");
	Result s = get("ssh_status", 1);
	Result d = get("f.item", 32768);
	Result u = get("usershadow", 2048);
	check(s.ret == 0 && d.ret == 0 && u.ret == 0 && u.data == pattern(2048, 0x33) &&
		      d.data == d0.data && !d0.data.empty(),
	      "the store is intact after the reloads");
	check(area(0) == before, "reloading wrote nothing to the flash");

	// Without automatic probing the module loads but binds to nothing:
	// the device-tree record stays zero.
	close(g_fd);
	put("/sys/bus/platform/drivers_autoprobe", "0");
	bool ok = sh("rmmod drv_user_cfg") == 0 && sh("modprobe drv_user_cfg") == 0 &&
		  open_node();
	uint32_t dts[3] = {7, 7, 7};
	long rc = ioctl(g_fd, USER_CFG_IOC_DTS_CPU, dts);
	check(ok && rc == 0 && dts[0] == 0 && dts[1] == 0 && dts[2] == 0,
	      "module not probed: the device-tree record is 12 zero bytes");
	expect_eq(get("ssh_status", 1).code(), 0, "unprobed module still serves items");
	close(g_fd);
	put("/sys/bus/platform/drivers_autoprobe", "1");
	ok = sh("rmmod drv_user_cfg") == 0 && sh("modprobe drv_user_cfg") == 0 &&
	     open_node();
	rc = ioctl(g_fd, USER_CFG_IOC_DTS_CPU, dts);
	check(ok && rc == 0 && dts[0] == 1 && dts[1] == 2 && dts[2] == 4,
	      "probing on again: the record is back");
}

void test_log_clean()
{
	group("kernel log");
	std::string log = kernel_log();
	const char *bad[] = {"WARNING:", "BUG:", "Oops", "Call trace",
			     "blocked for more than", "UBSAN", "KASAN"};
	std::string found;
	for (const char *b : bad)
		if (log.find(b) != std::string::npos)
			found += std::string(b) + " ";
	check(found.empty(), "no warning, BUG, oops or hung task in the kernel log",
	      found);
}

int run_suite()
{
	std::printf("TAP version 13\n");
	if (!open_node()) {
		std::printf("1..1\nnot ok 1 - open %s: %s\n", kNode, std::strerror(errno));
		return 1;
	}
	test_loading(true);
	test_frame(32, {1, 2, 4});
	test_defaults();
	test_items();
	test_authority();
	test_bad_memory();
	test_kernel_api();
	test_cpusets();
	test_faults();
	test_control_module();
	test_reload();
	test_log_clean();
	std::printf("1..%d\n", g_count);
	if (g_failed)
		std::printf("# %d of %d failed\n", g_failed, g_count);
	return g_failed ? 1 : 0;
}

// Boot whose node lacks "data_cpu_num" and whose boot register has bit 5
// clear (all other bits set).
int run_partial()
{
	std::printf("TAP version 13\n");
	if (!open_node()) {
		std::printf("1..1\nnot ok 1 - open %s: %s\n", kNode, std::strerror(errno));
		return 1;
	}
	test_loading(false);
	test_frame(0, {1, 0, 4});
	check(count_in_log("Dts data cpu num is not set. (ret=") == 1 &&
		      count_in_log("Dts data cpu num. (num=0)") == 1,
	      "missing data_cpu_num: warning at probe, number 0");
	Result r = get("cpu_num_cfg", 16);
	check(r.ret == 0 && r.data == cpu_value(1, 2, 4),
	      "cpu_num_cfg default comes from the control module, not the node",
	      hex(r.data));
	test_log_clean();
	std::printf("1..%d\n", g_count);
	return g_failed ? 1 : 0;
}

// Body of the daemon copies: one request on an inherited descriptor.
int run_op(int argc, char **argv)
{
	if (argc < 7)
		return 2;
	int fd = std::atoi(argv[2]);
	uint32_t dev = static_cast<uint32_t>(std::atoi(argv[3]));
	uint32_t cmd = static_cast<uint32_t>(std::atoi(argv[4]));
	std::string data = argv[6];
	Bytes v;
	uint32_t size = 0;
	if (data[0] == '@') {
		size = static_cast<uint32_t>(std::atoi(data.c_str() + 1));
	} else if (data != "-") {
		v = unhex(data);
		size = static_cast<uint32_t>(v.size());
	}
	Result r = item(fd, dev, cmd, argv[5], v, size);
	std::printf("%ld %d %u %s\n", r.ret, r.err, r.buf_size, hex(r.data).c_str());
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	std::string mode = argc > 1 ? argv[1] : "";
	if (mode == "suite")
		return run_suite();
	if (mode == "partial")
		return run_partial();
	if (mode == "op")
		return run_op(argc, argv);
	if (mode == "as" && argc > 3) {
		// as UID PROGRAM [ARGS...]: the image has no su.
		uid_t uid = static_cast<uid_t>(std::atoi(argv[2]));
		if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
		    setresuid(uid, uid, uid) != 0)
			return 1;
		execv(argv[3], argv + 3);
		return 1;
	}
	if (mode == "badmem" && argc > 2)
		return run_badmem(std::atoi(argv[2]));
	if (mode == "kcall" && argc > 3) {
		std::printf("%s\n", kcall_on(std::atoi(argv[2]), argv[3]).c_str());
		return 0;
	}
	std::fprintf(stderr, "usage: vmtest suite|partial|op ...|kcall FD LINE\n");
	return 2;
}
