// SPDX-License-Identifier: GPL-2.0
//
// Choosing the valid head copy and repairing the other, item-by-item sync of
// content copies, and the fixed write order of a head and content pair.
// Head and content images are built here from the on-flash format, with
// check codes computed independently of the module.
#include <openssl/sha.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testbed.h"

extern "C" {
#include "store/store.h"
}

namespace {

namespace fl = tb::flash;
using L = tb::log::Level;
using Image = fl::Image;

void put32(Image &img, std::size_t off, tb::u32 v) { std::memcpy(&img[off], &v, 4); }

// An initialised head (format word, usage table, valid flag), optionally
// with the static record of ssh_status set to v; sealed with its check code.
Image sealed(Image img)
{
	SHA256(img.data(), 65500, &img[65500]);
	return img;
}

Image head(int ssh = -1)
{
	Image img(fl::kBlockSize, 0);
	img[0] = 1;
	for (tb::u32 i = 0; i < 32; i++) {
		img[65372 + 4 * i] = static_cast<tb::u8>(i);
		if (i < 2)
			put32(img, 65372 + 4 * i, i | 0x01u << 8 | 0xffffu << 16);
	}
	put32(img, 65532, 0x8a7b6c5d);
	if (ssh >= 0) {
		img[3102] = 1;
		img[3103] = static_cast<tb::u8>(ssh);
	}
	return sealed(img);
}

struct Item {
	const char *name;
	tb::u32 blk, off, bytes, valid;
};

// Appends item records to a head (unsealed: the caller seals if needed).
void add_items(Image &h, const std::vector<Item> &items)
{
	tb::u32 len;
	std::memcpy(&len, &h[8192], 4);
	for (const Item &it : items) {
		std::size_t r = 8196 + len;
		std::memset(&h[r], 0, 52);
		std::strncpy(reinterpret_cast<char *>(&h[r]), it.name, 32);
		put32(h, r + 32, it.blk);
		put32(h, r + 36, it.off);
		put32(h, r + 40, it.bytes);
		put32(h, r + 48, it.valid);
		len += 52;
	}
	put32(h, 8192, len);
}

tb::u32 record_valid(const Image &h, tb::u32 i)
{
	tb::u32 v;
	std::memcpy(&v, &h[8196 + 52 * i + 48], 4);
	return v;
}

// A content slot: n bytes of content then their SHA-256.
void put_slot(Image &blk, tb::u32 off, tb::u32 n, tb::u8 seed)
{
	for (tb::u32 i = 0; i < n; i++)
		blk[off + i] = static_cast<tb::u8>(seed + i * 13);
	SHA256(&blk[off], n, &blk[off + n]);
}

Image junk(tb::u8 v) { return Image(fl::kBlockSize, v); }

class Recovery : public tb::Fixture {};

// ---------------------------------------------------------------------------
TEST_F(Recovery, HeadSituations)
{
	const Image a = head(1), b = head(0);
	Image bad_flag = a, flipped = a, zero_code = head();
	put32(bad_flag, 65532, 0x8a7b6c5e);
	flipped[3103] ^= 0x40;
	std::memset(&zero_code[65500], 0, 32);
	const Image blank = junk(0xff);

	struct Case {
		const char *name;
		tb::u32 dev;
		Image main, bk;
		tb::u32 state, id;
		const char *trace;
		const Image *want_image;	// what the caller's image holds
		Image main_after, bk_after;
		tb::u32 mv, bv;
	} cases[] = {
		{"both valid, equal", 0, a, a, 3, 0, "R0 R32 R0", &a, a, a, 1, 1},
		{"both valid, different", 0, a, b, 3, 0, "R0 R32 R0", &a, a, b, 1, 1},
		{"main wrong valid flag", 0, bad_flag, a, 2, 32, "R0 R32 R32 R0 W0 R0", &a, a, a, 0, 1},
		{"main flipped byte", 1, flipped, a, 2, 32, "R0 R32 R32 R0 W0 R0", &a, a, a, 0, 1},
		{"backup damaged", 0, a, flipped, 1, 0, "R0 R32 R0 R32 W32 R32", &a, a, a, 1, 0},
		{"backup blank", 0, b, blank, 1, 0, "R0 R32 R0 R32 W32 R32", &b, b, b, 1, 0},
		{"repair of a device never written through the target path", 2, bad_flag, a, 2,
		 32, "R0 R32 R32 R0 W0 R0", &a, a, a, 0, 1},
		{"both damaged", 0, flipped, bad_flag, 0, 0, "R0 R32", nullptr, flipped, bad_flag, 0, 0},
		{"both without check code", 0, zero_code, zero_code, 0, 0, "R0 R32", nullptr,
		 zero_code, zero_code, 0, 0},
		{"blank flash", 0, blank, blank, 0, 0, "R0 R32", nullptr, blank, blank, 0, 0},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		fl::load_block(c.dev, 0, c.main);
		fl::load_block(c.dev, 32, c.bk);
		Image img(fl::kBlockSize, 0x5a);
		tb::u32 state = 99, id = 99;
		ASSERT_EQ(devdrv_config_get_valid_block(c.dev, img.data(), &state, &id), 0);
		EXPECT_EQ(state, c.state);
		EXPECT_EQ(fl::trace_str(c.dev), c.trace);
		EXPECT_EQ(fl::block(c.dev, 0), c.main_after);
		EXPECT_EQ(fl::block(c.dev, 32), c.bk_after);
		EXPECT_TRUE(tb::log::has(L::Info, "devdrv_config_get_valid_block",
			"The main valid, backup valid. (device_id=" + std::to_string(c.dev) +
				"; main_valid=" + std::to_string(c.mv) + "; bk_valid=" +
				std::to_string(c.bv) + ")"));
		if (!c.want_image) {
			EXPECT_TRUE(tb::log::has(L::Info, "devdrv_config_get_valid_block",
				"Can not find any valid block, maybe user config is not exist in flash."));
			EXPECT_EQ(fl::total_writes(), 0u);
			continue;
		}
		EXPECT_EQ(id, c.id);
		EXPECT_EQ(img, *c.want_image);
		// Repaired: the next call finds both copies valid.
		fl::mark();
		ASSERT_EQ(devdrv_config_get_valid_block(c.dev, img.data(), &state, &id), 0);
		EXPECT_EQ(state, 3u);
		EXPECT_EQ(id, 0u);
		EXPECT_EQ(fl::trace_str_since_mark(c.dev), "R0 R32 R0");
	}
}

// Read and write failures while the head is chosen and repaired.
TEST_F(Recovery, HeadFailures)
{
	const Image a = head(1);
	Image bad = a;
	bad[100] ^= 1;
	struct Case {
		const char *name;
		Image main, bk;
		std::function<void()> arm;
		int rc;
		tb::u32 state;
		const char *step, *msg;
		Image main_after, bk_after;
	} cases[] = {
		{"read error on block 0, block 32 intact", a, a,
		 [] { fl::fail_read(1, -5, fl::on_block(0)); }, -ENODEV, 0,
		 "devdrv_config_check_blk_validity",
		 "The devdrv_config_read_block failed. (device_id=0; blk_id=0; ret=-19)", a, a},
		{"read error on block 32", bad, a, [] { fl::fail_read(1, -5, fl::on_block(32)); },
		 -ENODEV, 0, "devdrv_config_check_blk_validity",
		 "The devdrv_config_read_block failed. (device_id=0; blk_id=32; ret=-19)", bad, a},
		{"re-read of the chosen copy fails", bad, a, [] { fl::fail_read(3); }, -ENODEV, 2,
		 "devdrv_config_get_valid_block",
		 "The devdrv_config_read_block failed. (device_id=0; block=32; ret=-19)", bad, a},
		{"repair write fails", a, bad, [] { fl::fail_write(1); }, -ENODEV, 1,
		 "devdrv_config_get_valid_block",
		 "The devdrv_config_write_one_block failed. (device_id=0; block=32; ret=-19)", a, bad},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		fl::load_block(0, 0, c.main);
		fl::load_block(0, 32, c.bk);
		c.arm();
		Image img(fl::kBlockSize);
		tb::u32 state = 99, id = 99;
		EXPECT_EQ(devdrv_config_get_valid_block(0, img.data(), &state, &id), c.rc);
		EXPECT_EQ(state, c.state);
		EXPECT_TRUE(tb::log::has(L::Error, c.step, c.msg)) << tb::log::dump(8);
		EXPECT_EQ(fl::block(0, 0), c.main_after);
		EXPECT_EQ(fl::block(0, 32), c.bk_after);
		if (c.state == 0) {
			EXPECT_EQ(fl::total_writes(), 0u);
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_valid_block",
				"The devdrv_config_check_blk_validity failed. (device_id=0; ret=-19)"));
		}
	}
}

