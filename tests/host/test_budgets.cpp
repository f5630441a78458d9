// SPDX-License-Identifier: GPL-2.0
//
// Flash and hashing budgets of every item operation, as a user reaches it
// through the ioctl entry: which blocks are read and written, in which
// order, and how many bytes are hashed. Each operation's cost is fixed by
// what it must do (validate both head copies, compare before writing,
// verify every write, main copies before backup copies), so any transfer
// beyond that is wasted wear and latency on a slow flash, and any missing
// one is a skipped check. The expected traces are written out by hand from
// those rules, not recorded from a run.
//
// Notation: "R2" a read of block 2, "W2" a write; a block write costs
// "Rb Wb Rb" (compare, write, verify) or "Rb" alone when the flash already
// holds the image.
#include <functional>
#include <sstream>

#include "model.h"
#include "testbed.h"

namespace {

using model::Bytes;
using model::pattern;
namespace fl = tb::flash;
namespace st = model::store;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

// Bytes of the head that its check code covers.
constexpr u64 kHead = 65500;
// The head validation of a device whose two copies are valid: both copies
// read and hashed, the chosen one read again.
const std::string kValid = "R0 R32 R0";
constexpr u64 kValidHash = 2 * kHead;

std::string wr(u32 b)
{
	std::ostringstream o;
	o << 'R' << b << " W" << b << " R" << b;
	return o.str();
}

std::string cat(std::initializer_list<std::string> parts)
{
	std::string out;
	for (const std::string &p : parts) {
		if (p.empty())
			continue;
		if (!out.empty())
			out += ' ';
		out += p;
	}
	return out;
}

// The four writes of a dynamic change of content block b and the head, in
// the order main content, main head, backup content, backup head.
std::string four(u32 b)
{
	return cat({wr(b), wr(0), wr(b + 32), wr(32)});
}

// The item-by-item sync of content block b: both copies read; no write on
// a healthy device.
std::string sync(u32 b)
{
	return cat({"R" + std::to_string(b), "R" + std::to_string(b + 32)});
}

enum class State {
	Blank,		// never written: erased flash
	Items,		// ssh_status set; "a" and "b", 100 bytes each, in block 2
	MainHeadBad,	// Items, then block 0 damaged
	BackupHeadBad,	// Items, then block 32 damaged
	MainSlotBad,	// Items, then the main copy of "a"'s slot damaged
	Full,		// ssh_status set; blocks 2 to 31 full, one slot of block 2 cleared
};

constexpr u32 kBig = 32768, kFill = 32700;	// two slots fill a block

void prepare(State s)
{
	st::become_daemon();
	if (s == State::Blank)
		return;
	ASSERT_EQ(st::set(0, "ssh_status", {1}), 0);
	if (s == State::Full) {
		for (u32 b = 2; b <= 31; b++) {
			ASSERT_EQ(st::set(0, "x" + std::to_string(b), pattern(kBig, b)), 0);
			ASSERT_EQ(st::set(0, "y" + std::to_string(b), pattern(kFill, b)), 0);
		}
		ASSERT_EQ(st::clear(0, "y2"), 0);
		return;
	}
	ASSERT_EQ(st::set(0, "a", pattern(100, 1)), 0);
	ASSERT_EQ(st::set(0, "b", pattern(100, 2)), 0);
	switch (s) {
	case State::MainHeadBad:
		fl::flip_bits(0, 0, 5000, 0x10);
		break;
	case State::BackupHeadBad:
		fl::flip_bits(0, 32, 5000, 0x10);
		break;
	case State::MainSlotBad:
		fl::flip_bits(0, 2, 10, 0x01);	// "a" lies at offset 0
		break;
	default:
		break;
	}
}

struct Case {
	const char *what;
	State state;
	std::function<int()> op;
	int rc;
	std::string trace;	// device 0, in order
	u64 hashed;		// bytes hashed by the operation
};

int sget(const char *name)
{
	return st::get(0, name).rc;
}

// The rebuild that a new item of 100 bytes on the full store triggers:
// sync of all blocks, packing of every main block, then every block
// written (each packed block now ends in zeros where the flash still held
// erased bytes), the main copies and head before the backup copies.
std::string rebuild_trace()
{
	std::string t;
	for (u32 b = 2; b <= 31; b++)
		t = cat({t, sync(b)});
	for (u32 b = 2; b <= 31; b++)
		t = cat({t, "R" + std::to_string(b)});
	for (u32 b = 2; b <= 31; b++)
		t = cat({t, wr(b)});
	t = cat({t, wr(0)});
	for (u32 b = 34; b <= 63; b++)
		t = cat({t, wr(b)});
	return cat({t, wr(32)});
}

std::vector<Case> cases()
{
	// Static values: a get validates the head; a set validates, writes
	// block 0 then block 32, and recomputes the head's check code.
	const std::string static_set = cat({kValid, wr(0), wr(32)});
	const std::string static_same = cat({kValid, "R0 R32"});
	return {
		// --- static items
		{"static get, blank", State::Blank, [] { return sget("ssh_status"); },
		 0, "R0 R32", 0},
		{"static get", State::Items, [] { return sget("ssh_status"); },
		 0, kValid, kValidHash},
		{"static get, main head damaged", State::MainHeadBad,
		 [] { return sget("ssh_status"); }, 0, cat({"R0 R32 R32", wr(0)}),
		 kValidHash},
		{"static get, backup head damaged", State::BackupHeadBad,
		 [] { return sget("ssh_status"); }, 0, cat({kValid, wr(32)}),
		 kValidHash},
		{"static set, blank", State::Blank,
		 [] { return st::set(0, "ssh_status", {1}); }, 0,
		 cat({"R0 R32", wr(0), wr(32)}), kHead},
		{"static set, changed", State::Items,
		 [] { return st::set(0, "ssh_status", {0}); }, 0, static_set,
		 kValidHash + kHead},
		{"static set, unchanged", State::Items,
		 [] { return st::set(0, "ssh_status", {1}); }, 0, static_same,
		 kValidHash + kHead},
		{"static clear", State::Items, [] { return st::clear(0, "ssh_status"); },
		 0, static_set, kValidHash + kHead},
		{"static clear, never set", State::Items,
		 [] { return st::clear(0, "p2p_mem_cfg"); }, 0, static_set,
		 kValidHash + kHead},

		// --- dynamic reads: head validation, then the item's block
		{"dynamic get", State::Items, [] { return sget("a"); }, 0,
		 cat({kValid, "R2"}), kValidHash + 100},
		{"dynamic get, blank", State::Blank, [] { return sget("a"); }, -ENOENT,
		 "R0 R32", 0},
		// Absent from the main head: the backup head is read and searched.
		{"dynamic get, absent", State::Items, [] { return sget("zz"); }, -ENOENT,
		 cat({kValid, "R32"}), kValidHash},
		// Main slot damaged: the backup slot is read, and the main slot
		// restored from it into the main block as it is on flash.
		{"dynamic get, main slot damaged", State::MainSlotBad,
		 [] { return sget("a"); }, 0, cat({kValid, "R2 R34 R2", wr(2)}),
		 kValidHash + 2 * 100},

		// --- dynamic writes. Every path that writes a content image first
		// syncs that block item by item with the written item left out
		// (two reads, one digest per other live slot), so that the image
		// carries no slot damaged in the copy read.
		{"dynamic new item, blank", State::Blank,
		 [] { return st::set(0, "a", pattern(100, 1)); }, 0,
		 cat({"R0 R32 R2", four(2)}), kHead + 100},
		{"dynamic new item", State::Items,
		 [] { return st::set(0, "c", pattern(300, 3)); }, 0,
		 cat({kValid, sync(2), "R2", four(2)}),
		 kValidHash + 2 * 100 + kHead + 300},
		{"dynamic same length, unchanged", State::Items,
		 [] { return st::set(0, "a", pattern(100, 1)); }, 0,
		 cat({kValid, "R2"}), kValidHash + 100},
		{"dynamic same length, changed", State::Items,
		 [] { return st::set(0, "a", pattern(100, 9)); }, 0,
		 cat({kValid, "R2", sync(2), "R2", wr(2), wr(34)}),
		 kValidHash + 100 + 100},
		{"dynamic shorter", State::Items,
		 [] { return st::set(0, "a", pattern(50, 9)); }, 0,
		 cat({kValid, sync(2), "R2", four(2)}),
		 kValidHash + 100 + kHead + 50},
		{"dynamic longer", State::Items,
		 [] { return st::set(0, "a", pattern(200, 9)); }, 0,
		 cat({kValid, sync(2), "R2", four(2)}),
		 kValidHash + 100 + kHead + 200},
		{"dynamic clear", State::Items, [] { return st::clear(0, "a"); }, 0,
		 cat({kValid, sync(2), "R2", four(2)}),
		 kValidHash + 100 + 100 + kHead},
		{"dynamic clear, absent", State::Items, [] { return st::clear(0, "zz"); },
		 -ENOENT, kValid, kValidHash},
		// No head: a fresh one (without check code) goes to both copies.
		{"dynamic clear, blank", State::Blank, [] { return st::clear(0, "a"); },
		 -ENOENT, cat({"R0 R32", wr(0), wr(32)}), 0},
		{"dynamic new item, rebuild", State::Full,
		 [] { return st::set(0, "c", pattern(100, 3)); }, 0,
		 cat({kValid, rebuild_trace(), "R2", four(2)}),
		 kValidHash + 30 * u64(kBig) + 29 * u64(kFill) + kHead + kHead + 100},
	};
}

class Budget : public tb::Fixture, public ::testing::WithParamInterface<Case> {};

TEST_P(Budget, TransfersAndHashing)
{
	const Case &c = GetParam();
	prepare(c.state);
	if (HasFatalFailure())
		return;
	fl::mark();
	const u64 hashed = tb::crypto::bytes_hashed();
	EXPECT_EQ(c.op(), c.rc);
	EXPECT_EQ(fl::trace_str_since_mark(0), c.trace);
	EXPECT_EQ(fl::trace_str_since_mark(1), "");
	EXPECT_EQ(tb::crypto::bytes_hashed() - hashed, c.hashed);
	// Whatever the operation did, it leaves both copies in step.
	if (c.rc == 0) {
		EXPECT_EQ(model::check_flash(0), "");
	}
}

std::string case_name(const ::testing::TestParamInfo<Case> &info)
{
	std::string n;
	for (const char *p = info.param.what; *p; p++)
		n += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
	return n;
}

INSTANTIATE_TEST_SUITE_P(Ops, Budget, ::testing::ValuesIn(cases()), case_name);

} // namespace
