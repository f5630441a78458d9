// SPDX-License-Identifier: GPL-2.0
//
// Stress run of drv_user_cfg in the VM: several processes issue random item
// requests on both devices at once while the flash stand-in fails, damages
// and powers off transfers under them, with a module reload in the middle.
// Every worker keeps a model of the items it alone writes and checks every
// value it reads against it. Prints TAP and exits 0 only when nothing went
// wrong.
//
//   stress [SEED] [SECONDS]
//       the controller, as root: starts the workers, injects the faults,
//       reloads the module half-way, collects the figures
//   stress worker ID SEED CMD-FD REPORT-FD
//       one worker; started by the controller as a copy of this program at
//       /var/devmgr_daemon under the daemon's uid (the whitelist judges the
//       executable's real path and the real uid), or as root for the item
//       only CAP_SYS_ADMIN may touch
//
// What a worker may expect: a request that succeeded fixes the item's
// value. A request that failed because of a fault (-ENODEV) may or may not
// have reached the flash, and an item in that state may read as its old or
// its new value until the worker's next successful write to it, so the
// model keeps a set of allowed values per item. Any other outcome (a value
// outside the set, an unexpected error code, -ENODEV with the faults off)
// is a fault of the module.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "uapi/user_cfg.h"
#include "vmio.h"