// ---------------------------------------------------------------------------
// Sync of one content block (mode 1), item by item.
TEST_F(Recovery, SyncOneBlock)
{
	enum Damage { None, Main, Backup, Both, Differ };
	struct Case {
		const char *name;
		Damage damage;
		tb::u32 valid_flg;	// of the record
		const char *trace;
		tb::u32 valid_after;
		bool main_fixed, bk_fixed;
	} cases[] = {
		{"both intact and equal", None, 1, "R2 R34", 1, false, false},
		{"main damaged", Main, 1, "R2 R34 R2 W2 R2", 1, true, false},
		{"backup damaged", Backup, 1, "R2 R34 R34 W34 R34", 1, false, true},
		{"both intact, different", Differ, 1, "R2 R34 R34 W34 R34", 1, false, true},
		{"both damaged", Both, 1, "R2 R34", 0, false, false},
		{"damaged but free record", Both, 0, "R2 R34", 0, false, false},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		// Two live slots in block 2; the case's damage hits the second.
		Image main = junk(0x33), bk = junk(0x44);
		put_slot(main, 0, 100, 1);
		put_slot(bk, 0, 100, 1);
		put_slot(main, 132, 5000, 7);
		put_slot(bk, 132, 5000, c.damage == Differ ? 8 : 7);
		const Image good_main = main, good_bk = bk;
		if (c.damage == Main || c.damage == Both)
			main[132 + 4999] ^= 1;
		if (c.damage == Backup || c.damage == Both)
			bk[132 + 5000 + 31] ^= 0x80;	// in the check code
		fl::load_block(0, 2, main);
		fl::load_block(0, 34, bk);
		Image h = head();
		add_items(h, {{"first", 2, 0, 100, 1}, {"second", 2, 132, 5000, c.valid_flg},
			      {"elsewhere", 3, 0, 10, 1}});
		Image h_before = h;

		ASSERT_EQ(devdrv_config_sync_main_backup(0, h.data(), 1, 2), 0);
		EXPECT_EQ(fl::trace_str(0), c.trace);
		EXPECT_EQ(record_valid(h, 1), c.valid_after);
		Image h_expect = h_before;
		put32(h_expect, 8196 + 52 + 48, c.valid_after);
		EXPECT_EQ(h, h_expect) << "only the record's valid flag may change";

		// Slots are copied whole; bytes outside live slots stay as they were.
		Image want_main = main, want_bk = bk;
		if (c.main_fixed)
			std::copy(good_bk.begin() + 132, good_bk.begin() + 5164, want_main.begin() + 132);
		if (c.bk_fixed)
			std::copy(good_main.begin() + 132, good_main.begin() + 5164, want_bk.begin() + 132);
		EXPECT_EQ(fl::block(0, 2), want_main);
		EXPECT_EQ(fl::block(0, 34), want_bk);
		if (c.valid_after == 0 && c.valid_flg == 1) {
			EXPECT_TRUE(tb::log::has_fmt(L::Info, "devdrv_config_sync_item_content",
						     "Memcmp not equal, item invalid. (ret=%d)"));
		}
		EXPECT_TRUE(tb::log::has(L::Info, "devdrv_config_sync_main_backup",
			"Synchronizing the primary and backup blocks succeeded. (device_id=0; flag=1)"));
	}
}

