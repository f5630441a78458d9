// SPDX-License-Identifier: GPL-2.0
//
// The store's cost per operation, in the uninstrumented host build, against
// its floor: the same primitives (the flash simulator's block transfer, the
// same SHA-256, the same zero-filled allocations, a 64 KiB compare for each
// compare and verify of a written block) doing only the work the operation
// is bound to do. The work is taken from the simulator's counters of the
// operation itself; tests/host/test_budgets.cpp holds those counters equal
// to the budgets the store's rules give, so the floor is that budget's cost
// and the ratio operation / floor is everything else: control flow, name
// lookup, copies, log formatting, the test bed's bookkeeping.
//
//   ucfg_bench [OUT.md] [--quick] [--only "STATE/OPERATION"]
//
// Prints a Markdown report and writes it to OUT.md when given.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <sstream>
#include <string>
#include <vector>

#include "entry_helpers.h"
#include "model.h"
#include "testbed.h"
#include "ucfg_tb/shim.h"

#ifdef UCFG_HAVE_UBOOTENV
#include <libuboot.h>
#endif

extern "C" {
#include <crypto/hash.h>
#include <linux/gfp.h>
#include "common/siblings.h"
}

namespace {

using model::Bytes;
using model::pattern;
namespace fl = tb::flash;
namespace st = model::store;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using Clock = std::chrono::steady_clock;

u32 g_iters = 200;

// ---------------------------------------------------------------------------
// What one operation did, from the test bed's counters.
struct Work {
	u32 reads = 0, writes = 0, digests = 0, allocs = 0;
	u64 hashed = 0, alloc_bytes = 0, peak = 0;
	bool operator==(const Work &o) const
	{
		return reads == o.reads && writes == o.writes && digests == o.digests &&
		       allocs == o.allocs && hashed == o.hashed &&
		       alloc_bytes == o.alloc_bytes;
	}
};

struct Counters {
	u32 digests, allocs;
	u64 hashed, alloc_bytes;
	static Counters now()
	{
		return {tb::crypto::digests(), tb::alloc::calls(), tb::crypto::bytes_hashed(),
			tb::alloc::bytes_allocated()};
	}
};

// ---------------------------------------------------------------------------
// The floor: the mandated work done with the bare primitives.
struct FloorBufs {
	std::vector<u8> a = std::vector<u8>(fl::kBlockSize, 0x5a);
	std::vector<u8> b = std::vector<u8>(fl::kBlockSize, 0x5a);
	std::vector<u8> in = std::vector<u8>(fl::kBlockSize);
};

u32 offset_of(u32 blk)
{
	return (blk + fl::kBaseBlock) * fl::kBlockSize;
}

void digest(const u8 *data, u32 len)
{
	struct crypto_shash *tfm = crypto_alloc_shash("sha256", 0, 0);
	SHASH_DESC_ON_STACK(desc, tfm);
	u8 out[SHA256_DIGEST_SIZE];

	desc->tfm = tfm;
	crypto_shash_init(desc);
	crypto_shash_update(desc, data, len);
	crypto_shash_final(desc, out);
	crypto_free_shash(tfm);
}

void run_floor(const Work &w, FloorBufs &fb)
{
	std::vector<void *> bufs;
	for (u32 i = 0; i < w.allocs; i++)
		bufs.push_back(tb_alloc(static_cast<size_t>(w.alloc_bytes / w.allocs),
					GFP_KERNEL | __GFP_ZERO, TB_ALLOC_VMALLOC));
	// Reads of the head copies and the blocks; writes to block 1, which
	// the store never uses. Each written block is compared before and
	// verified after.
	for (u32 i = 0; i < w.reads; i++)
		sec_flash_read(0, offset_of(0), fb.in.data(), fl::kBlockSize);
	for (u32 i = 0; i < w.writes; i++) {
		sec_flash_write(0, offset_of(1), fb.a.data(), fl::kBlockSize);
		if (std::memcmp(fb.a.data(), fb.b.data(), fl::kBlockSize) != 0 ||
		    std::memcmp(fb.b.data(), fb.a.data(), fl::kBlockSize) != 0)
			std::abort();
	}
	// As many digests, over as many bytes in all, as the operation made
	// (every digest covers at most one block, so their mean does too).
	u64 left = w.hashed;
	for (u32 i = 0; i < w.digests; i++) {
		u32 n = static_cast<u32>(left / (w.digests - i));
		digest(fb.a.data(), n);
		left -= n;
	}
	for (void *p : bufs)
		tb_free(p, TB_ALLOC_VMALLOC);
}

// ---------------------------------------------------------------------------
// Store states (device 0), built through the entry points.
struct StoreState {
	std::string name;
	fl::Image area;
	std::string target;	// a dynamic item present in it ("" if none)
	u32 target_len = 0;
	bool get_only = false;	// measure the dynamic get alone
};

void restore(const StoreState &s)
{
	fl::load_area(0, s.area);
	fl::clear_trace();
	tb::log::clear();
}

void must(int rc, const std::string &what)
{
	if (rc != 0) {
		std::cerr << "ucfg_bench: " << what << " failed: " << rc << "\n";
		std::exit(1);
	}
}

std::string rec_name(u32 i)
{
	char n[16];
	std::snprintf(n, sizeof(n), "rec%04u", i);
	return n;
}

// n records of len bytes each, named rec0000...
void add_records(u32 from, u32 to, u32 len)
{
	for (u32 i = from; i < to; i++)
		must(st::set(0, rec_name(i), pattern(len, i)), "set " + rec_name(i));
}

std::vector<StoreState> build_states()
{
	std::vector<StoreState> out;
	tb::reset();
	st::become_daemon();
	tb::log::set_keep(false);
	out.push_back({"empty", fl::area(0), "", 0});

	// 100 items of 64 to 1,000 bytes, and a stored static value.
	must(st::set(0, "ssh_status", {1}), "set ssh_status");
	for (u32 i = 0; i < 100; i++)
		must(st::set(0, rec_name(i), pattern(64 + (i * 97) % 937, i)), "set");
	out.push_back({"100 items", fl::area(0), rec_name(50), 64 + (50 * 97) % 937});

	// The same with the main copy of one item's slot damaged: its get
	// reads the backup slot and restores the main one.
	const fl::Image head0 = fl::block(0, 0);
	const user_cfg_head_blk *h = reinterpret_cast<const user_cfg_head_blk *>(head0.data());
	for (u32 i = 0; i < h->head_len / sizeof(user_cfg_item_head); i++)
		if (rec_name(50) == std::string(h->item_head[i].name))
			fl::flip_bits(0, h->item_head[i].blk_offset,
				      h->item_head[i].item_offset, 0x01);
	out.push_back({"100 items, one main slot damaged", fl::area(0), rec_name(50),
		       64 + (50 * 97) % 937, true});
	fl::load_area(0, out[1].area);

	// The table full: 1,099 records of 800 bytes.
	add_records(100, 1099, 800);
	for (u32 i = 0; i < 100; i++)
		must(st::set(0, rec_name(i), pattern(800, i)), "resize");
	out.push_back({"1,099 records", fl::area(0), rec_name(549), 800});

	// Every content block full (two slots each), one slot of block 2
	// cleared: the next new item needs the rebuild.
	tb::reset();
	st::become_daemon();
	tb::log::set_keep(false);
	must(st::set(0, "ssh_status", {1}), "set ssh_status");
	for (u32 b = 2; b <= 31; b++) {
		must(st::set(0, "x" + std::to_string(b), pattern(32768, b)), "set x");
		must(st::set(0, "y" + std::to_string(b), pattern(32700, b)), "set y");
	}
	must(st::clear(0, "y2"), "clear y2");
	out.push_back({"blocks full", fl::area(0), "y16", 32700});
	return out;
}

// ---------------------------------------------------------------------------
// An operation: given the state, prepares its arguments (outside the
// timing) and returns the call to time.
using Call = std::function<int()>;
struct Op {
	std::string name;
	bool needs_target;
	std::function<Call(const StoreState &)> prepare;
};

Call get_of(const std::string &name)
{
	return [name] { return st::get(0, name).rc; };
}

Call set_of(const std::string &name, Bytes v)
{
	return [name, v] { return st::set(0, name, v); };
}

Call clear_of(const std::string &name)
{
	return [name] { return st::clear(0, name); };
}

u32 seed_of(const StoreState &s)
{
	return static_cast<u32>(std::stoul(s.target.substr(s.target[0] == 'r' ? 3 : 1)));
}

std::vector<Op> ops()
{
	return {
		{"static get", false, [](const StoreState &) { return get_of("ssh_status"); }},
		{"static set, changed", false,
		 [](const StoreState &s) {
			 return set_of("ssh_status", {s.target.empty() ? u8(1) : u8(0)});
		 }},
		{"static set, unchanged", true,
		 [](const StoreState &) { return set_of("ssh_status", {1}); }},
		{"static clear", false, [](const StoreState &) { return clear_of("ssh_status"); }},
		{"dynamic get", false,
		 [](const StoreState &s) { return get_of(s.target.empty() ? "absent" : s.target); }},
		{"dynamic new item", false,
		 [](const StoreState &) { return set_of("brand_new", pattern(100, 7)); }},
		{"same length, changed", true,
		 [](const StoreState &s) { return set_of(s.target, pattern(s.target_len, 999)); }},
		{"same length, unchanged", true,
		 [](const StoreState &s) {
			 return set_of(s.target, pattern(s.target_len, seed_of(s)));
		 }},
		{"shorter", true,
		 [](const StoreState &s) { return set_of(s.target, pattern(s.target_len / 2, 5)); }},
		{"longer", true,
		 [](const StoreState &s) {
			 return set_of(s.target, pattern(std::min(s.target_len + 64, 32768u), 5));
		 }},
		{"dynamic clear", false,
		 [](const StoreState &s) { return clear_of(s.target.empty() ? "absent" : s.target); }},
	};
}

struct Row {
	std::string state, op;
	int rc;
	Work work;
	double median_us, p99_us, floor_us;
};

double pct(std::vector<double> v, double p)
{
	std::sort(v.begin(), v.end());
	std::size_t i = static_cast<std::size_t>(p * (v.size() - 1) + 0.5);
	return v[std::min(i, v.size() - 1)];
}

double us(Clock::duration d)
{
	return std::chrono::duration<double, std::micro>(d).count();
}

// Runs op iters times on a fresh copy of the state each time, and the
// floor of its work right after each run, under the same conditions.
Row measure(const StoreState &s, const Op &op, u32 iters)
{
	Row r{s.name, op.name, 0, {}, 0, 0, 0};
	std::vector<double> t_op, t_floor;
	FloorBufs fb;
	const Call call = op.prepare(s);

	for (u32 i = 0; i < iters + 1; i++) {
		restore(s);
		const u32 r0 = fl::total_reads(), w0 = fl::total_writes();
		const Counters c0 = Counters::now();
		tb::alloc::reset_peak();
		auto a = Clock::now();
		int rc = call();
		auto b = Clock::now();
		const Counters c1 = Counters::now();
		Work w;
		w.reads = fl::total_reads() - r0;
		w.writes = fl::total_writes() - w0;
		w.digests = c1.digests - c0.digests;
		w.hashed = c1.hashed - c0.hashed;
		w.allocs = c1.allocs - c0.allocs;
		w.alloc_bytes = c1.alloc_bytes - c0.alloc_bytes;
		w.peak = tb::alloc::peak_bytes() - tb::alloc::outstanding_bytes();
		if (i == 0) {	// warm-up; fixes the work
			r.rc = rc;
			r.work = w;
			continue;
		}
		if (!(w == r.work) || rc != r.rc) {
			std::cerr << "ucfg_bench: " << s.name << " / " << op.name
				  << " did different work on a repeat\n";
			std::exit(1);
		}
		t_op.push_back(us(b - a));

		restore(s);
		a = Clock::now();
		run_floor(r.work, fb);
		b = Clock::now();
		t_floor.push_back(us(b - a));
	}
	r.median_us = pct(t_op, 0.5);
	r.p99_us = pct(t_op, 0.99);
	r.floor_us = pct(t_floor, 0.5);
	return r;
}

const Row &find_row(const std::vector<Row> &rows, const std::string &state,
		    const std::string &op)
{
	for (const Row &r : rows)
		if (r.state == state && r.op == op)
			return r;
	std::abort();
}

std::string fmt(double v, int prec = 1)
{
	char b[32];
	std::snprintf(b, sizeof(b), "%.*f", prec, v);
	return b;
}

std::string table(const std::vector<Row> &rows)
{
	std::ostringstream o;
	o << "| state | operation | result | median µs | p99 µs | floor µs | ratio "
	     "| reads | writes | hashed bytes | digests | peak memory |\n"
	  << "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
	for (const Row &r : rows)
		o << "| " << r.state << " | " << r.op << " | " << r.rc << " | "
		  << fmt(r.median_us) << " | " << fmt(r.p99_us) << " | " << fmt(r.floor_us)
		  << " | " << fmt(r.median_us / r.floor_us, 2) << " | " << r.work.reads
		  << " | " << r.work.writes << " | " << r.work.hashed << " | "
		  << r.work.digests << " | " << r.work.peak << " |\n";
	return o.str();
}

// ---------------------------------------------------------------------------
// Growth: a get of the last record as the table grows (the lookup walks
// the records in order), and a get and a changed same-length update as the
// content grows.
std::string growth()
{
	std::ostringstream o;
	const Op get{"get", false, [](const StoreState &s) { return get_of(s.target); }};
	const Op upd{"update", false, [](const StoreState &s) {
			     return set_of(s.target, pattern(s.target_len, 4242));
		     }};

	o << "### Records in the table (get of the last record, 100 bytes each)\n\n"
	  << "| records | median µs | floor µs | ratio | µs above floor |\n|---:|---:|---:|---:|---:|\n";
	tb::reset();
	st::become_daemon();
	tb::log::set_keep(false);
	u32 have = 0;
	for (u32 n : {1u, 10u, 100u, 300u, 600u, 1099u}) {
		add_records(have, n, 100);
		have = n;
		StoreState s{"", fl::area(0), rec_name(n - 1), 100};
		Row r = measure(s, get, g_iters);
		o << "| " << n << " | " << fmt(r.median_us) << " | " << fmt(r.floor_us) << " | "
		  << fmt(r.median_us / r.floor_us, 2) << " | "
		  << fmt(r.median_us - r.floor_us) << " |\n";
	}

	o << "\n### Content size (one item on the device)\n\n"
	  << "| bytes | get median µs | get floor µs | get ratio | update median µs "
	     "| update floor µs | update ratio |\n|---:|---:|---:|---:|---:|---:|---:|\n";
	for (u32 n : {16u, 256u, 4096u, 16384u, 32768u}) {
		tb::reset();
		st::become_daemon();
		tb::log::set_keep(false);
		must(st::set(0, "item", pattern(n, 1)), "set item");
		StoreState s{"", fl::area(0), "item", n};
		Row g = measure(s, get, g_iters);
		Row u = measure(s, upd, g_iters);
		o << "| " << n << " | " << fmt(g.median_us) << " | " << fmt(g.floor_us) << " | "
		  << fmt(g.median_us / g.floor_us, 2) << " | " << fmt(u.median_us) << " | "
		  << fmt(u.floor_us) << " | " << fmt(u.median_us / u.floor_us, 2) << " |\n";
	}
	return o.str();
}

// The refused request (item command, argument 0) against a static get: the
// same ratio the VM measures, on this machine.
std::string noop_ratio(const StoreState &s)
{
	const Op noop{"no-op", false, [](const StoreState &) {
			      return Call([] { return entry::ioctl(nullptr); });
		      }};
	const Op get{"static get", false, [](const StoreState &) { return get_of("ssh_status"); }};
	Row n = measure(s, noop, g_iters);
	Row g = measure(s, get, g_iters);
	return "No-op ioctl (argument 0, result " + std::to_string(n.rc) + "): " +
	       fmt(n.median_us, 2) + " µs; static get on \"" + s.name + "\": " +
	       fmt(g.median_us) + " µs, " + fmt(g.median_us / n.median_us, 0) +
	       "x the no-op's time.\n";
}

// What the test bed's log capture would add, on the cheapest operation.
std::string log_overhead(const StoreState &s)
{
	const Op get{"static get", false, [](const StoreState &) { return get_of("ssh_status"); }};
	tb::log::set_keep(false);
	Row off = measure(s, get, g_iters);
	tb::log::set_keep(true);
	Row on = measure(s, get, g_iters);
	tb::log::set_keep(false);
	return "Static get on \"" + s.name + "\": " + fmt(off.median_us) +
	       " µs with log lines formatted and dropped, " + fmt(on.median_us) +
	       " µs with the test bed parsing and keeping them.\n";
}

// ---------------------------------------------------------------------------
// The alternative: a redundant environment of two 64 KiB copies in files,
// set and read through the environment tools (a process each time, as a
// script would) and through their library (in process).
extern "C" char **environ;

double median_of(u32 n, const std::function<void()> &f)
{
	std::vector<double> t;
	f();	// warm-up
	for (u32 i = 0; i < n; i++) {
		auto a = Clock::now();
		f();
		t.push_back(us(Clock::now() - a));
	}
	return pct(t, 0.5);
}

int run_tool(const std::vector<std::string> &args)
{
	std::vector<char *> argv;
	for (const std::string &a : args)
		argv.push_back(const_cast<char *>(a.c_str()));
	argv.push_back(nullptr);
	posix_spawn_file_actions_t fa;
	posix_spawn_file_actions_init(&fa);
	posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
	posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
	pid_t pid;
	int rc = posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ);
	posix_spawn_file_actions_destroy(&fa);
	if (rc != 0)
		return -1;
	int status = 0;
	waitpid(pid, &status, 0);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string alternative(const Row &set, const Row &get)
{
	std::ostringstream o;
	char dir[] = "/tmp/ucfg-bench-XXXXXX";
	if (!mkdtemp(dir))
		return "No temporary directory: comparison skipped.\n";
	const std::string d = dir, cfg = d + "/fw_env.config";
	for (const char *f : {"/env0", "/env1"})
		std::ofstream(d + f, std::ios::binary) << std::string(65536, '\0');
	std::ofstream(cfg) << d << "/env0 0x0 0x10000\n" << d << "/env1 0x0 0x10000\n";
	// Blank copies hold no valid environment: the first set starts
	// from a default one.
	std::ofstream(d + "/default") << "bootdelay=3\n";
	const u32 n = std::max(g_iters / 4, 10u);
	u32 flip = 0;

	o << "| way | set one value, median µs | read one value, median µs "
	     "| set / store's static set | read / store's static get |\n"
	  << "|---|---:|---:|---:|---:|\n"
	  << "| this store, in process | " << fmt(set.median_us) << " | "
	  << fmt(get.median_us) << " | 1.00 | 1.00 |\n";
	if (run_tool({"fw_setenv", "-c", cfg, "-f", d + "/default", "ssh_status", "1"}) == 0) {
		double ts = median_of(n, [&] {
			run_tool({"fw_setenv", "-c", cfg, "ssh_status", (flip++ & 1) ? "1" : "0"});
		});
		double tg = median_of(n, [&] { run_tool({"fw_printenv", "-c", cfg, "ssh_status"}); });
		o << "| fw_setenv / fw_printenv, one process each | " << fmt(ts) << " | "
		  << fmt(tg) << " | " << fmt(ts / set.median_us, 2) << " | "
		  << fmt(tg / get.median_us, 2) << " |\n";
	} else {
		o << "| fw_setenv / fw_printenv | not installed | | | |\n";
	}
#ifdef UCFG_HAVE_UBOOTENV
	// The library keeps its lock file locked after a session ends, so a
	// second session in the same process would wait for ever: each one
	// runs in a child of its own, which times itself from configuring
	// the library to releasing it (the fork is not counted).
	auto session = [&](const std::function<void(struct uboot_ctx *)> &f) {
		int fds[2];
		double t = -1;
		if (pipe(fds) != 0)
			return t;
		pid_t pid = fork();
		if (pid == 0) {
			auto a = Clock::now();
			struct uboot_ctx *ctx = nullptr;
			if (libuboot_initialize(&ctx, nullptr) == 0) {
				if (libuboot_read_config(ctx, cfg.c_str()) == 0 &&
				    libuboot_open(ctx) == 0) {
					f(ctx);
					libuboot_close(ctx);
				}
				libuboot_exit(ctx);
			}
			double took = us(Clock::now() - a);
			ssize_t w = write(fds[1], &took, sizeof(took));
			_exit(w == sizeof(took) ? 0 : 1);
		}
		close(fds[1]);
		if (pid > 0) {
			if (read(fds[0], &t, sizeof(t)) != sizeof(t))
				t = -1;
			waitpid(pid, nullptr, 0);
		}
		close(fds[0]);
		return t;
	};
	auto median_session = [&](const std::function<void(struct uboot_ctx *)> &f) {
		std::vector<double> t;
		for (u32 i = 0; i < n; i++, flip++)
			t.push_back(session(f));
		return pct(t, 0.5);
	};
	double ls = median_session([&](struct uboot_ctx *ctx) {
		libuboot_set_env(ctx, "ssh_status", (flip & 1) ? "1" : "0");
		libuboot_env_store(ctx);
	});
	double lg = median_session(
		[&](struct uboot_ctx *ctx) { std::free(libuboot_get_env(ctx, "ssh_status")); });
	o << "| libubootenv in process: one session (configure, open, set and store, or "
	     "get; close) per request | "
	  << fmt(ls) << " | " << fmt(lg) << " | " << fmt(ls / set.median_us, 2) << " | "
	  << fmt(lg / get.median_us, 2) << " |\n";
#else
	o << "| libubootenv | not installed | | | |\n";
#endif
	for (const char *f : {"/env0", "/env1", "/fw_env.config", "/default"})
		unlink((d + f).c_str());
	rmdir(dir);
	return o.str();
}

} // namespace

