// SPDX-License-Identifier: GPL-2.0
//
// make bench: what one request costs in the module's own code, in user
// space, optimised, on the test bed's flash simulator; against the floor
// of the flash traffic it is bound to make, and against the environment
// tools users otherwise reach for, both in memory.
//
//   ucfg_bench [OUT.md]
//
// Every row runs its operation on a fresh copy of a store state (restored
// outside the timing) in rounds of 100 until the 99th percentile of two
// rounds in a row agrees within 10 % (at most 20 rounds), so that a
// scheduling hiccup does not stand as the tail.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "bed.h"
#include "oracle.h"

extern "C" {
#include "common/siblings.h"
}

namespace {

using namespace ucfg;
namespace fl = tb::flash;
using Clock = std::chrono::steady_clock;

struct Stats {
	double median, p99;
	u32 rounds;
};

double us(Clock::duration d)
{
	return std::chrono::duration<double, std::micro>(d).count();
}

// prepare() outside the timing, then op() timed; rounds of 100 until the
// tail settles.
Stats measure(const std::function<void()> &prepare, const std::function<void()> &op)
{
	std::vector<double> all;
	double last = -1, p99 = 0;
	u32 r = 0;
	for (; r < 20; r++) {
		std::vector<double> round;
		for (int i = 0; i < 100; i++) {
			prepare();
			auto t0 = Clock::now();
			op();
			round.push_back(us(Clock::now() - t0));
		}
		all.insert(all.end(), round.begin(), round.end());
		std::sort(round.begin(), round.end());
		p99 = round[98];
		if (last > 0 && std::abs(p99 - last) <= 0.1 * last)
			break;
		last = p99;
	}
	std::sort(all.begin(), all.end());
	return {all[all.size() / 2], p99, r + 1};
}

std::string errno_name(int rc)
{
	static const std::pair<int, const char *> names[] = {
		{0, "0"}, {-ENOENT, "-ENOENT"}, {-ENOSPC, "-ENOSPC"}, {-EINVAL, "-EINVAL"},
		{-ENXIO, "-ENXIO"}, {-ENODEV, "-ENODEV"}, {-EACCES, "-EACCES"}};
	for (const auto &n : names)
		if (n.first == rc)
			return n.second;
	return std::to_string(rc);
}

std::string fmt(double v, int digits = 0)
{
	char b[32];
	std::snprintf(b, sizeof(b), "%.*f", digits, v);
	return b;
}

// The states of device 0 the rows start from, built through the entry.
void state(const std::string &s)
{
	tb::reset();
	tb::task::set(tb::task::daemon());
	if (s == "empty")
		return;
	set(0, "ssh_status", {1});
	if (s == "blocks full") {
		for (u32 b = 2; b <= 31; b++) {
			set(0, "x" + std::to_string(b), pattern(32768, b));
			set(0, "y" + std::to_string(b), pattern(32700, b));
		}
		clear(0, "y2");
		return;
	}
	for (u32 i = 0; i < 100; i++)
		set(0, "item" + std::to_string(i), pattern(64 + 9 * i, i));
	if (s == "100 items, one main slot damaged")
		fl::at(0, 2)[10] ^= 1;
}

struct Row {
	const char *state, *op;
	std::function<int()> run;
};

// The floor: the same number of block reads and writes through the
// simulator, nothing else.
double floor_us(u32 reads, u32 writes)
{
	static Bytes buf(fl::kBlock);
	Stats s = measure([] {}, [&] {
		for (u32 i = 0; i < reads; i++)
			sec_flash_read(0, 165 * fl::kBlock, buf.data(), fl::kBlock);
		for (u32 i = 0; i < writes; i++)
			sec_flash_write(0, 165 * fl::kBlock, buf.data(), fl::kBlock);
	});
	return s.median;
}

int tool(const std::vector<std::string> &argv)
{
	pid_t pid = fork();
	if (pid == 0) {
		std::vector<char *> a;
		for (const auto &s : argv)
			a.push_back(const_cast<char *>(s.c_str()));
		a.push_back(nullptr);
		freopen("/dev/null", "w", stdout);
		freopen("/dev/null", "w", stderr);
		execvp(a[0], a.data());
		_exit(127);
	}
	int st = 0;
	waitpid(pid, &st, 0);
	return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// The environment tools on a redundant 64 KiB environment in tmpfs, so
// that both sides keep their data in memory.
std::string environment_tools(double set_us, double get_us)
{
	std::string d = "/dev/shm/ucfg-bench-" + std::to_string(getpid()), cfg = d + "/fw_env.config";
	if (tool({"mkdir", "-p", d}) != 0)
		return "No /dev/shm: comparison skipped.\n";
	for (const char *f : {"/env0", "/env1"})
		std::ofstream(d + f, std::ios::binary) << std::string(65536, '\0');
	std::ofstream(cfg) << d << "/env0 0x0 0x10000\n" << d << "/env1 0x0 0x10000\n";
	// Blank copies hold no environment: the first set starts from a default.
	std::ofstream(d + "/default") << "bootdelay=3\n";
	std::string out;
	if (tool({"fw_setenv", "-c", cfg, "-f", d + "/default", "ssh_status", "1"}) == 0) {
		u32 flip = 0;
		Stats s = measure([] {}, [&] {
			tool({"fw_setenv", "-c", cfg, "ssh_status", flip++ & 1 ? "1" : "0"});
		});
		Stats g = measure([] {}, [&] { tool({"fw_printenv", "-c", cfg, "ssh_status"}); });
		out = "| fw_setenv / fw_printenv (a process each), tmpfs | " + fmt(s.median) + " | " +
		      fmt(g.median) + " | " + fmt(s.median / set_us, 1) + " | " +
		      fmt(g.median / get_us, 1) + " |\n";
	} else {
		out = "| fw_setenv / fw_printenv | not installed | | | |\n";
	}
	tool({"rm", "-rf", d});
	return out;
}

} // namespace

int main(int argc, char **argv)
{
	const Row rows[] = {
		{"empty", "static get", [] { return get(0, "ssh_status", 1).rc; }},
		{"100 items", "static get", [] { return get(0, "ssh_status", 1).rc; }},
		{"100 items", "static set", [] { return set(0, "ssh_status", {0}); }},
		{"100 items", "static set, same value", [] { return set(0, "ssh_status", {1}); }},
		{"100 items", "named get", [] { return get(0, "item50", 32768).rc; }},
		{"100 items", "named get, absent", [] { return get(0, "nobody", 32768).rc; }},
		{"100 items", "named set, new", [] { return set(0, "new", pattern(100, 1)); }},
		{"100 items", "named set, same length",
		 [] { return set(0, "item50", pattern(514, 7)); }},
		{"100 items", "named set, longer", [] { return set(0, "item50", pattern(900, 7)); }},
		{"100 items", "named clear", [] { return clear(0, "item50"); }},
		{"100 items", "view", [] { return view_text(0).empty() ? -1 : 0; }},
		{"100 items, one main slot damaged", "named get (repairs the slot)",
		 [] { return get(0, "item0", 32768).rc; }},
		{"blocks full", "named set, new (compacts)", [] { return set(0, "c", pattern(100, 3)); }},
	};
	std::ostringstream o;
	o << "# make bench\n\n"
	     "Each row: one request of the module's own code (optimised, in user space) on "
	     "device 0 of the test bed, restored to the state before every run.\n\n"
	     "- **median µs, p99 µs**: wall time of one request, in microseconds; p99 is the "
	     "99th percentile of the last round of 100, repeated until two rounds agree "
	     "within 10 %.\n"
	     "- **reads, writes**: 64 KiB block transfers of the request.\n"
	     "- **floor µs**: those transfers alone, through the simulator (a 64 KiB copy "
	     "each): the least any store keeping whole blocks would pay.\n"
	     "- **ratio**: median / floor: what the checks cost on top of moving the blocks "
	     "(SHA-256 of the head copies and slots, compare and read-back, lookups).\n"
	     "- **result**: what the request returned, as an errno name.\n\n"
	     "| state | operation | median µs | p99 µs | reads | writes | floor µs | ratio "
	     "| result |\n|---|---|---:|---:|---:|---:|---:|---:|---|\n";
	double set_us = 0, get_us = 0;
	for (const Row &r : rows) {
		state(r.state);
		std::vector<Bytes> snap = {Bytes(fl::at(0, 0), fl::at(0, 0) + fl::kArea)};
		auto restore = [&] { std::memcpy(fl::at(0, 0), snap[0].data(), fl::kArea); };
		fl::clear_trace();
		int rc = r.run();
		u32 reads = 0, writes = 0;
		for (const auto &t : fl::trace())
			(t.write ? writes : reads)++;
		Stats s = measure([&] {
			restore();
			fl::clear_trace();
			tb::log::clear();
		}, [&] { r.run(); });
		double fl_us = floor_us(reads, writes);
		o << "| " << r.state << " | " << r.op << " | " << fmt(s.median) << " | "
		  << fmt(s.p99) << " | " << reads << " | " << writes << " | " << fmt(fl_us) << " | "
		  << fmt(s.median / fl_us, 1) << " | " << errno_name(rc) << " |\n";
		if (std::string(r.op) == "static set")
			set_us = s.median;
		if (std::string(r.op) == "static get" && std::string(r.state) == "100 items")
			get_us = s.median;
	}
	o << "\n## Against the environment tools\n\n"
	     "The same change of one value (ssh_status) and one read of it; both sides in "
	     "memory (the store on the simulator, the environment files in tmpfs).\n\n"
	     "| way | set µs | read µs | set / store's | read / store's |\n|---|---:|---:|---:|---:|\n"
	  << "| this store, in process | " << fmt(set_us) << " | " << fmt(get_us)
	  << " | 1.0 | 1.0 |\n"
	  << environment_tools(set_us, get_us);
	std::cout << o.str();
	if (argc > 1)
		std::ofstream(argv[1]) << o.str();
	return 0;
}
