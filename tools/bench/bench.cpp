// SPDX-License-Identifier: GPL-2.0
//
// Ioctl round trips per second in the VM, for a static get and a dynamic
// get, each as a ratio to the cheapest request the device file refuses (the
// item command with argument 0: the driver logs one error line and returns
// -EINVAL before it copies anything). The emulated CPU's speed cancels out
// of the ratio; what remains is the store's own work per request.
//
//   bench          (as root, from the init) hands the node to the daemon's
//                  uid and runs "bench run" as the daemon
//   bench run      stores the items, then measures; TAP on stdout
#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "uapi/user_cfg.h"

namespace {

constexpr const char *kNode = "/dev/user_config";
constexpr const char *kDaemonExe = "/var/devmgr_daemon";
constexpr uid_t kDaemonUid = 1101;
constexpr double kSeconds = 3.0;

using Clock = std::chrono::steady_clock;

int item(int fd, unsigned cmd, const char *name, void *buf, unsigned size)
{
	user_cfg_para p;
	std::memset(&p, 0, sizeof(p));
	p.cmd = cmd;
	std::memcpy(p.name, name, std::min(std::strlen(name), sizeof(p.name)));
	p.buf_size = size;
	p.buf = reinterpret_cast<std::uintptr_t>(buf);
	return ioctl(fd, USER_CFG_IOC_ITEM, &p) == 0 ? 0 : -errno;
}

// Calls per second of f over kSeconds; 0 if a call fails the check.
double rate(const std::function<bool()> &f)
{
	unsigned long n = 0;
	const Clock::time_point start = Clock::now();
	const Clock::time_point end =
		start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kSeconds));
	Clock::time_point now = start;
	while (now < end) {
		for (int i = 0; i < 50; i++, n++)
			if (!f())
				return 0;
		now = Clock::now();
	}
	return n / std::chrono::duration<double>(now - start).count();
}

int run()
{
	int fd = open(kNode, O_RDWR);
	if (fd < 0) {
		std::printf("not ok 1 open %s: %s\n", kNode, std::strerror(errno));
		return 1;
	}
	unsigned char one = 1, value[100];
	for (unsigned i = 0; i < sizeof(value); i++)
		value[i] = static_cast<unsigned char>(i * 7);
	int set_s = item(fd, USER_CFG_CMD_SET, "ssh_status", &one, 1);
	int set_d = item(fd, USER_CFG_CMD_SET, "bench_item", value, sizeof(value));
	std::printf("%s 1 the items are stored (%d, %d)\n",
		    set_s == 0 && set_d == 0 ? "ok" : "not ok", set_s, set_d);
	if (set_s != 0 || set_d != 0)
		return 1;

	unsigned char buf[4096];
	double noop = rate([&] { return ioctl(fd, USER_CFG_IOC_ITEM, 0UL) == -1 && errno == EINVAL; });
	double sget = rate([&] { return item(fd, USER_CFG_CMD_GET, "ssh_status", buf, 1) == 0 && buf[0] == 1; });
	double dget = rate([&] {
		return item(fd, USER_CFG_CMD_GET, "bench_item", buf, sizeof(buf)) == 0 &&
		       std::memcmp(buf, value, sizeof(value)) == 0;
	});
	close(fd);
	bool ok = noop > 0 && sget > 0 && dget > 0;
	std::printf("%s 2 round trips measured\n", ok ? "ok" : "not ok");
	std::printf("# bench: no-op ioctl (argument 0) %.0f per second\n", noop);
	if (ok) {
		std::printf("# bench: static get (ssh_status) %.0f per second, %.1fx the no-op's time\n",
			    sget, noop / sget);
		std::printf("# bench: dynamic get (100 bytes) %.0f per second, %.1fx the no-op's time\n",
			    dget, noop / dget);
	}
	return ok ? 0 : 1;
}

// Hands the node to the daemon's uid and reruns this program as the daemon
// (the whitelist lets only it store the items).
int as_daemon()
{
	// The refused request logs an error line; printed on the emulated
	// serial console it would cost more than the request itself. The
	// kernel log still receives it.
	if (std::system("dmesg -n 1") != 0)
		return 1;
	if (chown(kNode, kDaemonUid, kDaemonUid) != 0) {
		std::printf("not ok 1 chown %s: %s\n", kNode, std::strerror(errno));
		return 1;
	}
	std::fflush(stdout);
	pid_t pid = fork();
	if (pid == 0) {
		if (setgroups(0, nullptr) != 0 ||
		    setresgid(kDaemonUid, kDaemonUid, kDaemonUid) != 0 ||
		    setresuid(kDaemonUid, kDaemonUid, kDaemonUid) != 0)
			_exit(121);
		char a0[] = "/var/devmgr_daemon", a1[] = "run";
		char *argv[] = {a0, a1, nullptr};
		execv(kDaemonExe, argv);
		_exit(122);
	}
	int st = 0;
	if (pid < 0 || waitpid(pid, &st, 0) != pid)
		return 1;
	return WIFEXITED(st) ? WEXITSTATUS(st) : 1;
}

} // namespace

int main(int argc, char **argv)
{
	std::setvbuf(stdout, nullptr, _IOLBF, 0);
	if (argc > 1 && std::string(argv[1]) == "run")
		return run();
	return as_daemon();
}