int main(int argc, char **argv)
{
	std::string out, only;
	for (int i = 1; i < argc; i++) {
		if (std::string(argv[i]) == "--quick")
			g_iters = 20;
		else if (std::string(argv[i]) == "--only" && i + 1 < argc)
			only = argv[++i];	// "STATE/OPERATION": that row alone
		else
			out = argv[i];
	}

	// Keep freed memory in the process: otherwise the C library hands
	// large blocks back to the system and the next run pays page faults
	// for them, a cost of the host's allocator that neither the kernel's
	// vmalloc nor the floor shares in the same way.
	mallopt(M_TRIM_THRESHOLD, 256 << 20);
	mallopt(M_MMAP_THRESHOLD, 32 << 20);

	std::vector<StoreState> states = build_states();
	std::vector<Row> rows;
	for (const StoreState &s : states) {
		for (const Op &op : ops()) {
			if (op.needs_target && s.target.empty())
				continue;
			if (s.get_only && op.name != "dynamic get")
				continue;
			if (!only.empty() && only != s.name + "/" + op.name)
				continue;
			u32 iters = s.name == "blocks full" && op.name == "dynamic new item"
					    ? std::max(g_iters / 4, 10u)
					    : g_iters;
			rows.push_back(measure(s, op, iters));
			if (s.name == "blocks full" && op.name == "dynamic new item")
				rows.back().op = "dynamic new item (rebuild)";
		}
	}

	if (!only.empty()) {	// for a profiler: no other section
		std::cout << table(rows);
		return 0;
	}
	std::ostringstream rep;
	rep << "## Operations (" << g_iters << " runs each; the rebuild "
	    << std::max(g_iters / 4, 10u) << ")\n\n"
	    << table(rows) << "\n" << log_overhead(states[1]) << "\n"
	    << noop_ratio(states[1]) << "\n## Growth\n\n"
	    << growth() << "\n## The alternative (store state \"100 items\")\n\n"
	    << alternative(find_row(rows, "100 items", "static set, changed"),
			   find_row(rows, "100 items", "static get"));
	std::cout << rep.str();
	if (!out.empty())
		std::ofstream(out) << rep.str();
	return 0;
}