// Refusals of the head table, digest failure, and the all-blocks sync
// stopping at a read error.
TEST_F(Recovery, SyncRefusalsAndAllBlocks)
{
	struct Case {
		const char *name;
		tb::u32 head_len;
		std::vector<Item> items;
		std::function<void()> arm;
		int rc;
		L level;
		const char *step, *msg;
	} cases[] = {
		{"head_len 53", 53, {}, nullptr, -EINVAL, L::Error, "devdrv_config_sync_one_block",
		 "The head len data err. (device_id=0; head_len=53)"},
		{"1,100 records", 52 * 1100, {}, nullptr, -ENOSPC, L::Error,
		 "devdrv_config_sync_one_block", "The head_num out of range. (device_id=0; item_num=1100)"},
		{"no records", 0, {}, nullptr, 0, L::Warning, "devdrv_config_sync_one_block",
		 "The item num is 0, no need to sync. (device_id=0)"},
		{"slot past the block end", 0, {{"x", 2, 65500, 4, 1}}, nullptr, -EINVAL, L::Error,
		 "devdrv_config_sync_item_content", "Item offset out of range. (offset=65500; item_bytes=4)"},
		{"digest unavailable", 0, {{"x", 2, 0, 10, 1}}, [] { tb::crypto::fail_alloc(1); },
		 -ENODATA, L::Error, "devdrv_config_sync_item_content",
		 "The devdrv_config_cmp_sha256_data failed. (ret=-61)"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		Image h = head();
		put32(h, 8192, c.head_len);
		add_items(h, c.items);
		if (c.arm)
			c.arm();
		EXPECT_EQ(devdrv_config_sync_main_backup(0, h.data(), 1, 2), c.rc);
		EXPECT_TRUE(tb::log::has(c.level, c.step, c.msg)) << tb::log::dump(6);
		if (c.items.empty()) {
			EXPECT_EQ(fl::total_reads(), 0u) << "the table decides before any read";
		}
		EXPECT_EQ(fl::total_writes(), 0u);
		if (c.rc) {
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_sync_main_backup",
				"The devdrv_config_sync_one_block failed. (device_id=0; ret=" +
					std::to_string(c.rc) + ")"));
		}
	}

	// All blocks: one item per block 2..9, each with a damaged main slot.
	// A read error at block 7 leaves 2..6 synced and written.
	tb::reset();
	Image h = head();
	for (tb::u32 blk = 2; blk <= 9; blk++) {
		Image m = junk(0), b = junk(0);
		put_slot(b, 40, 300, static_cast<tb::u8>(blk));
		m = b;
		m[40] ^= 1;
		fl::load_block(0, blk, m);
		fl::load_block(0, blk + 32, b);
		add_items(h, {{"it", blk, 40, 300, 1}});
	}
	fl::fail_read(1, -5, fl::on_block(7));
	EXPECT_EQ(devdrv_config_sync_main_backup(0, h.data(), 0, 0), -ENODEV);
	for (tb::u32 blk = 2; blk <= 9; blk++) {
		EXPECT_EQ(fl::writes(0, blk), blk < 7 ? 1u : 0u) << blk;
		EXPECT_EQ(fl::writes(0, blk + 32), 0u) << blk;
		EXPECT_EQ(fl::block(0, blk) == fl::block(0, blk + 32), blk < 7) << blk;
	}
	EXPECT_EQ(fl::reads(0, 8), 0u) << "stops at the first error";

	// Without the fault, every content block pair is read once and only the
	// damaged ones are written.
	const Image area = fl::area(0);
	tb::reset();	// counters from zero, flash as the failed sync left it
	fl::load_area(0, area);
	for (tb::u32 blk = 7; blk <= 9; blk++) {
		Image b = fl::block(0, blk + 32);
		b[40] ^= 1;
		fl::load_block(0, blk, b);
	}
	EXPECT_EQ(devdrv_config_sync_main_backup(0, h.data(), 0, 0), 0);
	for (tb::u32 blk = 2; blk < 32; blk++) {
		EXPECT_EQ(fl::reads(0, blk), blk >= 7 && blk <= 9 ? 3u : 1u) << blk;
		EXPECT_EQ(fl::reads(0, blk + 32), 1u) << blk;
		EXPECT_EQ(fl::writes(0, blk), blk >= 7 && blk <= 9 ? 1u : 0u) << blk;
	}
	EXPECT_EQ(fl::total_writes(), 3u);
	EXPECT_EQ(fl::reads(0, 0) + fl::reads(0, 1) + fl::reads(0, 32) + fl::reads(0, 33), 0u);
}

