// SPDX-License-Identifier: GPL-2.0
//
// The host test bed: the world the module's C code runs in when it is built
// as a user-space library (see tools/shim/ucfg_shim/shim.h). It simulates the
// secure flash with its faults, kernel memory, the control module, the
// platform registers, the current task and its executable, cpuset files,
// and it captures the kernel log.
//
// reset() gives a pristine world: blank flash (0xFF), two devices, board id
// 0, the default task (root with CAP_SYS_ADMIN), no faults, empty log.
// problems() lists what the module left behind or did wrong since then:
// memory, file and symbol references, register mappings, held mutexes, and
// misuse of the kernel API (a flash transfer that is not one whole block of
// the area, a double free, a recursive lock).
#ifndef UCFG_TEST_BED_H
#define UCFG_TEST_BED_H

#include <cstdint>
#include <string>
#include <vector>

namespace tb {

using u8 = std::uint8_t;
using u32 = std::uint32_t;
using Bytes = std::vector<u8>;

void reset();
std::string problems();

namespace flash {
constexpr u32 kBlock = 65536;
constexpr u32 kBlocks = 64;
constexpr u32 kArea = kBlock * kBlocks;

// Block blk of dev in memory; reading or changing it is no transfer.
u8 *at(u32 dev, u32 blk);

enum class Fault {
	None,
	ReadError,	// the nth read fails
	WriteError,	// the nth write fails, nothing changes
	PowerCut,	// the nth write is lost; every later transfer fails
	TornCut,	// the nth write stores a prefix only, then as PowerCut
	TornWrite,	// the nth write stores a prefix only and reports failure
	SilentTear,	// the nth write stores a prefix only and reports success
	Corrupt,	// the nth write stores one changed byte, reports success
};
// nth counts the reads (ReadError) or writes (all others) from now, 1 =
// the next one. A tear keeps torn new bytes; the rest keeps the old ones,
// or reads erased (0xFF) when erased is set. Corrupt changes byte torn.
void arm(Fault f, u32 nth, u32 torn = 0, bool erased = false);
void reboot();	// power back, faults cleared, contents kept

struct Transfer {
	bool write;
	u32 dev, blk;
	int ret;
};
const std::vector<Transfer> &trace();
void clear_trace();
// "R0 W0 R0 R32 W32!": one device's transfers in order, ! when failed.
std::string trace_str(u32 dev = 0);
} // namespace flash

namespace alloc {
void fail_nth(u32 nth);	// the nth allocation from now fails (0: none)
u32 calls();		// since reset()
} // namespace alloc

namespace ctl {
// The control module: loaded or not, the device count it reports and the
// result it returns; the device tree's CPU numbers it hands out.
void set(bool present, u32 dev_num = 2, int ret = 0);
void dts(u32 ctrl, u32 data, u32 ai, int ret = 0);
} // namespace ctl

namespace regs {
void set(u32 board_id, bool ioremap_fails = false);
}

namespace task {
// The calling thread's task. exe is the path the task's own namespace
// shows; host_exe says whether the host's file at that path is the same
// file (false: an impostor in a namespace of its own).
struct Spec {
	std::string comm = "ucfg_test";
	std::string exe = "/usr/bin/ucfg_test";
	u32 uid = 0;
	bool admin = true;	// CAP_SYS_ADMIN
	bool host_exe = true;
};
void set(const Spec &s);
Spec daemon();	// the whitelisted daemon: uid 1101, /var/devmgr_daemon
} // namespace task

namespace files {
void set(const std::string &path, const std::string &content);
void fifo(const std::string &path);
} // namespace files

u32 slept_ms();

namespace log {
struct Line {
	int level;	// 3 error .. 6 info
	bool error_word;	// "[ERROR]" present
	std::string tag, step, msg;
};
std::vector<Line> lines();
void clear();
// A line of step (any step when empty) whose message matches fmt, a
// printf format as the module writes it ("(ret=%d)" matches any number).
bool has(int level, const std::string &step, const std::string &fmt);
std::string dump(std::size_t last = 40);
} // namespace log

} // namespace tb

#endif // UCFG_TEST_BED_H
