// SPDX-License-Identifier: GPL-2.0
//
// What a model of the items cannot state, as tables written from the
// documentation: the exact flash transfers of each operation, the bytes
// the store puts on flash, the messages of failures, the defaults and
// their text form, the CPU partition files, and who may do what through
// which entry with which arguments.
#include "oracle.h"
#include "view.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

extern "C" {
#include "catalogue/catalogue.h"
int devdrv_config_read_block(u32 dev_id, u32 blk, u8 *image);
int devdrv_config_write_blk_ops(u32 dev_id, u32 blk, u8 *image, u32 target);
}

namespace {

using namespace ucfg;
namespace fl = tb::flash;
using Fn = std::function<int()>;

// Cases print as what they are.
template <typename T> void print_what(const T &c, std::ostream *os)
{
	*os << c.what;
}

std::string name_of(const char *what)
{
	std::string n;
	for (const char *p = what; *p; p++)
		n += std::isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
	return n;
}

void daemon()
{
	tb::reset();
	tb::ctl::dts(kDts[0], kDts[1], kDts[2]);
	tb::task::set(tb::task::daemon());
}

// --- Transfers ---------------------------------------------------------------
//
// "R2" reads block 2, "W2" writes it; a block write is "Rb Wb Rb" (compare,
// write, verify), or "Rb" alone when the flash holds the image already.

std::string wr(u32 b)
{
	std::string n = std::to_string(b);
	return "R" + n + " W" + n + " R" + n;
}

std::string join(std::initializer_list<std::string> parts)
{
	std::string out;
	for (const std::string &p : parts)
		out += out.empty() || p.empty() ? p : " " + p;
	return out;
}

// The four writes of a named item in content block b: main content, main
// head, backup content, backup head.
std::string four(u32 b)
{
	return join({wr(b), wr(0), wr(b + 32), wr(32)});
}

const std::string kValid = "R0 R32 R0";	// both heads valid: read, read, reread
const std::string kSync2 = "R2 R34";	// the item-by-item sync of block 2

enum class State { Blank, Items, MainHeadBad, BackupHeadBad, MainSlotBad, Full };

void prepare(State s)
{
	daemon();
	if (s == State::Blank)
		return;
	ASSERT_EQ(set(0, "ssh_status", {1}), 0);
	if (s == State::Full) {
		// Every block holds a full slot and one that nearly fills it;
		// one of those is cleared, so a new item needs the rebuild.
		for (u32 b = 2; b <= 31; b++) {
			ASSERT_EQ(set(0, "x" + std::to_string(b), pattern(32768, b)), 0);
			ASSERT_EQ(set(0, "y" + std::to_string(b), pattern(32700, b)), 0);
		}
		ASSERT_EQ(clear(0, "y2"), 0);
		return;
	}
	ASSERT_EQ(set(0, "a", pattern(100, 1)), 0);
	ASSERT_EQ(set(0, "b", pattern(100, 2)), 0);
	if (s == State::MainHeadBad)
		fl::at(0, 0)[5000] ^= 0x10;
	if (s == State::BackupHeadBad)
		fl::at(0, 32)[5000] ^= 0x10;
	if (s == State::MainSlotBad)
		fl::at(0, 2)[10] ^= 0x01;	// "a" lies at offset 0
}

// The rebuild: every block synced, every main block packed, then all
// written, main copies and head before backup copies and head.
std::string rebuild()
{
	std::string sync, pack, mains, backups;
	for (u32 b = 2; b <= 31; b++) {
		sync = join({sync, "R" + std::to_string(b), "R" + std::to_string(b + 32)});
		pack = join({pack, "R" + std::to_string(b)});
		mains = join({mains, wr(b)});
		backups = join({backups, wr(b + 32)});
	}
	return join({sync, pack, mains, wr(0), backups, wr(32)});
}

struct Budget;
void PrintTo(const Budget &c, std::ostream *os);
struct Budget {
	const char *what;
	State state;
	Fn op;
	int rc;
	std::string trace;
};

const Budget kBudgets[] = {
	{"static get on blank flash", State::Blank,
	 [] { return get(0, "ssh_status", 1).rc; }, 0, "R0 R32"},
	{"static get", State::Items, [] { return get(0, "ssh_status", 1).rc; }, 0, kValid},
	{"static get repairs the main head", State::MainHeadBad,
	 [] { return get(0, "ssh_status", 1).rc; }, 0, join({"R0 R32 R32", wr(0)})},
	{"static get repairs the backup head", State::BackupHeadBad,
	 [] { return get(0, "ssh_status", 1).rc; }, 0, join({kValid, wr(32)})},
	{"static set on blank flash", State::Blank, [] { return set(0, "ssh_status", {1}); }, 0,
	 join({"R0 R32", wr(0), wr(32)})},
	{"static set", State::Items, [] { return set(0, "ssh_status", {0}); }, 0,
	 join({kValid, wr(0), wr(32)})},
	{"static set of the same value", State::Items, [] { return set(0, "ssh_status", {1}); },
	 0, join({kValid, "R0 R32"})},
	{"static clear", State::Items, [] { return clear(0, "ssh_status"); }, 0,
	 join({kValid, wr(0), wr(32)})},
	{"named get", State::Items, [] { return get(0, "a", 100).rc; }, 0, join({kValid, "R2"})},
	{"named get of an absent name tries the backup head", State::Items,
	 [] { return get(0, "zz", 100).rc; }, -ENOENT, join({kValid, "R32"})},
	{"named get repairs the main slot alone", State::MainSlotBad,
	 [] { return get(0, "a", 100).rc; }, 0, join({kValid, "R2 R34 R2", wr(2)})},
	{"named new item on blank flash", State::Blank,
	 [] { return set(0, "a", pattern(100, 1)); }, 0, join({"R0 R32 R2", four(2)})},
	{"named new item", State::Items, [] { return set(0, "c", pattern(300, 3)); }, 0,
	 join({kValid, kSync2, "R2", four(2)})},
	{"named same content", State::Items, [] { return set(0, "a", pattern(100, 1)); }, 0,
	 join({kValid, "R2"})},
	{"named same length", State::Items, [] { return set(0, "a", pattern(100, 9)); }, 0,
	 join({kValid, "R2", kSync2, "R2", wr(2), wr(34)})},
	{"named shorter", State::Items, [] { return set(0, "a", pattern(50, 9)); }, 0,
	 join({kValid, kSync2, "R2", four(2)})},
	{"named longer", State::Items, [] { return set(0, "a", pattern(200, 9)); }, 0,
	 join({kValid, kSync2, "R2", four(2)})},
	{"named clear", State::Items, [] { return clear(0, "a"); }, 0,
	 join({kValid, kSync2, "R2", four(2)})},
	{"named clear of an absent name", State::Items, [] { return clear(0, "zz"); }, -ENOENT,
	 kValid},
	{"named clear on blank flash writes a fresh head", State::Blank,
	 [] { return clear(0, "a"); }, -ENOENT, join({"R0 R32", wr(0), wr(32)})},
	{"named new item after a rebuild", State::Full, [] { return set(0, "c", pattern(100, 3)); },
	 0, join({kValid, rebuild(), "R2", four(2)})},
};

void PrintTo(const Budget &c, std::ostream *os)
{
	print_what(c, os);
}

class Transfers : public ::testing::TestWithParam<Budget> {};

TEST_P(Transfers, InOrder)
{
	const Budget &c = GetParam();
	prepare(c.state);
	fl::clear_trace();
	EXPECT_EQ(c.op(), c.rc);
	EXPECT_EQ(fl::trace_str(0), c.trace);
	EXPECT_EQ(fl::trace_str(1), "");
	EXPECT_EQ(tb::problems(), "");
}
INSTANTIATE_TEST_SUITE_P(Ops, Transfers, ::testing::ValuesIn(kBudgets),
			 [](const auto &i) { return name_of(i.param.what); });

// --- Bytes on flash ------------------------------------------------------------

TEST(Format, FreshHeadImage)
{
	daemon();
	ASSERT_EQ(clear(0, "a"), -ENOENT);	// writes a fresh head, no check code
	for (u32 blk : {0u, 32u}) {
		Bytes want(65536, 0);
		want[0] = 1;
		for (u32 i = 0; i < 32; i++) {
			u8 e[4] = {u8(i), u8(i < 2), u8(i < 2 ? 0xff : 0), u8(i < 2 ? 0xff : 0)};
			std::memcpy(&want[65372 + 4 * i], e, 4);
		}
		std::memcpy(&want[65532], "\x5d\x6c\x7b\x8a", 4);
		EXPECT_EQ(Bytes(fl::at(0, blk), fl::at(0, blk) + 65536), want) << "block " << blk;
	}
	EXPECT_EQ(head(0), nullptr);	// no check code: not a valid head
	EXPECT_EQ(get(0, "ssh_status", 1), (Res{0, {0}}));
}

TEST(Format, RecordsSlotsAndStaticValues)
{
	daemon();
	ASSERT_EQ(set(0, "ssh_status", {1}), 0);
	ASSERT_EQ(clear(0, "usershadow"), 0);
	ASSERT_EQ(set(0, "first", pattern(100, 1)), 0);
	std::string full(32, 'z');	// 32 bytes, no NUL
	ASSERT_EQ(set(0, full, pattern(7, 2)), 0);
	const Head *h = head(0);
	ASSERT_NE(h, nullptr);
	EXPECT_EQ(std::memcmp(fl::at(0, 0), fl::at(0, 32), 65536), 0);
	const u8 *b = fl::at(0, 0);
	EXPECT_EQ(b[0], 1);
	EXPECT_EQ(b[3102], 1);	// ssh_status: valid byte, then the value
	EXPECT_EQ(b[3103], 1);
	EXPECT_EQ(b[1053], 0);	// usershadow cleared: 0, then 2,048 bytes 0xff
	EXPECT_EQ(Bytes(b + 1054, b + 3102), Bytes(2048, 0xff));
	EXPECT_EQ(h->head_len, 104u);
	EXPECT_STREQ(h->rec[0].name, "first");
	EXPECT_EQ(std::string(h->rec[1].name, 32), full);
	const u32 want[2][5] = {{2, 0, 100, 0, 1}, {2, 132, 7, 0, 1}};
	for (u32 i = 0; i < 2; i++) {
		const Record &r = h->rec[i];
		EXPECT_EQ((std::vector<u32>{r.blk, r.offset, r.bytes, r.authority, r.valid}),
			  std::vector<u32>(want[i], want[i] + 5));
	}
	EXPECT_EQ(h->usage[2].blk, 2);
	EXPECT_EQ(h->usage[2].used, 1);
	EXPECT_EQ(h->usage[2].bytes, 132 + 39);
	const u8 *c = fl::at(0, 2);
	EXPECT_EQ(Bytes(c, c + 100), pattern(100, 1));
	EXPECT_EQ(Bytes(c + 100, c + 132), sha256(c, 100));
	EXPECT_EQ(std::memcmp(c, fl::at(0, 34), 171), 0);
}

// A table of 1,099 records is full: the view says so, a new name is
// refused, and a clear makes room for exactly one.
TEST(Format, FullTable)
{
	daemon();
	// Laid out on flash as the format describes it: 1,099 one-byte items
	// in block 2, both copies.
	Head h{};
	h.format = 1;
	h.head_len = 1099 * 52;
	for (u32 i = 0; i < 1099; i++) {
		h.rec[i] = {{}, 2, 33 * i, 1, 0, 1};
		std::snprintf(h.rec[i].name, 32, "i%u", i);
		u8 *slot = fl::at(0, 2) + 33 * i;
		slot[0] = 1;
		Bytes code = sha256(slot, 1);
		std::memcpy(slot + 1, code.data(), 32);
	}
	for (u8 b = 0; b < 32; b++)
		h.usage[b] = {b, u8(b < 3), std::uint16_t(b < 2 ? 0xffff : b == 2 ? 1099 * 33 : 0)};
	h.valid_flag = 0x8a7b6c5d;
	Bytes code = sha256(reinterpret_cast<u8 *>(&h), 65500);
	std::memcpy(h.check, code.data(), 32);
	for (u32 b : {0u, 32u})
		std::memcpy(fl::at(0, b), &h, 65536);
	std::memcpy(fl::at(0, 34), fl::at(0, 2), 65536);
	std::string error;
	auto v = parse_view(view_text(0), error);
	ASSERT_TRUE(v) << error;
	EXPECT_EQ(v->records, 1099u);
	EXPECT_EQ(v->items.size(), 1099u);
	EXPECT_EQ(v->room, 0u);
	EXPECT_EQ(v->fits(1), "no room in the record table");
	EXPECT_EQ(set(0, "one more", {1}), -ENOSPC);
	ASSERT_EQ(clear(0, "i7"), 0);
	EXPECT_EQ(parse_view(view_text(0), error)->room, 1u);
	EXPECT_EQ(set(0, "one more", {1}), 0);
	EXPECT_EQ(set(0, "two more", {1}), -ENOSPC);
	EXPECT_EQ(get(0, "i1098", 1), (Res{0, {1}}));
}

// --- Messages -------------------------------------------------------------------

struct Line {
	int level;
	const char *step, *fmt;
};
struct Story;
void PrintTo(const Story &c, std::ostream *os);
struct Story {
	const char *what;
	std::function<void()> setup;
	Fn op;
	int rc;
	std::vector<Line> lines;
};

const Story kStories[] = {
	{"device 2 is refused by the block writer", [] {},
	 [] {
		 Bytes img(65536);
		 return devdrv_config_write_blk_ops(2, 0, img.data(), 3);
	 },
	 -EINVAL,
	 {{3, "devdrv_config_write_blk_check", "The device ID is not fixed. (device_id=%u)"},
	  {3, "devdrv_config_write_blk_ops",
	   "The devdrv_config_write_blk_check failed. (device_id=%u; ret=%d)"}}},
	{"block 64 is refused before any transfer", [] {},
	 [] {
		 Bytes img(65536);
		 return devdrv_config_read_block(0, 64, img.data());
	 },
	 -EINVAL,
	 {{3, "devdrv_config_read_block",
	   "The block of device id is out of range. (device_id=%u; block=%u)"}}},
	{"an unreadable board id blocks every name", [] { tb::regs::set(0, true); },
	 [] { return get(0, "anything", 10).rc; }, -ENODEV,
	 {{3, "devdrv_get_boardid_by_reg", "The ioremap function return NULL."},
	  {3, "devdrv_get_config_index_by_name", "Unable to get board id."}}},
	{"no control module", [] { tb::ctl::set(false); },
	 [] { return get(0, "ssh_status", 1).rc; }, -EINVAL,
	 {{3, "devdrv_config_get_dev_num", "The kallsyms_lookup_name function return NULL."},
	  {3, "check_config_para", "Get device num failed. (device_id=%u; dev_num=%u; ret=%d)"},
	  {3, "devdrv_config_check_para", "Check para failed. (ret=%d)"}}},
	{"a failed flash write, and every step that carried it",
	 [] { fl::arm(fl::Fault::WriteError, 1); }, [] { return set(0, "ssh_status", {1}); },
	 -ENODEV,
	 {{3, "devdrv_config_write_block", "The sec_flash_write failed. (device_id=%u; ret=%d)"},
	  {3, "devdrv_config_write_one_block",
	   "The devdrv_config_write_block failed. (device_id=%u; ret=%d)"},
	  {3, "devdrv_config_write_blk_ops",
	   "The devdrv_config_write_one_block failed. (device_id=%u; ret=%d)"},
	  {3, "devdrv_config_update_item", "The devdrv_config_write_blk_ops failed. (ret=%d)"},
	  {3, "devdrv_config_update", "The devdrv_config_update_item failed. (device_id=%u; ret=%d)"},
	  {3, "devdrv_set_user_config_static", "The devdrv_config_set_item_static failed. (ret=%d)"},
	  {3, "devdrv_config_ioctl",
	   "The devdrv_user_config_op failed. (device_id=%u; ret=%d)"}}},
	{"a read-back that differs", [] { fl::arm(fl::Fault::Corrupt, 1, 7); },
	 [] { return set(0, "ssh_status", {1}); }, -ENODEV,
	 {{3, "devdrv_config_write_one_block", "The memcmp failed. (device_id=%u)"}}},
	{"a name of 32 characters through the kernel API", [] {},
	 [] { return get(0, std::string(32, 'k'), 10, Via::Kernel).rc; }, -EINVAL,
	 {{3, "hal_kernel_get_user_config", "strcpy_s failed. (device_id=%u; ret=%d)"}}},
	{"the board id fails through the kernel API", [] { tb::regs::set(0, true); },
	 [] { return set(0, "item", {1}, Via::Kernel); }, -ENODEV,
	 {{3, "hal_kernel_set_user_config",
	   "The devdrv_get_config_index_by_name failed. (ret=%d)"}}},
	{"a get of a name never set", [] {}, [] { return get(0, "never", 10).rc; }, -ENOENT,
	 {{4, "devdrv_get_user_config_dynamic", "The getting item is not set before. (ret=%d)"},
	  {4, "devdrv_config_ioctl",
	   "The devdrv_user_config_op not find item. (device_id=%u; ret=%d)"}}},
	{"no memory for the executable's path",
	 [] { tb::alloc::fail_nth(1); }, [] { return set(0, "item", {1}); }, -EACCES,
	 {{3, "whitelist_get_current_path", "File path vmalloc failed."},
	  {3, "whitelist_process_handler", "The whitelist_check_process_info failed. (ret=%d)"},
	  {3, "devdrv_config_check_authority", "The whitelist_process_handler failed. (ret=%d)"},
	  {3, "devdrv_config_ioctl",
	   "The devdrv_config_check_authority failed. (device_id=%u; ret=%d)"}}},
	{"an impostor at the daemon's path in a namespace of its own",
	 [] {
		 tb::task::Spec s = tb::task::daemon();
		 s.host_exe = false;
		 tb::task::set(s);
	 },
	 [] { return set(0, "item", {1}); }, -EACCES,
	 {{3, "whitelist_match_uid_path",
	   "match fail. (proc name=\"devmgr_daemon\";path=\"/var/devmgr_daemon\";uid=1101)"}}},
	{"a static item of the wrong size", [] {}, [] { return set(0, "cpu_num_cfg", Bytes(17)); },
	 -EINVAL,
	 {{3, "devdrv_config_set_item", "Input buf size is invalid. (buf_size=17; must_be=16)"},
	  {3, "devdrv_config_update_item", "The devdrv_config_set_item failed. (ret=%d)"}}},
	{"a buffer one byte too small for a named item",
	 [] { ASSERT_EQ(set(0, "n", pattern(100, 1)), 0); }, [] { return get(0, "n", 99).rc; },
	 -ENXIO,
	 {{3, "devdrv_config_get_item_dynamic",
	   "The content size is not equal to the buf size. (content_size=%#x; buf_size=%#x]; ret=%d)"}}},
	{"the same length with the block's sync failing",
	 [] {
		 ASSERT_EQ(set(0, "n", pattern(100, 1)), 0);
		 fl::arm(fl::Fault::ReadError, 5);
	 },
	 [] { return set(0, "n", pattern(100, 2)); }, -ENODEV,
	 {{3, "devdrv_config_check_item_content",
	   "The devdrv_config_sync_main_backup failed. (ret=%d)"}}},
	{"a repair whose block read fails",
	 [] {
		 ASSERT_EQ(set(0, "n", pattern(100, 1)), 0);
		 fl::at(0, 2)[3] ^= 1;
		 fl::arm(fl::Fault::ReadError, 6);
	 },
	 [] { return get(0, "n", 100).rc; }, -ENODEV,
	 {{3, "devdrv_config_repair_main_slot",
	   "The devdrv_config_read_block failed. (device_id=%u; ret=%d)"}}},
	{"the write phase logs each write", [] {}, [] { return set(0, "n", {1}); }, 0,
	 {{6, "devdrv_config_write_flash_head_content",
	   "devdrv_config_write_flash_head_content main_content_wr_flag."},
	  {6, "devdrv_config_write_flash_head_content",
	   "devdrv_config_write_flash_head_content bk_head_wr_flag."},
	  {5, "devdrv_set_user_config_dynamic", "Set dynamic cfg item success. (device_id=%u)"}}},
	{"a failed kernel read names its buffer",
	 [] { tb::alloc::fail_nth(2); }, [] { return get(0, "n", 10, Via::Kernel).rc; }, -ENOMEM,
	 {{3, "devdrv_kernel_get_config_dynamic",
	   "Ka_vmalloc content block failed. (device_id=0)"}}},
	{"an unknown sub-command", [] {},
	 [] {
		 u8 b[4] = {};
		 u32 n = 4;
		 return ioctl(0, 7, "dyn", b, &n);
	 },
	 -EINVAL, {{3, "devdrv_user_config_op", "The cmd parameter error. (cmd=7)"}}},
};

void PrintTo(const Story &c, std::ostream *os)
{
	print_what(c, os);
}

class Messages : public ::testing::TestWithParam<Story> {};

TEST_P(Messages, ChainOfSteps)
{
	const Story &c = GetParam();
	daemon();
	c.setup();
	tb::log::clear();
	EXPECT_EQ(c.op(), c.rc);
	for (const Line &l : c.lines)
		EXPECT_TRUE(tb::log::has(l.level, l.step, l.fmt))
			<< "no <" << l.level << "> " << l.step << ": " << l.fmt << "\n"
			<< tb::log::dump();
	fl::reboot();
	EXPECT_EQ(tb::problems(), "");
}
INSTANTIATE_TEST_SUITE_P(Failures, Messages, ::testing::ValuesIn(kStories),
			 [](const auto &i) { return name_of(i.param.what); });

// Every line carries the prefix, with the word ERROR on error lines only,
// and whitelist lines carry their own tag.
TEST(Messages, Prefix)
{
	daemon();
	tb::task::Spec s = tb::task::daemon();
	s.uid = 1000;
	tb::task::set(s);
	EXPECT_EQ(set(0, "item", {1}), -EACCES);
	EXPECT_EQ(get(0, "ssh_status", 1).rc, 0);
	bool whitelist = false;
	for (const auto &l : tb::log::lines()) {
		EXPECT_FALSE(l.step.empty()) << l.msg;
		EXPECT_EQ(l.error_word, l.level == 3) << l.msg;
		EXPECT_EQ(l.tag, l.step.rfind("whitelist_", 0) == 0 ? "whitelist" : "user_cfg_drv");
		whitelist = whitelist || l.tag == "whitelist";
	}
	EXPECT_TRUE(whitelist);
}

// --- Defaults ----------------------------------------------------------------------

struct Default {
	const char *text;
	u32 size, room;
	int rc;
	Bytes value;
};

const Default kDefaults[] = {
	{"0x0400", 5, 4, 0, {4, 0, 0, 0}},
	{"0x0400", 5, 3, -EINVAL, {}},
	{"0X0A", 2, 1, 0, {0x0a}},
	{"0x0G", 2, 1, 0, {0}},	// "%02hhx" stops at G
	{"0x", 2, 1, -EINVAL, {}},
	{"0x1", 2, 1, -EINVAL, {}},
	{"0x123", 3, 2, -EINVAL, {}},
	{"00x1", 2, 1, -EINVAL, {}},
	{"0xG0", 2, 1, -EINVAL, {}},
	{"0x0102", 2, 1, -EINVAL, {}},	// two bytes into a one-byte value
};

TEST(Catalogue, DefaultsFromText)
{
	daemon();
	for (const Default &d : kDefaults) {
		user_cfg_item_desc row{"row", -1, 0, d.size, 1, d.text, nullptr};
		Bytes buf(64, 0xee);
		u32 n = d.room;
		EXPECT_EQ(devdrv_config_get_default(&row, buf.data(), &n), d.rc) << d.text;
		if (d.rc == 0) {
			EXPECT_EQ(n, d.size - 1) << d.text;
			EXPECT_EQ(Bytes(buf.begin(), buf.begin() + n), d.value) << d.text;
		}
	}
	EXPECT_EQ(tb::problems(), "");
}

TEST(Catalogue, ValueChecksAndLookup)
{
	daemon();
	const u8 v0 = 0, v1 = 1, v2 = 2;
	for (auto fn : {ddr_ecc_enable_check_para, ssh_status_check_para}) {
		EXPECT_EQ(fn(0, &v0), 0);
		EXPECT_EQ(fn(1, &v1), 0);
		EXPECT_EQ(fn(0, &v2), -1);
		EXPECT_EQ(fn(2, &v0), -1);
		EXPECT_EQ(fn(0, nullptr), -1);
	}
	const std::pair<const char *, int> names[] = {
		{"cpu_num_cfg", 0}, {"ssh_status", 5}, {"cpu_num", -1}, {"cpu_num_cfgx", -1},
		{"SSH_STATUS", -1}};
	for (const auto &[n, idx] : names)
		EXPECT_EQ(devdrv_get_config_index_by_name(n), idx) << n;
	for (const Static &s : kStatic) {	// never set: the defaults
		EXPECT_EQ(get(0, s.name, s.len), (Res{0, s.dflt})) << s.name;
		EXPECT_EQ(get(1, s.name, s.len, Via::Kernel), (Res{0, s.dflt})) << s.name;
	}
	tb::ctl::set(true, 2);
	tb::ctl::dts(0, 0, 0, -5);
	EXPECT_EQ(get(0, "cpu_num_cfg", 16).rc, -5);
}

// --- CPU partition -------------------------------------------------------------------

struct Cpusets;
void PrintTo(const Cpusets &c, std::ostream *os);
struct Cpusets {
	const char *what;
	const char *ctrl, *data, *ai;	// nullptr: no file; "fifo": a FIFO
	u32 dev;
	int rc;
	std::vector<u32> nums;	// control, data, AI
};

const Cpusets kCpusets[] = {
	{"ranges per device", "0-1,8-9\n", "2-3,10-11\n", "4-7,12-15\n", 1, 0, {2, 2, 4}},
	{"single numbers count one", "5,6\n", "0x10-0x11,3\n", "010-011,1\n", 0, 0, {1, 2, 2}},
	{"a reversed range wraps", "3-1,0\n", "1\n", "1\n", 0, 0, {4294967295u, 1, 1}},
	{"an empty cpuset", "\n", "1,2\n", "3,4\n", 1, 0, {0, 1, 1}},
	{"fewer elements than devices", "0-1\n", "2\n", "3\n", 1, 0, {0, 0, 0}},
	{"a missing file", "0,1\n", "0,1\n", nullptr, 0, -EINVAL, {}},
	{"an empty file", "", "0,1\n", "0,1\n", 0, -EINVAL, {}},
	{"a FIFO is not read", "0,1\n", "fifo", "0,1\n", 0, -EINVAL, {}},
};

void PrintTo(const Cpusets &c, std::ostream *os)
{
	print_what(c, os);
}

class CpuPartition : public ::testing::TestWithParam<Cpusets> {};

TEST_P(CpuPartition, FromCgroupFiles)
{
	const Cpusets &c = GetParam();
	daemon();
	const char *const paths[] = {"/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus",
				     "/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus",
				     "/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus"};
	const char *const content[] = {c.ctrl, c.data, c.ai};
	for (u32 i = 0; i < 3; i++) {
		if (content[i] && std::string(content[i]) == "fifo")
			tb::files::fifo(paths[i]);
		else if (content[i])
			tb::files::set(paths[i], content[i]);
	}
	dev_user_cfg_cpu_nums n{};
	ASSERT_EQ(dev_user_cfg_get_cpu_number(c.dev, &n), c.rc);
	if (c.rc == 0) {
		EXPECT_EQ((std::vector<u32>{n.ccpu_num, n.dcpu_num, n.aicpu_num}), c.nums);
		EXPECT_EQ((std::vector<u32>{n.ccpu_os_sched, n.dcpu_os_sched, n.aicpu_os_sched,
					    n.tscpu_num, n.tscpu_os_sched}),
			  (std::vector<u32>{1, 1, 1, 0, 0}));
		// Read once per module life: changed files are not seen.
		for (const char *p : paths)
			tb::files::set(p, "0-9,0-9\n");
		dev_user_cfg_cpu_nums again{};
		EXPECT_EQ(dev_user_cfg_get_cpu_number(c.dev, &again), 0);
		EXPECT_EQ(again.ccpu_num, n.ccpu_num);
	} else {
		// Not filled: the next call reads every file again.
		for (const char *p : paths)
			tb::files::set(p, "0-1,2\n");
		EXPECT_EQ(dev_user_cfg_get_cpu_number(c.dev, &n), 0);
		EXPECT_EQ(n.ccpu_num, 2u);
	}
	EXPECT_EQ(tb::problems(), "");
}
INSTANTIATE_TEST_SUITE_P(Cgroups, CpuPartition, ::testing::ValuesIn(kCpusets),
			 [](const auto &i) { return name_of(i.param.what); });

TEST(CpuPartition, Arguments)
{
	daemon();
	u32 cfg[3] = {};
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(0, cfg, 16), -EINVAL);
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(2, cfg, 12), -EINVAL);
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(1, cfg, 12), 0);
	EXPECT_EQ((std::vector<u32>(cfg, cfg + 3)), (std::vector<u32>{3, 5, 9}));
	ASSERT_EQ(set(1, "cpu_num_cfg", {7, 8, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 0);
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(1, cfg, 12), 0);
	EXPECT_EQ((std::vector<u32>(cfg, cfg + 3)), (std::vector<u32>{7, 8, 9}));
	EXPECT_EQ(dev_user_cfg_get_cpu_number(0, nullptr), -EINVAL);
	tb::ctl::set(true, 1);
	dev_user_cfg_cpu_nums n{};
	EXPECT_EQ(dev_user_cfg_get_cpu_number(1, &n), -EINVAL);
}

