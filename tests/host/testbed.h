// SPDX-License-Identifier: GPL-2.0
//
// The host test bed: the world the module's C code runs in when it is built
// as a user-space library. It simulates the secure flash, the control
// module, the platform registers, kernel memory, the hash transform, user
// memory, the current task, the kernel log and a few files, and lets a test
// arm faults in each of them.
//
// Every test starts from a pristine world: derive the fixture from
// tb::Fixture (or call tb::reset() yourself). tb::Fixture::TearDown() fails
// the test when the module leaked anything (memory, symbol references,
// executable-file references, register mappings, hash transforms, open
// files, held mutexes) or broke a kernel-API contract (tb::violations()).
//
// Counting conventions, used throughout:
//  - "nth" is 1-based and counted from the moment the fault is armed, over
//    the calls the fault applies to; nth = 1 means "the very next one".
//  - A fault fires once, unless it is armed "from then on" (sticky).
//  - reset() disarms every fault and zeroes every counter.
//
// Module statics survive reset(): the board-id cache, the signature type
// and the four device mutexes live in the module for the life of the
// process. CTest runs every test in its own process, so each test sees them
// fresh there; running the binary directly shares them between tests.
#ifndef UCFG_TESTBED_H
#define UCFG_TESTBED_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tb {

using u8 = std::uint8_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

// ---------------------------------------------------------------------------
// World

// Restores the pristine world: fresh flash (0xFF), control module present
// with defaults, registers zero, no faults, empty log, counters zero, the
// calling thread's task record back to its default.
void reset();

// Violations of the kernel-API contract seen since reset(): a flash access
// outside the configuration area, a double free, unlocking a mutex the
// thread does not hold, a __symbol_put without a get, ... Any violation
// fails tb::Fixture at TearDown.
std::vector<std::string> violations();
// Returns and forgets the violations (for tests that provoke one on purpose).
std::vector<std::string> take_violations();

// Everything still outstanding that should not be (empty when clean).
std::vector<std::string> leaks();

// Base fixture: reset() before the test; at TearDown, the test fails on any
// violation or leak, with the tail of the kernel log for context.
class Fixture : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;
};

// ---------------------------------------------------------------------------
// Secure flash: devices 0..3, each a configuration area of 64 blocks of
// 64 KiB at flash byte offset (blk + 164) * 65536. A transfer must be
// exactly one aligned whole block inside the area, else it is a violation
// and returns -EINVAL. Devices above 3 return -ENODEV (no violation).
namespace flash {

constexpr u32 kDevices = 4;
constexpr u32 kBlocks = 64;
constexpr u32 kBlockSize = 65536;
constexpr u32 kBaseBlock = 164;
constexpr u32 kAreaSize = kBlocks * kBlockSize;

using Image = std::vector<u8>;	// one block: exactly kBlockSize bytes

// Contents (no transfer is counted).
Image block(u32 dev, u32 blk);
void load_block(u32 dev, u32 blk, const Image &image);
void load_block(u32 dev, u32 blk, const void *data);	// kBlockSize bytes
void fill_block(u32 dev, u32 blk, u8 value);
Image area(u32 dev);					// kAreaSize bytes
void load_area(u32 dev, const Image &area);
// XORs mask into the byte at (dev, blk, offset): bits rotting at rest.
void flip_bits(u32 dev, u32 blk, u32 offset, u8 mask);

// Counters and trace since reset().
u32 reads(u32 dev, u32 blk);
u32 writes(u32 dev, u32 blk);
u32 total_reads();
u32 total_writes();

struct Transfer {
	bool write;
	u32 dev;
	u32 blk;	// block number when the offset was valid, else ~0u
	int ret;	// what sec_flash_read/write returned
};
std::vector<Transfer> trace();
// Compact trace of one device: "R0 W0 R0 R32 W32 R32"; a failed transfer
// carries a '!' ("W32!").
std::string trace_str(u32 dev = 0);
void clear_trace();

// Mark: counts and trace of the transfers made after the last mark().
void mark();
u32 reads_since_mark();
u32 writes_since_mark();
std::string trace_str_since_mark(u32 dev = 0);

// Which transfers a fault counts (default: any device, any block).
struct Where {
	int dev = -1;
	int blk = -1;
};
inline Where on_block(int blk, int dev = -1) { return Where{dev, blk}; }
inline Where on_dev(int dev) { return Where{dev, -1}; }

// The nth matching read/write fails with code and changes nothing. Sticky:
// every matching one from the nth on fails.
void fail_read(u32 nth, int code = -EIO, Where where = {}, bool sticky = false);
void fail_write(u32 nth, int code = -EIO, Where where = {}, bool sticky = false);

// How the rest of a torn block looks.
enum class TearFill { OldBytes, Erased /* 0xFF */ };
// The nth matching write stores only its first new_bytes bytes; the rest
// is old or erased. It returns code, or 0 when silent (a tear the writer
// does not notice; only the read-back can).
void tear_write(u32 nth, u32 new_bytes, TearFill fill = TearFill::OldBytes,
		bool silent = false, int code = -EIO, Where where = {});
// The nth matching write stores the image with byte offset XOR xor_mask
// and returns 0: caught only by a read-back.
void corrupt_write(u32 nth, u32 offset = 0, u8 xor_mask = 0x01, Where where = {});
// Power cut at the nth write (counted over all devices): that write is
// lost, or torn when torn_bytes is given, and it and every later transfer
// fail with -EIO until reboot().
void power_cut(u32 nth_write, std::optional<u32> torn_bytes = std::nullopt,
	       TearFill fill = TearFill::OldBytes);
void reboot();		// power back; contents kept, faults kept
bool powered();

void clear_faults();
u32 faults_fired();	// faults that have triggered at least once
u32 faults_pending();	// armed faults that have not triggered yet

} // namespace flash