namespace {

using vmio::put;
using vmio::sh;

using Bytes = std::vector<uint8_t>;
using Value = std::optional<Bytes>; // nullopt: a dynamic item not stored

constexpr const char *kNode = "/dev/user_config";
constexpr const char *kFlash = "/sys/kernel/debug/sec_flash/dev";
constexpr const char *kDaemonExe = "/var/devmgr_daemon";
constexpr uid_t kDaemonUid = 1101;
constexpr int kDaemons = 4;	// workers as the whitelisted daemon
constexpr int kWorkers = kDaemons + 1; // plus root for usershadow
constexpr int kDevices = 2;
constexpr int kNamesPerDevice = 5; // dynamic items per daemon and device

double now()
{
	timespec ts{};
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

template <typename T> std::string str(const T &v)
{
	std::ostringstream o;
	o << v;
	return o.str();
}

// One line to stdout in one write, so that lines of several processes on
// the console do not interleave.
void say(const std::string &line)
{
	std::string l = line + "\n";
	ssize_t n = write(1, l.data(), l.size());
	(void)n;
}

unsigned long long get_num(const std::string &path)
{
	std::ifstream f(path);
	unsigned long long v = 0;
	f >> v;
	return v;
}

// ---- the catalogue as user space sees it --------------------------------------

struct Static {
	const char *name;
	uint32_t size; // value length
	Bytes def;     // what the item reads as when nothing is stored
};

Bytes cpu_default()
{
	Bytes v(16, 0);
	v[0] = 1; // the stand-in control module's numbers
	v[1] = 2;
	v[2] = 4;
	return v;
}

const std::vector<Static> &statics()
{
	static const std::vector<Static> s = {
		{"cpu_num_cfg", 16, cpu_default()},
		{"p2p_mem_cfg", 4, {0x04, 0, 0, 0}},
		{"ddr_ecc_enable", 1, {0x01}},
		{"ccpu_usr_cert_hash", 1024, Bytes(1024, 0)},
		{"usershadow", 2048, Bytes(2048, 0)},
		{"ssh_status", 1, {0x00}},
	};
	return s;
}
constexpr size_t kUsershadow = 4;

// ---- requests ---------------------------------------------------------------

struct Result {
	long code = 0; // 0, -errno, or a positive count not copied
	Bytes data;
};

Result item(int fd, uint32_t dev, uint32_t cmd, const std::string &name,
	    const Bytes &in, uint32_t room)
{
	user_cfg_para p{};
	p.device_id = dev;
	p.cmd = cmd;
	std::memcpy(p.name, name.data(), std::min(name.size(), sizeof(p.name)));
	Bytes buf = in;
	buf.resize(std::max<size_t>(buf.size(), room));
	p.buf_size = room;
	p.buf = room ? reinterpret_cast<uintptr_t>(buf.data()) : 0;
	Result r;
	long ret = ioctl(fd, USER_CFG_IOC_ITEM, &p);
	r.code = ret < 0 ? -errno : ret;
	if (r.code == 0 && cmd == USER_CFG_CMD_GET)
		r.data.assign(buf.begin(),
			      buf.begin() + std::min<size_t>(p.buf_size, buf.size()));
	return r;
}

// ---- the worker ---------------------------------------------------------------

struct Item {
	uint32_t dev;
	std::string name;
	int stat; // catalogue index, -1 for a dynamic item
	std::vector<Value> allowed; // values the item may read as now
	std::vector<std::string> history; // the last requests, for a report
	std::vector<Bytes> ghosts; // allowed values no one wrote (see clear())
};

// Monotonic time, shared by all processes: worker histories and the fault
// log line up.
std::string stamp()
{
	char b[24];
	std::snprintf(b, sizeof(b), "%.3f", now());
	return b;
}

std::string describe(const Value &v)
{
	if (!v)
		return "absent";
	uint32_t h = 2166136261u;
	for (uint8_t c : *v)
		h = (h ^ c) * 16777619u;
	char b[48];
	std::snprintf(b, sizeof(b), "%zu bytes #%08x", v->size(), h);
	return b;
}

// The dynamic names a daemon worker owns on one device. The last one is
// exactly 32 bytes long: a name that fills the record without a NUL.
std::vector<std::string> dynamic_names(int id)
{
	std::vector<std::string> n;
	for (int j = 0; j + 1 < kNamesPerDevice; j++)
		n.push_back("w" + str(id) + ".item" + str(j));
	std::string full = "w" + str(id) + ".a-name-of-exactly-32-bytes";
	full.resize(USER_CFG_NAME_LEN, 'x');
	n.push_back(full);
	return n;
}

struct Counts {
	unsigned long get = 0, set = 0, clear = 0, foreign = 0;
	unsigned long failed = 0;  // -ENODEV while faults were armed
	unsigned long wrong = 0;   // anything the model does not allow
	unsigned long ambiguous = 0; // items left with several allowed values
	unsigned long checked = 0;
	unsigned long ghosts = 0; // reads of 0xff content an interrupted clear left
};

class Worker {
public:
	Worker(int id, uint64_t seed) : id_(id), rng_(seed * 1000003u + static_cast<uint64_t>(id))
	{
		const auto &st = statics();
		if (id == kDaemons) { // root: the item only CAP_SYS_ADMIN reaches
			for (uint32_t d = 0; d < kDevices; d++)
				add(d, st[kUsershadow].name, static_cast<int>(kUsershadow));
			return;
		}
		// The other static items of both devices, dealt out in turn.
		int k = 0;
		for (uint32_t d = 0; d < kDevices; d++)
			for (size_t i = 0; i < st.size(); i++)
				if (i != kUsershadow && k++ % kDaemons == id)
					add(d, st[i].name, static_cast<int>(i));
		for (uint32_t d = 0; d < kDevices; d++) {
			for (const auto &n : dynamic_names(id))
				add(d, n, -1);
			for (int o = 0; o < kDaemons; o++)
				if (o != id)
					for (const auto &n : dynamic_names(o))
						foreign_.push_back({d, n, -1, {}, {}, {}});
		}
	}

	// Random requests until the deadline.
	void run(int fd, double until)
	{
		fd_ = fd;
		while (now() < until) {
			if (id_ < kDaemons && pick(10) == 0) {
				foreign_get();
				continue;
			}
			Item &it = items_[pick(items_.size())];
			unsigned r = pick(100);
			if (r < 45)
				get(it, false);
			else if (r < 80)
				set(it);
			else
				clear(it);
		}
	}

	// Every item once more, with the faults off: the value must be one
	// the model allows, and no request may fail.
	void check(int fd)
	{
		fd_ = fd;
		for (Item &it : items_) {
			get(it, true);
			c_.checked++;
			if (it.allowed.size() > 1)
				c_.ambiguous++;
		}
	}

	const Counts &counts() const { return c_; }

private:
	size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

	void add(uint32_t dev, const std::string &name, int stat)
	{
		Value init = stat >= 0 ? Value(statics()[static_cast<size_t>(stat)].def) : Value();
		items_.push_back({dev, name, stat, {init}, {}, {}});
	}

	// Lengths mostly small, some up to a few pages, a few up to the limit.
	Bytes random_value(const Item &it)
	{
		size_t n;
		if (it.stat >= 0) {
			n = statics()[static_cast<size_t>(it.stat)].size;
		} else {
			unsigned r = pick(10);
			n = 1 + pick(r < 6 ? 256 : r < 9 ? 4096 : USER_CFG_BUF_MAX);
		}
		Bytes v(n);
		for (auto &b : v)
			b = static_cast<uint8_t>(rng_());
		return v;
	}

	void wrong(const Item &it, const std::string &what, const Result &r)
	{
		c_.wrong++;
		std::string allowed;
		for (const Value &v : it.allowed)
			allowed += " [" + describe(v) + "]";
		Value got = r.code == 0 ? Value(r.data) : Value();
		say("# w" + str(id_) + " dev" + str(it.dev) + " " + it.name + ": " + what +
		    " -> " + str(r.code) + (r.code == 0 ? " " + describe(got) : "") +
		    "; allowed:" + allowed);
		for (const std::string &h : it.history)
			say("#   w" + str(id_) + " earlier: " + h);
	}

	void record(Item &it, const std::string &what, const Result &r)
	{
		it.history.push_back(stamp() + " " + what + " -> " + str(r.code) +
				     (r.code == 0 && !r.data.empty() ?
					      " " + describe(Value(r.data)) : ""));
		if (it.history.size() > 12)
			it.history.erase(it.history.begin());
	}

	// A failure the faults explain, or a wrong outcome.
	bool fault_or_wrong(const Item &it, const std::string &what, const Result &r,
			    bool faults_off)
	{
		if (r.code == -ENODEV && !faults_off) {
			c_.failed++;
			return true;
		}
		wrong(it, what, r);
		return false;
	}

	void remember(Item &it, const Value &v)
	{
		if (std::find(it.allowed.begin(), it.allowed.end(), v) == it.allowed.end())
			it.allowed.push_back(v);
	}

	void get(Item &it, bool faults_off)
	{
		c_.get++;
		uint32_t room;
		if (it.stat >= 0) {
			room = statics()[static_cast<size_t>(it.stat)].size;
		} else if (pick(10) == 0 && it.allowed.front()) {
			// Too little room for one of the allowed contents.
			room = static_cast<uint32_t>(std::max<size_t>(it.allowed.front()->size(), 2) - 1);
		} else {
			room = USER_CFG_BUF_MAX;
		}
		Result r = item(fd_, it.dev, USER_CFG_CMD_GET, it.name, {}, room);
		// The outcomes the allowed values give: a value that fits, -ENXIO
		// for content longer than the room, -ENOENT for no item.
		std::string what = "get(" + str(room) + ")";
		bool ok = false;
		for (const Value &v : it.allowed) {
			ok |= !v && r.code == -ENOENT;
			ok |= v && v->size() > room && r.code == -ENXIO;
			ok |= v && v->size() <= room && r.code == 0 && r.data == *v;
		}
		if (!ok)
			fault_or_wrong(it, what, r, faults_off);
		else if (r.code == 0 && std::find(it.ghosts.begin(), it.ghosts.end(), r.data) !=
						it.ghosts.end())
			c_.ghosts++;
		record(it, what, r);
	}

	void set(Item &it)
	{
		c_.set++;
		Bytes v = random_value(it);
		Result r = item(fd_, it.dev, USER_CFG_CMD_SET, it.name, v,
				static_cast<uint32_t>(v.size()));
		std::string what = "set " + describe(v);
		if (r.code == 0) {
			it.allowed = {Value(v)};
			it.ghosts.clear();
		}
		else if (fault_or_wrong(it, what, r, false))
			remember(it, v);
		record(it, what, r);
	}

	void clear(Item &it)
	{
		c_.clear++;
		Result r = item(fd_, it.dev, USER_CFG_CMD_CLEAR, it.name, {}, 0);
		Value cleared = it.stat >= 0 ? Value(statics()[static_cast<size_t>(it.stat)].def)
					     : Value();
		bool could_be_absent = std::find(it.allowed.begin(), it.allowed.end(),
						 Value()) != it.allowed.end();
		bool could_be_present = std::any_of(it.allowed.begin(), it.allowed.end(),
						    [](const Value &v) { return bool(v); });
		if (r.code == 0 && (it.stat >= 0 || could_be_present)) {
			it.allowed = {cleared};
			it.ghosts.clear();
		} else if (r.code == -ENOENT && it.stat < 0 && could_be_absent) {
			// nothing there to clear: nothing written either
		} else if (fault_or_wrong(it, "clear", r, false)) {
			// An interrupted clear of a dynamic item may also leave
			// 0xff bytes of the old length: the clear writes them,
			// with their own valid check code, into the main slot
			// before the main head drops the record, and a head that
			// still lists the record then reads them. The host model
			// accepts the same and counts it.
			std::vector<Value> old = it.allowed;
			remember(it, cleared);
			for (const Value &v : old) {
				if (it.stat >= 0 || !v)
					continue;
				Bytes ghost(v->size(), 0xff);
				remember(it, ghost);
				it.ghosts.push_back(ghost);
			}
		}
		record(it, "clear", r);
	}

	// A read of another worker's item: its value is not ours to know,
	// but the request must be answered like any other.
	void foreign_get()
	{
		c_.foreign++;
		Item &it = foreign_[pick(foreign_.size())];
		Result r = item(fd_, it.dev, USER_CFG_CMD_GET, it.name, {}, USER_CFG_BUF_MAX);
		if (r.code == 0 || r.code == -ENOENT)
			return;
		it.allowed = {};
		fault_or_wrong(it, "foreign get", r, false);
	}

	int id_;
	std::mt19937_64 rng_;
	int fd_ = -1;
	std::vector<Item> items_;
	std::vector<Item> foreign_;
	Counts c_;
};

std::string read_line(int fd)
{
	std::string line;
	char ch;
	while (read(fd, &ch, 1) == 1 && ch != '\n')
		line += ch;
	return line;
}

void write_line(int fd, const std::string &line)
{
	std::string l = line + "\n";
	ssize_t n = write(fd, l.data(), l.size());
	(void)n;
}

// Commands from the controller: "run SECONDS" (open the node, requests
// until then, close it, answer "paused"), "check" (answer with the counts
// and leave), end of file (leave).
int run_worker(int id, uint64_t seed, int cmd_fd, int rep_fd)
{
	Worker w(id, seed);
	for (;;) {
		std::string cmd = read_line(cmd_fd);
		if (cmd.empty())
			return 1;
		int fd = open(kNode, O_RDWR);
		if (fd < 0) {
			say("# w" + str(id) + ": open " + kNode + ": " + std::strerror(errno));
			write_line(rep_fd, "error");
			return 1;
		}
		if (cmd.compare(0, 4, "run ") == 0) {
			w.run(fd, now() + std::atof(cmd.c_str() + 4));
			close(fd);
			write_line(rep_fd, "paused");
			continue;
		}
		w.check(fd);
		close(fd);
		const Counts &c = w.counts();
		write_line(rep_fd, "done " + str(c.get) + " " + str(c.set) + " " + str(c.clear) +
					   " " + str(c.foreign) + " " + str(c.failed) + " " +
					   str(c.wrong) + " " + str(c.ambiguous) + " " +
					   str(c.checked) + " " + str(c.ghosts));
		return c.wrong ? 1 : 0;
	}
}

// ---- the controller -------------------------------------------------------------

// Faults of the flash stand-in, one at a time per device: armed to hit the
// Nth transfer from now, held for a while, then disarmed (a power cut is
// ended by writing 0, which powers the flash back on).
const char *const kKinds[] = {"fail_read", "fail_write", "corrupt_write", "power_cut"};
constexpr int kKindCount = 4;

class Injector {
public:
	Injector(int dev, std::mt19937_64 &rng) : dev_(dev), rng_(rng) {}

	void step(double t)
	{
		// Once the power is off every request fails at once: power
		// comes back soon, so that the run is not mostly refusals.
		if (kind_ == 3 && !off_ && get_num(knob("writes")) - writes0_ >= n_) {
			off_ = true;
			until_ = std::min(until_, t + uniform(0.01, 0.05));
		}
		if (t < until_)
			return;
		if (kind_ < 0) {
			arm(t);
			return;
		}
		disarm();
		until_ = t + uniform(0.0, 0.4);
	}

	void disarm()
	{
		if (kind_ < 0)
			return;
		bool hit;
		if (std::strcmp(kKinds[kind_], "power_cut") == 0)
			hit = get_num(knob("writes")) - writes0_ >= n_;
		else
			hit = get_num(knob(kKinds[kind_])) == 0;
		put(knob(kKinds[kind_]), "0");
		fired[kind_] += hit;
		events.push_back(stamp() + " dev" + str(dev_) + " " + kKinds[kind_] + " " +
				 str(n_) + (hit ? " fired" : " did not fire") +
				 ", disarmed");
		kind_ = -1;
	}

	unsigned long armed[kKindCount] = {};
	unsigned long fired[kKindCount] = {};
	std::vector<std::string> events; // printed when something went wrong

private:
	std::string knob(const char *name) const
	{
		return std::string(kFlash) + str(dev_) + "/" + name;
	}
	double uniform(double a, double b)
	{
		return std::uniform_real_distribution<double>(a, b)(rng_);
	}

	void arm(double t)
	{
		static const char *const codes[] = {"5", "110", "16"};
		kind_ = static_cast<int>(rng_() % kKindCount);
		off_ = false;
		n_ = 1 + rng_() % 8;
		put(knob("fail_code"), codes[rng_() % 3]);
		writes0_ = get_num(knob("writes"));
		put(knob(kKinds[kind_]), str(n_));
		armed[kind_]++;
		events.push_back(stamp() + " dev" + str(dev_) + " " + kKinds[kind_] + " " +
				 str(n_) + " armed");
		until_ = t + uniform(0.05, 0.6);
	}

	int dev_;
	std::mt19937_64 &rng_;
	int kind_ = -1; // index into kKinds; 3 is the power cut
	bool off_ = false;
	unsigned long long n_ = 0, writes0_ = 0;
	double until_ = 0;
};

// Reads the kernel's log as it is written and reports every line that
// names a kernel complaint (the harness's list of fixed strings).
class KernelLog {
public:
	KernelLog()
	{
		std::ifstream f("/etc/complaints");
		for (std::string s; std::getline(f, s);)
			if (!s.empty())
				needles_.push_back(s);
		if (needles_.empty())
			needles_ = {"WARNING:", "BUG:", "Oops", "Call trace",
				    "blocked for more than", "Kernel panic"};
		fd_ = open("/dev/kmsg", O_RDONLY | O_NONBLOCK);
	}
	~KernelLog()
	{
		if (fd_ >= 0)
			close(fd_);
	}

	void drain()
	{
		char buf[8192];
		while (fd_ >= 0) {
			ssize_t n = read(fd_, buf, sizeof(buf) - 1);
			if (n < 0 && errno == EPIPE) {
				lost++; // overwritten before we read it
				continue;
			}
			if (n <= 0)
				return;
			buf[n] = 0;
			const char *msg = std::strchr(buf, ';');
			std::string line = msg ? msg + 1 : buf;
			line = line.substr(0, line.find('\n'));
			for (const std::string &s : needles_) {
				if (line.find(s) == std::string::npos)
					continue;
				if (++complaints <= 20)
					say("# kernel: " + line);
				break;
			}
		}
	}

	bool ok() const { return fd_ >= 0; }
	unsigned long complaints = 0, lost = 0;

private:
	int fd_ = -1;
	std::vector<std::string> needles_;
};

int g_tap;
int g_failed;

bool tap(bool ok, const std::string &name)
{
	++g_tap;
	g_failed += !ok;
	say(std::string(ok ? "ok " : "not ok ") + str(g_tap) + " - " + name);
	return ok;
}

struct Child {
	pid_t pid;
	int cmd; // controller -> worker
	int rep; // worker -> controller
	std::string last;
};

Child start_worker(int id, uint64_t seed)
{
	int c[2], r[2];
	if (pipe(c) != 0 || pipe(r) != 0)
		return {-1, -1, -1, ""};
	pid_t pid = fork();
	if (pid == 0) {
		close(c[1]);
		close(r[0]);
		std::string exe = "/bin/stress";
		if (id < kDaemons) {
			exe = kDaemonExe;
			if (setgroups(0, nullptr) != 0 ||
			    setresgid(kDaemonUid, kDaemonUid, kDaemonUid) != 0 ||
			    setresuid(kDaemonUid, kDaemonUid, kDaemonUid) != 0)
				_exit(121);
		}
		std::string a[] = {exe, "worker", str(id), str(seed), str(c[0]), str(r[1])};
		char *argv[] = {a[0].data(), a[1].data(), a[2].data(), a[3].data(),
				a[4].data(), a[5].data(), nullptr};
		execv(exe.c_str(), argv);
		_exit(122);
	}
	close(c[0]);
	close(r[1]);
	return {pid, c[1], r[0], ""};
}

// The device node belongs to root; the daemons open it as the owner.
bool hand_node_to_daemon()
{
	for (int i = 0; i < 500; i++) {
		if (chown(kNode, kDaemonUid, kDaemonUid) == 0)
			return true;
		usleep(10000);
	}
	return false;
}

// One phase: every worker runs for the given time while the faults come and
// go; returns when every worker has paused (closed the node).
bool phase(std::vector<Child> &kids, double seconds, std::vector<Injector> &inj,
	   KernelLog &klog, std::mt19937_64 &rng)
{
	for (Child &k : kids)
		write_line(k.cmd, "run " + str(seconds));
	size_t paused = 0;
	bool ok = true;
	double limit = now() + seconds * 20 + 120; // a stuck worker ends the run
	std::vector<pollfd> p;
	for (Child &k : kids)
		p.push_back({k.rep, POLLIN, 0});
	while (paused < kids.size()) {
		double t = now();
		if (t > limit) {
			say("# workers did not pause in time");
			ok = false;
			break;
		}
		for (Injector &i : inj)
			i.step(t);
		klog.drain();
		int n = poll(p.data(), p.size(), static_cast<int>(5 + rng() % 20));
		if (n <= 0)
			continue;
		for (size_t i = 0; i < p.size(); i++) {
			if (!(p[i].revents & (POLLIN | POLLHUP)))
				continue;
			std::string line = read_line(p[i].fd);
			p[i].fd = -1; // one answer per phase
			paused++;
			ok &= line == "paused";
			if (line != "paused")
				say("# worker " + str(i) + " answered '" + line + "'");
		}
	}
	for (Injector &i : inj)
		i.disarm();
	klog.drain();
	return ok;
}

int run_controller(uint64_t seed, double seconds)
{
	say("TAP version 13");
	say("# seed " + str(seed) + ", " + str(seconds) + " s of requests, " +
	    str(kDaemons) + " daemon workers and one root worker, devices 0 and 1");
	std::mt19937_64 rng(seed);
	KernelLog klog;
	// The module logs every failed request at error level: thousands of
	// lines on the serial console would slow the run down. The kernel log
	// is read here instead, and an oops or a panic reaches the console by
	// itself.
	std::ifstream pf("/proc/sys/kernel/printk");
	std::string console_level = "4";
	pf >> console_level;
	put("/proc/sys/kernel/printk", "1");

	tap(klog.ok() && hand_node_to_daemon(), "kernel log readable, node handed to the daemon");
	std::vector<Child> kids;
	for (int id = 0; id < kWorkers; id++)
		kids.push_back(start_worker(id, seed));
	std::vector<Injector> inj;
	for (int d = 0; d < kDevices; d++)
		inj.emplace_back(d, rng);

	double t0 = now();
	tap(phase(kids, seconds / 2, inj, klog, rng), "first half: every worker ran and paused");

	// Reload with every descriptor closed; the stand-in keeps the flash.
	bool reload = sh("rmmod drv_user_cfg") == 0 && access(kNode, F_OK) != 0 &&
		      sh("modprobe drv_user_cfg") == 0 && hand_node_to_daemon();
	tap(reload, "rmmod and modprobe between the halves, the node back");
	if (!reload)
		put("/proc/sys/kernel/printk", console_level);

	tap(reload && phase(kids, seconds / 2, inj, klog, rng),
	    "second half: every worker ran and paused");
	double busy = now() - t0;

	// Faults off (the injectors have disarmed); the final check.
	for (int d = 0; d < kDevices; d++)
		for (const char *k : kKinds)
			put(std::string(kFlash) + str(d) + "/" + k, "0");
	Counts sum;
	bool all_done = true;
	for (Child &k : kids) {
		write_line(k.cmd, "check");
		std::string line = read_line(k.rep);
		Counts c;
		if (std::sscanf(line.c_str(), "done %lu %lu %lu %lu %lu %lu %lu %lu %lu", &c.get,
				&c.set, &c.clear, &c.foreign, &c.failed, &c.wrong, &c.ambiguous,
				&c.checked, &c.ghosts) != 9) {
			say("# a worker's final answer: '" + line + "'");
			all_done = false;
		}
		sum.get += c.get;
		sum.set += c.set;
		sum.clear += c.clear;
		sum.foreign += c.foreign;
		sum.failed += c.failed;
		sum.wrong += c.wrong;
		sum.ambiguous += c.ambiguous;
		sum.checked += c.checked;
		sum.ghosts += c.ghosts;
		close(k.cmd);
		close(k.rep);
	}
	for (Child &k : kids) {
		int st = 0;
		waitpid(k.pid, &st, 0);
		all_done &= WIFEXITED(st) && (WEXITSTATUS(st) == 0 || WEXITSTATUS(st) == 1);
	}
	klog.drain();
	put("/proc/sys/kernel/printk", console_level);

	unsigned long ops = sum.get + sum.set + sum.clear + sum.foreign;
	unsigned long fired = 0;
	for (const Injector &i : inj)
		for (int k = 0; k < kKindCount; k++)
			fired += i.fired[k];
	tap(all_done && sum.checked > 0,
	    "final check: " + str(sum.checked) + " items read with the faults off (" +
		    str(sum.ambiguous) + " left with old-or-new values)");
	tap(sum.wrong == 0, "no value outside its model, no unexplained error (" +
				    str(sum.wrong) + " wrong)");
	tap(ops >= 20u * kWorkers && fired > 0,
	    "requests made and faults hit (" + str(ops) + " requests, " + str(fired) +
		    " faults fired)");
	tap(klog.complaints == 0, "no kernel complaint in the log");
	say("1.." + str(g_tap));
	say("# " + str(busy) + " s: " + str(ops) + " requests (" + str(ops / std::max(busy, 1.0)) +
	    " per s): get " + str(sum.get) + ", set " + str(sum.set) + ", clear " +
	    str(sum.clear) + ", foreign get " + str(sum.foreign) + "; failed by faults " +
	    str(sum.failed) + "; 0xff content left by interrupted clears read " +
	    str(sum.ghosts) + " times");
	std::string armed = "# faults armed/fired:";
	for (int k = 0; k < kKindCount; k++) {
		unsigned long a = 0, f = 0;
		for (const Injector &i : inj) {
			a += i.armed[k];
			f += i.fired[k];
		}
		armed += std::string(" ") + kKinds[k] + " " + str(a) + "/" + str(f);
	}
	say(armed);
	if (klog.lost)
		say("# kernel log records overwritten before they were read: " + str(klog.lost));
	if (sum.wrong) {
		say("# the faults of the run:");
		for (const Injector &i : inj)
			for (const std::string &e : i.events)
				say("#   " + e);
	}
	if (g_failed)
		say("# " + str(g_failed) + " of " + str(g_tap) + " failed");
	return g_failed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
	signal(SIGPIPE, SIG_IGN);
	if (argc > 1 && std::strcmp(argv[1], "worker") == 0) {
		if (argc < 6)
			return 2;
		return run_worker(std::atoi(argv[2]), std::strtoull(argv[3], nullptr, 10),
				  std::atoi(argv[4]), std::atoi(argv[5]));
	}
	uint64_t seed = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
	double seconds = argc > 2 ? std::atof(argv[2]) : 24;
	if (seconds <= 0) {
		std::fprintf(stderr, "usage: stress [SEED] [SECONDS]\n");
		return 2;
	}
	return run_controller(seed, seconds);
}