// ---------------------------------------------------------------------------
// The pair writer: main content, main head, backup content, backup head.
TEST_F(Recovery, HeadAndContentWriteOrder)
{
	struct Case {
		const char *name;
		tb::u32 blk;
		tb::u32 flags[4];	// main head, bk head, main content, bk content
		std::function<void()> arm;
		int rc;
		const char *trace;
		std::vector<tb::u32> untouched;
	} cases[] = {
		{"all, main number", 5, {1, 1, 1, 1}, nullptr, 0,
		 "R5 W5 R5 R0 W0 R0 R37 W37 R37 R32 W32 R32", {}},
		{"all, backup number", 37, {1, 1, 1, 1}, nullptr, 0,
		 "R5 W5 R5 R0 W0 R0 R37 W37 R37 R32 W32 R32", {}},
		{"main content only", 37, {0, 0, 1, 0}, nullptr, 0, "R5 W5 R5", {0, 32, 37}},
		{"flag other than 1 skips", 5, {2, 0, 1, 7}, nullptr, 0, "R5 W5 R5", {0, 32, 37}},
		{"failure at block 0", 5, {1, 1, 1, 1},
		 [] { fl::fail_write(1, -5, fl::on_block(0)); }, -ENODEV, "R5 W5 R5 R0 W0!",
		 {0, 32, 37}},
		{"failure at block 37", 5, {1, 1, 1, 1},
		 [] { fl::fail_write(1, -5, fl::on_block(37)); }, -ENODEV,
		 "R5 W5 R5 R0 W0 R0 R37 W37!", {32, 37}},
	};
	const char *done[] = {"main_content_wr_flag", "main_head_wr_flag", "bk_content_wr_flag",
			      "bk_head_wr_flag"};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		const Image old = junk(0x77);
		for (tb::u32 b : {0u, 5u, 32u, 37u})
			fl::load_block(0, b, old);
		Image h = head(1), content = junk(0x12);
		user_cfg_op_ctx ctx;
		std::memset(&ctx, 0, sizeof(ctx));
		ctx.dev_id = 0;
		ctx.head_blk = h.data();
		ctx.content_blk = content.data();
		ctx.blk = c.blk;
		ctx.main_head_wr_flag = c.flags[0];
		ctx.bk_head_wr_flag = c.flags[1];
		ctx.main_content_wr_flag = c.flags[2];
		ctx.bk_content_wr_flag = c.flags[3];
		if (c.arm)
			c.arm();
		EXPECT_EQ(devdrv_config_write_flash_head_content(&ctx), c.rc);
		EXPECT_EQ(fl::trace_str(0), c.trace);
		for (tb::u32 b : c.untouched)
			EXPECT_EQ(fl::block(0, b), old) << "block " << b;
		if (c.rc == 0) {
			for (tb::u32 b : {0u, 5u, 32u, 37u}) {
				if (fl::writes(0, b) == 1) {
					EXPECT_EQ(fl::block(0, b), b % 32 == 0 ? h : content) << b;
				}
			}
			const tb::u32 order[] = {c.flags[2], c.flags[0], c.flags[3], c.flags[1]};
			for (int i = 0; i < 4; i++) {
				EXPECT_EQ(tb::log::has(L::Info, "devdrv_config_write_flash_head_content",
					std::string("devdrv_config_write_flash_head_content ") + done[i] + "."),
					  order[i] == 1) << done[i];
			}
		} else {
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_write_flash_head_content",
				"The devdrv_config_write_blk_ops failed. (ret=-19)"));
		}
	}
}

} // namespace