// --- Who may do what, with which arguments ------------------------------------------

struct Access;
void PrintTo(const Access &c, std::ostream *os);
struct Access {
	const char *what;
	std::function<void()> setup;
	Fn op;
	int rc;
	u32 slept = 0;	// ms the caller slept
};

tb::task::Spec as(u32 uid, bool admin, const char *exe = "/usr/bin/tool")
{
	tb::task::Spec s;
	s.uid = uid;
	s.admin = admin;
	s.exe = exe;
	return s;
}

int handler(std::vector<const char *> names)
{
	return whitelist_process_handler(names.data(), static_cast<u32>(names.size()));
}

const Access kAccess[] = {
	{"anyone reads ssh_status", [] { tb::task::set(as(1234, false)); },
	 [] { return get(0, "ssh_status", 1).rc; }, 0},
	{"usershadow needs CAP_SYS_ADMIN to read", [] { tb::task::set(as(0, false)); },
	 [] { return get(0, "usershadow", 2048).rc; }, -EACCES},
	{"root with CAP_SYS_ADMIN sets usershadow without the whitelist",
	 [] { tb::task::set(as(0, true)); }, [] { return set(0, "usershadow", Bytes(2048)); }, 0},
	{"but not ssh_status", [] { tb::task::set(as(0, true)); },
	 [] { return set(0, "ssh_status", {1}); }, -EACCES},
	{"nor a named item", [] { tb::task::set(as(0, true)); }, [] { return set(0, "n", {1}); },
	 -EACCES},
	{"the daemon as another uid", [] { tb::task::set(as(1000, true, "/var/devmgr_daemon")); },
	 [] { return clear(0, "ssh_status"); }, -EACCES},
	{"the daemon's copy elsewhere", [] { tb::task::set(as(1101, true, "/tmp/devmgr_daemon")); },
	 [] { return set(0, "n", {1}); }, -EACCES},
	{"a longer name", [] { tb::task::set(as(1101, true, "/var/devmgr_daemon2")); },
	 [] { return set(0, "n", {1}); }, -EACCES},
	{"the daemon writes", [] {}, [] { return set(0, "n", {1}); }, 0},
	{"buf_size 0", [] {}, [] { return set(0, "n", {}); }, -EINVAL},
	{"buf_size 32769", [] {}, [] { return set(0, "n", Bytes(32769)); }, -EINVAL},
	{"buf_size 32768", [] {}, [] { return set(0, "n", Bytes(32768)); }, 0},
	{"a null buffer", [] {},
	 [] {
		 u32 n = 4;
		 return ioctl(0, 1, "n", nullptr, &n);
	 },
	 -EINVAL},
	{"clear needs no buffer", [] { ASSERT_EQ(set(0, "n", {1}), 0); },
	 [] { return clear(0, "n"); }, 0},
	{"device 1 of one", [] { tb::ctl::set(true, 1); },
	 [] { return get(1, "ssh_status", 1).rc; }, -EINVAL},
	{"three devices", [] { tb::ctl::set(true, 3); },
	 [] { return get(0, "ssh_status", 1).rc; }, -EINVAL},
	{"the control module fails", [] { tb::ctl::set(true, 2, -7); },
	 [] { return get(0, "ssh_status", 1, Via::Kernel).rc; }, -EINVAL},
	{"a static get needs the exact size", [] {},
	 [] { return get(0, "ssh_status", 2).rc; }, -EINVAL},
	{"kernel set sleeps after writing", [] {}, [] { return set(0, "ssh_status", {1}, Via::Kernel); },
	 0, 100},
	{"and after a failed write", [] {},
	 [] { return set(0, "ssh_status", {1, 2}, Via::Kernel); }, -EINVAL, 100},
	{"but not after refused arguments", [] {},
	 [] { return set(5, "ssh_status", {1}, Via::Kernel); }, -EINVAL, 0},
	{"kernel names of 31 characters", [] {},
	 [] { return set(0, std::string(31, 'n'), {1}, Via::Kernel); }, 0, 100},
	{"kernel get of a static item with room to spare", [] {},
	 [] { return get(0, "p2p_mem_cfg", 100, Via::Kernel).rc; }, 0},
	{"kernel get of a static item with too little room", [] {},
	 [] { return get(0, "p2p_mem_cfg", 3, Via::Kernel).rc; }, -EINVAL},
	{"kernel clear of device 2", [] { tb::ctl::set(true, 4); },
	 [] { return devdrv_config_clear_user_item(2, 5); }, -EINVAL},
	{"kernel clear outside the catalogue is the empty name", [] {},
	 [] { return devdrv_config_clear_user_item(0, 9); }, -ENOENT},
	{"whitelist: sched_daemon not in the list",
	 [] { tb::task::set(as(1000, false, "/var/sched_daemon")); },
	 [] { return handler({"devmgr_daemon"}); }, -1},
	{"whitelist: sched_daemon in the list", [] { tb::task::set(as(1000, false, "/var/sched_daemon")); },
	 [] { return handler({"sched_daemon"}); }, 0},
	{"whitelist: the superuser gets no pass", [] { tb::task::set(as(0, true, "/var/devmgr_daemon")); },
	 [] { return handler({"devmgr_daemon"}); }, -ENXIO},
	{"whitelist: 50 names", [] {},
	 [] { return handler(std::vector<const char *>(50, "devmgr_daemon")); }, 0},
	{"whitelist: 51 names", [] {},
	 [] { return handler(std::vector<const char *>(51, "devmgr_daemon")); }, -1},
	{"whitelist: a missing name", [] {}, [] { return handler({"x", nullptr}); }, -1},
	{"whitelist: no names", [] {}, [] { return handler({}); }, -1},
	{"signature type 2 is refused", [] {}, [] { return devdrv_config_set_pss_cfg(7, 2); },
	 -EINVAL},
	{"signature type for any device", [] {},
	 [] {
		 u32 v = 9;
		 int rc = devdrv_config_set_pss_cfg(7, 0) | devdrv_config_get_pss_cfg(3, &v);
		 return rc ? rc : static_cast<int>(v);
	 },
	 0},
	{"no place for the signature type", [] {}, [] { return devdrv_config_get_pss_cfg(0, nullptr); },
	 -EINVAL},
};

void PrintTo(const Access &c, std::ostream *os)
{
	print_what(c, os);
}

class Entries : public ::testing::TestWithParam<Access> {};

TEST_P(Entries, Refuse)
{
	const Access &c = GetParam();
	daemon();
	c.setup();
	EXPECT_EQ(c.op(), c.rc);
	EXPECT_EQ(tb::slept_ms(), c.slept);
	EXPECT_EQ(tb::problems(), "");
}
INSTANTIATE_TEST_SUITE_P(Access, Entries, ::testing::ValuesIn(kAccess),
			 [](const auto &i) { return name_of(i.param.what); });

} // namespace