// ---------------------------------------------------------------------------
// Control module, looked up with __symbol_get("orvane_ctl_get_dev_num") and
// __symbol_get("orvane_ctl_get_dts_cpu_cfg_to_user_cfg"). Defaults: present,
// 2 devices, DTS CPU numbers ctrl 1, data 0, ai 7, both functions return 0.
namespace ctl {

extern const char *const kGetDevNum;
extern const char *const kGetDtsCpuCfg;

void set_present(bool present);			// both symbols
void set_symbol_present(const char *name, bool present);
void set_dev_num(u32 n);
void set_dev_num_result(int ret);		// non-zero: fails, *out untouched
void set_dts_cpu(u32 ctrl, u32 data, u32 ai);
void set_dts_cpu_result(int ret);

int refs(const char *name);	// __symbol_get minus __symbol_put
u32 gets(const char *name);	// successful lookups
u32 calls(const char *name);	// calls of the function

} // namespace ctl

// ---------------------------------------------------------------------------
// Registers: a 64 KiB window at physical 0x80000000. ioremap() of a range
// inside it maps the emulation; outside it is a violation and gives NULL.
namespace regs {

constexpr u64 kBase = 0x80000000ull;
constexpr u32 kSize = 0x10000;
constexpr u32 kBoardIdOffset = 0xF07C;	// low 16 bits: board id
constexpr u32 kBootCfgOffset = 0xE08C;

void write(u32 offset, u32 value);
u32 read(u32 offset);
void set_board_id(u32 board_id);	// low 16 bits, high bits kept
void set_boot_cfg(u32 value);
void set_ioremap_fails(bool fails);	// ioremap() returns NULL
u32 mappings();			// ioremap minus iounmap
u32 ioremap_calls();
u32 readl_count(u32 offset);	// readl() of that register

} // namespace regs

// ---------------------------------------------------------------------------
// Kernel memory: vmalloc, vzalloc, __vmalloc, kmalloc, kzalloc, kcalloc.
namespace alloc {

u32 calls();			// allocation attempts since reset()
u32 outstanding();		// blocks not freed
std::size_t outstanding_bytes();
std::size_t peak_bytes();
void reset_peak();		// peak from now on: what is outstanding now
u64 bytes_allocated();		// sum of every successful allocation
void fail_nth(u32 nth);		// the nth attempt from now returns NULL
void fail_from(u32 nth);	// every attempt from the nth on returns NULL
void clear_faults();
u32 failures_injected();
unsigned last_gfp();		// flags of the last attempt

} // namespace alloc

// ---------------------------------------------------------------------------
// Hash transforms (crypto_alloc_shash "sha256").
namespace crypto {

void fail_alloc(u32 nth, int code = -ENOMEM, bool sticky = false);
void fail_init(u32 nth, int code = -EINVAL, bool sticky = false);
void fail_update(u32 nth, int code = -EINVAL, bool sticky = false);
void fail_final(u32 nth, int code = -EINVAL, bool sticky = false);
void clear_faults();
u32 allocs();		// crypto_alloc_shash calls
u32 live();		// transforms not freed
u32 digests();		// crypto_shash_final successes
u64 bytes_hashed();	// bytes passed to successful crypto_shash_update

} // namespace crypto

// ---------------------------------------------------------------------------
// User memory: any host address. Marked ranges fault.
namespace user {

// access_ok() fails for any range touching it: the copy returns the whole
// count (copy_from_user zero-fills the destination).
void mark_not_user(const void *addr, std::size_t len);
// access_ok() passes, but the copy stops at the first byte inside it and
// returns the rest. Addresses below 4096 are always unmapped.
void mark_unmapped(const void *addr, std::size_t len);
void clear();
u32 copies_from();	// copy_from_user calls
u32 copies_to();	// copy_to_user calls

} // namespace user

// ---------------------------------------------------------------------------
// The current task, per thread. A new thread, and the calling thread after
// reset(), has the default record: comm "ucfg_test", a stable pid, uid 0,
// CAP_SYS_ADMIN, executable "/usr/bin/ucfg_test".
namespace task {

struct Spec {
	std::string comm = "ucfg_test";	// truncated to 15 bytes
	int pid = 0;			// 0: keep the thread's own pid
	u32 uid = 0;
	bool cap_sys_admin = true;
	std::string exe = "/usr/bin/ucfg_test";	// dentry name = last part
	bool exe_deleted = false;	// d_path appends " (deleted)"
	bool no_active_mm = false;	// current->active_mm == NULL
	bool no_exe_file = false;	// active_mm->exe_file == NULL
	bool no_dentry = false;		// exe_file->f_path.dentry == NULL
	int d_path_error = 0;		// <0: d_path returns ERR_PTR(it)
	bool d_path_null = false;	// d_path returns NULL
};

void set(const Spec &spec);	// for the calling thread
Spec get();
void restore_default();	// for the calling thread
int pid();		// the calling thread's pid
int exe_refs();		// get_mm_exe_file/get_file_rcu minus fput, all threads
int name_snapshots();	// take_ minus release_dentry_name_snapshot
int rcu_unbalanced();	// rcu_read_lock sections left open (this thread)

} // namespace task

// ---------------------------------------------------------------------------
// Captured kernel log.
namespace log {

enum class Level { Error, Warning, Notice, Info, Debug };

struct Record {
	Level level;
	std::string text;	// the line as printed (line end included)
	// Parsed when the line carries the module's prefix
	// "[orvane] [ERROR] [tag] [step line] <comm:pid> msg" (error form) or
	// "[orvane] [tag] [step line] <comm:pid> msg".
	bool prefixed = false;
	bool error_form = false;	// the word ERROR was present
	std::string tag, step, comm;
	int line = 0, pid = 0;
	std::string msg;	// without the trailing line end
	bool newline = false;	// the line ended with '\n'
};

std::vector<Record> records();
void clear();
// false: lines are still formatted but neither parsed nor kept (for
// timings; reset() turns keeping back on).
void set_keep(bool keep);
std::size_t size();

// Matching: step "" matches any step. msg is the text after the prefix
// with the values substituted, compared in full ("...(device_id=0; ret=-5)").
std::optional<Record> find(Level level, const std::string &step,
			   const std::string &msg);
bool has(Level level, const std::string &step, const std::string &msg);
std::size_t count(Level level, const std::string &step, const std::string &msg);
// Same, with msg given as a printf format: %d %i %u %x %ld %lu %s %c %p and
// %% match any value of their kind (for example "(device_id=%u; ret=%d)").
bool has_fmt(Level level, const std::string &step, const std::string &fmt);
std::size_t count_fmt(Level level, const std::string &step,
		      const std::string &fmt);
std::size_t count(Level level);
// Step names of the records of a level, in order (an error chain reads
// innermost step first).
std::vector<std::string> steps(Level level);
// The log as text, last max_lines lines (0 = all), for failure messages.
std::string dump(std::size_t max_lines = 0);
const char *level_name(Level level);

} // namespace log

// ---------------------------------------------------------------------------
// msleep(): recorded; not slept unless set_real(true).
namespace delay {

u32 calls();
u64 total_ms();
std::vector<unsigned> history();
void set_real(bool really_sleep);

} // namespace delay

// ---------------------------------------------------------------------------
// Files for filp_open/kernel_read/filp_close (for example cgroup cpuset
// files). Unknown paths give ERR_PTR(-ENOENT).
namespace files {

void set(const std::string &path, const std::string &content);
void remove(const std::string &path);
void fail_open(const std::string &path, int code);	// 0 = no fault
void fail_read(const std::string &path, int code);	// 0 = no fault
u32 open_count();	// filp_open minus filp_close
u32 opens(const std::string &path);

} // namespace files

// ---------------------------------------------------------------------------
// Mutexes of the module (struct mutex).
namespace locks {

int held();		// mutexes currently held, all threads

} // namespace locks

} // namespace tb

#endif // UCFG_TESTBED_H
