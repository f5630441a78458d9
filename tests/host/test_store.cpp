// SPDX-License-Identifier: GPL-2.0
//
// The block layer and the records it handles: where blocks lie on the
// secure flash, what an initialised head holds, what a block write costs in
// transfers and what it leaves behind on failure, the limits of an item
// record, first-fit allocation of content space, check codes, device locks,
// the signature type, and the log prefix every later test relies on.
#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testbed.h"

extern "C" {
#include "drv_user_cfg.h"
#include "store/store.h"
}

namespace {

namespace fl = tb::flash;
using L = tb::log::Level;
using Image = fl::Image;

Image pattern(tb::u8 seed)
{
	Image img(fl::kBlockSize);
	for (std::size_t i = 0; i < img.size(); i++)
		img[i] = static_cast<tb::u8>(seed + i * 7 + (i >> 8));
	return img;
}

// The initialised head image, byte by byte as the on-flash format fixes it.
Image documented_init_head()
{
	Image img(fl::kBlockSize, 0);
	img[0] = 1;
	for (tb::u32 i = 0; i < 32; i++) {
		std::size_t e = 65372 + 4 * i;
		img[e] = static_cast<tb::u8>(i);
		if (i < 2) {
			img[e + 1] = 1;
			img[e + 2] = 0xff;
			img[e + 3] = 0xff;
		}
	}
	img[65532] = 0x5d;
	img[65533] = 0x6c;
	img[65534] = 0x7b;
	img[65535] = 0x8a;
	return img;
}

class Store : public tb::Fixture {};

// ---------------------------------------------------------------------------
// Addressing: block b of device d is the whole block at flash byte
// (b + 164) * 65536 of that device; the simulator maps that offset back to
// (d, b) and flags anything else as a violation.
TEST_F(Store, BlocksAreAddressedPerDeviceAndNumber)
{
	const struct {
		tb::u32 dev, blk;
	} cases[] = {{0, 0}, {0, 1}, {0, 31}, {0, 32}, {0, 63}, {1, 5}, {1, 63}, {3, 37}};
	for (const auto &c : cases)
		fl::load_block(c.dev, c.blk, pattern(static_cast<tb::u8>(c.dev * 64 + c.blk)));
	Image got(fl::kBlockSize);
	for (const auto &c : cases) {
		SCOPED_TRACE("dev " + std::to_string(c.dev) + " blk " + std::to_string(c.blk));
		fl::clear_trace();
		ASSERT_EQ(devdrv_config_read_block(c.dev, c.blk, got.data()), 0);
		EXPECT_EQ(got, pattern(static_cast<tb::u8>(c.dev * 64 + c.blk)));
		ASSERT_EQ(fl::trace().size(), 1u);
		EXPECT_EQ(fl::trace()[0].blk, c.blk);
		EXPECT_EQ(fl::trace()[0].dev, c.dev);
	}
	EXPECT_EQ(UCFG_BLK_FLASH_OFFSET(63u), 14876672u);
	EXPECT_EQ(UCFG_BLK_FLASH_OFFSET(0u), 0xA40000u);

	// Block 64 and beyond never reach the flash.
	fl::clear_trace();
	for (tb::u32 blk : {64u, 65u, 0xffffffffu}) {
		EXPECT_EQ(devdrv_config_read_block(0, blk, got.data()), -EINVAL);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_read_block",
			"The block of device id is out of range. (device_id=0; block=" +
				std::to_string(blk) + ")"));
	}
	EXPECT_EQ(fl::trace().size(), 0u);

	// A failed read is -19 whatever the flash module said.
	fl::fail_read(1, -123);
	EXPECT_EQ(devdrv_config_read_block(0, 3, got.data()), -ENODEV);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_read_block",
				 "The sec_flash_read failed. (device_id=0; ret=-123)"));
}

TEST_F(Store, InitialisedHeadImageByteForByte)
{
	Image img(fl::kBlockSize, 0xee);	// every byte must be set by the init
	ASSERT_EQ(devdrv_config_init_block(img.data()), 0);
	EXPECT_EQ(img, documented_init_head());

	// Initialised and written as it is: no check code, so no valid head.
	Image img2(fl::kBlockSize, 0x11);
	ASSERT_EQ(devdrv_config_init_block_dynamic(1, img2.data(), 1), 0);
	EXPECT_EQ(fl::block(1, 0), documented_init_head());
	EXPECT_EQ(fl::block(1, 32), documented_init_head());
	EXPECT_EQ(fl::trace_str(1), "R0 W0 R0 R32 W32 R32");
	// write != 1: initialised in memory only.
	fl::mark();
	ASSERT_EQ(devdrv_config_init_block_dynamic(0, img2.data(), 2), 0);
	EXPECT_EQ(img2, documented_init_head());
	EXPECT_EQ(fl::reads_since_mark() + fl::writes_since_mark(), 0u);
}

// ---------------------------------------------------------------------------
// The block writer, by transfers. Flash starts with "old" in every touched
// block; the writer is asked to store "fresh".
struct WriteCase {
	const char *name;
	tb::u32 dev, blk, target;
	std::function<void()> setup;	// preload / arm a fault
	int rc;
	const char *trace;		// of the case's device
	std::vector<tb::u32> fresh;	// blocks that must hold the new image
	std::vector<tb::u32> old;	// blocks that must still hold the old one
	const char *step, *msg;		// one error or info line that must appear
};

TEST_F(Store, BlockWriterContract)
{
	const Image fresh = pattern(1), old = pattern(2);
	auto none = [] {};
	const WriteCase cases[] = {
		{"equal image", 0, 5, UCFG_WR_MAIN, [&] { fl::load_block(0, 5, fresh); }, 0,
		 "R5", {5}, {}, "devdrv_config_write_one_block",
		 "The write data is the same as the current flash data. (device_id=0)"},
		{"changed image", 0, 5, UCFG_WR_MAIN, none, 0, "R5 W5 R5", {5}, {37},
		 "devdrv_config_write_block", "The sec_flash_write of device id. (device_id=0)"},
		{"read-back mismatch", 0, 5, UCFG_WR_MAIN, [] { fl::corrupt_write(1, 100); },
		 -ENODEV, "R5 W5 R5", {}, {37}, "devdrv_config_write_one_block",
		 "The memcmp failed. (device_id=0)"},
		{"write error", 0, 5, UCFG_WR_MAIN, [] { fl::fail_write(1, -77); }, -ENODEV,
		 "R5 W5!", {}, {5, 37}, "devdrv_config_write_one_block",
		 "The devdrv_config_write_block failed. (device_id=0; ret=-19)"},
		{"compare read error", 0, 5, UCFG_WR_MAIN, [] { fl::fail_read(1); }, -ENODEV,
		 "R5!", {}, {5}, "devdrv_config_write_one_block",
		 "The devdrv_config_read_block failed. (device_id=0; ret=-19)"},
		{"read-back error", 0, 5, UCFG_WR_MAIN, [] { fl::fail_read(2); }, -ENODEV,
		 "R5 W5 R5!", {5}, {37}, "devdrv_config_write_one_block",
		 "The devdrv_config_read_block failed. (device_id=0; ret=-19)"},
		{"both from main", 0, 5, UCFG_WR_BOTH, none, 0, "R5 W5 R5 R37 W37 R37", {5, 37},
		 {}, "devdrv_config_write_block", "The sec_flash_write of device id. (device_id=0)"},
		{"both from backup", 0, 37, UCFG_WR_BOTH, none, 0, "R37 W37 R37 R5 W5 R5",
		 {5, 37}, {}, "devdrv_config_write_block",
		 "The sec_flash_write of device id. (device_id=0)"},
		{"backup only", 0, 37, UCFG_WR_BACKUP, none, 0, "R37 W37 R37", {37}, {5},
		 "devdrv_config_write_block", "The sec_flash_write of device id. (device_id=0)"},
		{"both, device 1", 1, 0, UCFG_WR_BOTH, none, 0, "R0 W0 R0 R32 W32 R32", {0, 32},
		 {}, "devdrv_config_write_block", "The sec_flash_write of device id. (device_id=1)"},
		{"both, first write fails", 0, 5, UCFG_WR_BOTH,
		 [] { fl::fail_write(1, -5, fl::on_block(5)); }, -ENODEV, "R5 W5!", {}, {5, 37},
		 "devdrv_config_write_blk_ops",
		 "The devdrv_config_write_one_block failed. (device_id=0; ret=-19)"},
		{"both, second write fails", 0, 5, UCFG_WR_BOTH,
		 [] { fl::fail_write(1, -5, fl::on_block(37)); }, -ENODEV,
		 "R5 W5 R5 R37 W37!", {5}, {37}, "devdrv_config_write_block",
		 "The sec_flash_write failed. (device_id=0; ret=-5)"},
		{"device 2", 2, 0, UCFG_WR_BOTH, none, -EINVAL, "", {}, {0, 32},
		 "devdrv_config_write_blk_check", "The device ID is not fixed. (device_id=2)"},
		{"main target, backup block", 0, 32, UCFG_WR_MAIN, none, -EINVAL, "", {}, {0, 32},
		 "devdrv_config_write_blk_check", "Index and flag not fixed. (blk_index=32; flag=1)"},
		{"backup target, main block", 0, 5, UCFG_WR_BACKUP, none, -EINVAL, "", {}, {5, 37},
		 "devdrv_config_write_blk_check", "Index and flag not fixed. (blk_index=5; flag=2)"},
		{"block 64", 0, 64, UCFG_WR_BOTH, none, -EINVAL, "", {}, {0, 32},
		 "devdrv_config_write_blk_check", "Index and flag not fixed. (blk_index=64; flag=3)"},
	};
	for (const WriteCase &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		for (tb::u32 b : {0u, 5u, 32u, 37u})
			fl::load_block(c.dev, b, old);
		c.setup();
		Image img = fresh;
		EXPECT_EQ(devdrv_config_write_blk_ops(c.dev, c.blk, img.data(), c.target), c.rc);
		EXPECT_EQ(fl::trace_str(c.dev), c.trace);
		if (c.trace[0] == '\0') {
			EXPECT_EQ(fl::trace().size(), 0u) << "no flash access at all";
		}
		for (tb::u32 b : c.fresh) {
			EXPECT_EQ(fl::block(c.dev, b), fresh) << "block " << b;
		}
		for (tb::u32 b : c.old) {
			EXPECT_EQ(fl::block(c.dev, b), old) << "block " << b;
		}
		EXPECT_EQ(img, fresh) << "the caller's image is not the writer's to change";
		EXPECT_TRUE(tb::log::find(L::Error, c.step, c.msg) ||
			    tb::log::find(L::Info, c.step, c.msg))
			<< tb::log::dump(12);
		if (c.rc == -EINVAL) {
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_write_blk_ops",
				"The devdrv_config_write_blk_check failed. (device_id=" +
					std::to_string(c.dev) + "; ret=-22)"));
		}
		EXPECT_EQ(tb::alloc::outstanding(), 0u);
	}
	tb::reset();
	EXPECT_EQ(devdrv_config_write_blk_ops(0, 0, nullptr, UCFG_WR_BOTH), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_write_blk_check",
				 "Block data is NULL. (device_id=0)"));
	EXPECT_EQ(fl::trace().size(), 0u);
}

// ---------------------------------------------------------------------------
// The log prefix, on one error line and one info line, with the task record
// the test sets; then one failure chain, innermost step first.
TEST_F(Store, LogPrefixAndFailureChain)
{
	tb::task::Spec spec;
	spec.comm = "prefix_probe";
	spec.pid = 4242;
	tb::task::set(spec);

	Image img = pattern(3);
	ASSERT_EQ(devdrv_config_read_block(0, 64, img.data()), -EINVAL);
	ASSERT_EQ(devdrv_config_write_blk_ops(0, 7, img.data(), UCFG_WR_MAIN), 0);
	auto err = tb::log::find(L::Error, "devdrv_config_read_block",
		"The block of device id is out of range. (device_id=0; block=64)");
	auto inf = tb::log::find(L::Info, "devdrv_config_write_block",
				 "The sec_flash_write of device id. (device_id=0)");
	ASSERT_TRUE(err && inf) << tb::log::dump();
	ASSERT_GT(err->line, 0);
	ASSERT_GT(inf->line, 0);
	EXPECT_EQ(err->text, "[orvane] [ERROR] [user_cfg_drv] [devdrv_config_read_block " +
		std::to_string(err->line) + "] <prefix_probe:4242> The block of device id is "
		"out of range. (device_id=0; block=64)\n");
	EXPECT_EQ(inf->text, "[orvane] [user_cfg_drv] [devdrv_config_write_block " +
		std::to_string(inf->line) + "] <prefix_probe:4242> The sec_flash_write of "
		"device id. (device_id=0)\n");
	EXPECT_TRUE(err->error_form);
	EXPECT_FALSE(inf->error_form);

	// The write failure line is printed without a line end.
	tb::log::clear();
	fl::fail_write(1, -9);
	img[0] ^= 1;
	ASSERT_EQ(devdrv_config_write_blk_ops(0, 7, img.data(), UCFG_WR_MAIN), -ENODEV);
	auto w = tb::log::find(L::Error, "devdrv_config_write_block",
			       "The sec_flash_write failed. (device_id=0; ret=-9)");
	ASSERT_TRUE(w);
	EXPECT_FALSE(w->newline);

	// A digest that cannot be computed while a head copy is checked (the
	// valid flag is right, so the check code is computed).
	fl::load_block(0, 0, documented_init_head());
	tb::log::clear();
	tb::crypto::fail_alloc(1);
	tb::u32 state = 9, id = 9;
	ASSERT_EQ(devdrv_config_get_valid_block(0, img.data(), &state, &id), -ENODATA);
	EXPECT_EQ(state, 0u);
	const std::vector<std::pair<std::string, std::string>> chain = {
		{"devdrv_calculate_block_sha256", "The crypto_alloc_shash function failed."},
		{"devdrv_config_calculate_check_code",
		 "The devdrv_calculate_block_sha256 failed. (ret=-61)"},
		{"devdrv_config_check_valid", "The devdrv_config_calculate_check_code failed. (ret=-61)"},
		{"devdrv_config_check_blk_validity",
		 "The devdrv_config_check_valid failed. (device_id=0; blk_id=0; ret=-61)"},
		{"devdrv_config_get_valid_block",
		 "The devdrv_config_check_blk_validity failed. (device_id=0; ret=-61)"},
	};
	std::vector<std::pair<std::string, std::string>> got;
	for (const auto &r : tb::log::records())
		if (r.level == L::Error)
			got.emplace_back(r.step, r.msg);
	EXPECT_EQ(got, chain) << tb::log::dump();
}

// ---------------------------------------------------------------------------
// Limits of an item record: the first failing test decides.
TEST_F(Store, ItemHeadCheckBoundaries)
{
	struct Case {
		tb::u32 blk, off, bytes, auth, valid;
		int rc;
		const char *msg;
	} cases[] = {
		{2, 0, 0, 0, 1, 0, nullptr},
		{0, 0, 0, 2, 1, 0, nullptr},
		{31, 0, 32768, 0, 1, 0, nullptr},
		{32, 0, 0, 0, 1, -EINVAL, "The block offset is error. (blk_offset=32)"},
		{2, 0, 32769, 0, 1, -EINVAL, "The item content length is error. (item_bytes=32769)"},
		{2, 32735, 32768, 0, 1, 0, nullptr},
		{2, 32736, 32768, 0, 1, -EINVAL, "The total offset is error. (offset=65536)"},
		{2, 65503, 0, 0, 1, 0, nullptr},
		{2, 65504, 0, 0, 1, -EINVAL, "The total offset is error. (offset=65536)"},
		{2, 65535, 0, 0, 1, -EINVAL, "The total offset is error. (offset=65567)"},
		{2, 65536, 0, 0, 1, -EINVAL, "The item offset is error. (item_offset=65536)"},
		{2, 0xffffffe0u, 32, 0, 1, -EINVAL, "The item offset is error. (item_offset=4294967264)"},
		{2, 0, 0, 3, 1, -EACCES, "The authority value is error. (authority_flg=3)"},
		{2, 0, 0, 0, 0, -EINVAL, "The valid flag is error. (valid_flg=0)"},
		{2, 0, 0, 0, 2, -EINVAL, "The valid flag is error. (valid_flg=2)"},
		{99, 0, 0, 0, 0, -EINVAL, "The block offset is error. (blk_offset=99)"},
		{2, 0, 99999, 7, 0, -EINVAL, "The item content length is error. (item_bytes=99999)"},
		{2, 40000, 30000, 9, 0, -EINVAL, "The total offset is error. (offset=70032)"},
	};
	for (const Case &c : cases) {
		tb::log::clear();
		user_cfg_item_head h;
		std::memset(&h, 0, sizeof(h));
		h.blk_offset = c.blk;
		h.item_offset = c.off;
		h.item_bytes = c.bytes;
		h.authority_flg = c.auth;
		h.valid_flg = c.valid;
		SCOPED_TRACE(std::to_string(c.blk) + "/" + std::to_string(c.off) + "/" +
			     std::to_string(c.bytes) + "/" + std::to_string(c.auth) + "/" +
			     std::to_string(c.valid));
		EXPECT_EQ(devdrv_user_cfg_head_check(&h), c.rc);
		EXPECT_EQ(tb::log::count(L::Error), c.msg ? 1u : 0u) << tb::log::dump();
		if (c.msg) {
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_user_cfg_head_check", c.msg));
		}
	}
	tb::log::clear();
	EXPECT_EQ(devdrv_user_cfg_head_check(nullptr), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_user_cfg_head_check",
				 "The input parameter is NULL."));
}

// ---------------------------------------------------------------------------
// First-fit allocation over content blocks 2 to 31.
TEST_F(Store, ContentAllocationFirstFit)
{
	struct Entry {
		tb::u32 blk;
		tb::u8 use;
		std::uint16_t used;
	};
	struct Case {
		const char *name;
		std::vector<Entry> usage;	// changed entries of an initialised head
		bool fill_all;			// entries 2..31 in use with 65504 bytes
		tb::u32 n;
		int rc;
		tb::u32 blk, off;
		std::uint16_t used_after;
	} cases[] = {
		{"first item", {}, false, 100, 0, 2, 0, 132},
		{"second item fits behind", {{2, 1, 132}}, false, 200, 0, 2, 132, 364},
		{"exactly fills", {{2, 1, 65535 - 132}}, false, 100, 0, 2, 65403, 65535},
		{"one byte too many", {{2, 1, 65535 - 131}}, false, 100, 0, 3, 0, 132},
		{"largest item at the edge", {{2, 1, 32735}}, false, 32768, 0, 2, 32735, 65535},
		{"largest item one over", {{2, 1, 32736}}, false, 32768, 0, 3, 0, 32800},
		{"other use flag is free", {{2, 7, 60000}}, false, 10, 0, 2, 0, 42},
		{"only the last block left", {{31, 0, 0}}, true, 0, 0, 31, 0, 32},
		{"all full", {}, true, 0, -ENOSPC, 0, 0, 0},
		{"blocks 0 and 1 never", {{0, 0, 0}, {1, 0, 0}}, true, 0, -ENOSPC, 0, 0, 0},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::log::clear();
		Image head(fl::kBlockSize);
		ASSERT_EQ(devdrv_config_init_block(head.data()), 0);
		auto set_entry = [](Image &img, tb::u32 b, tb::u8 use, std::uint16_t used) {
			img[65372 + 4 * b + 1] = use;
			std::memcpy(&img[65372 + 4 * b + 2], &used, 2);
		};
		if (c.fill_all)
			for (tb::u32 b = 2; b < 32; b++)
				set_entry(head, b, 1, 65504);
		for (const Entry &e : c.usage)
			set_entry(head, e.blk, e.use, e.used);
		Image before = head;
		user_cfg_item_head h;
		std::memset(&h, 0xcc, sizeof(h));
		h.item_bytes = c.n;
		ASSERT_EQ(devdrv_config_get_item_blk_info(head.data(), &h), c.rc);
		if (c.rc != 0) {
			EXPECT_EQ(head, before);
			EXPECT_EQ(h.blk_offset, 0xccccccccu);
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_item_blk_info",
						 "Not enough space."));
			continue;
		}
		EXPECT_EQ(h.blk_offset, c.blk);
		EXPECT_EQ(h.item_offset, c.off);
		set_entry(before, c.blk, 1, c.used_after);
		EXPECT_EQ(head, before) << "only entry " << c.blk << " may change";
		EXPECT_TRUE(tb::log::has(L::Notice, "devdrv_config_get_item_blk_info",
			"Find free space for content block success. (block=" +
				std::to_string(c.blk) + " offset=" + std::to_string(c.off) +
				" size=" + std::to_string(c.n + 32) + ")"));
	}
}

// ---------------------------------------------------------------------------
// Check codes: the digest itself, and each way the hash service can fail.
TEST_F(Store, CheckCodesAndHashFailures)
{
	static const tb::u8 abc_sha[32] = {
		0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40,
		0xde, 0x5d, 0xae, 0x22, 0x23, 0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17,
		0x7a, 0x9c, 0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};
	tb::u8 out[32];
	ASSERT_EQ(devdrv_calculate_block_sha256(reinterpret_cast<const tb::u8 *>("abc"), 3, out), 0);
	EXPECT_EQ(0, std::memcmp(out, abc_sha, 32));
	EXPECT_EQ(devdrv_config_cmp_sha256_data(reinterpret_cast<const tb::u8 *>("abc"), 3, abc_sha), 0);
	tb::u8 wrong[32];
	std::memcpy(wrong, abc_sha, 32);
	wrong[31] ^= 1;
	EXPECT_EQ(devdrv_config_cmp_sha256_data(reinterpret_cast<const tb::u8 *>("abc"), 3, wrong), -EDOM);
	EXPECT_TRUE(tb::log::has_fmt(L::Error, "devdrv_config_cmp_sha256_data",
				     "The sha256 data is not equal. (ret=%d)"));

	Image head = pattern(9);
	ASSERT_EQ(devdrv_config_set_check_code(head.data()), 0);
	SHA256(head.data(), 65500, out);
	EXPECT_EQ(0, std::memcmp(out, &head[65500], 32));
	const Image orig = pattern(9);
	EXPECT_TRUE(std::equal(head.begin(), head.begin() + 65500, orig.begin()));
	EXPECT_TRUE(std::equal(head.begin() + 65532, head.end(), orig.begin() + 65532));

	struct Case {
		const char *name;
		std::function<void()> arm;
		int calc_rc;
		const char *msg;
	} cases[] = {
		{"alloc", [] { tb::crypto::fail_alloc(1, -ENOMEM); }, -ENODATA,
		 "The crypto_alloc_shash function failed."},
		{"init", [] { tb::crypto::fail_init(1, -5); }, -5,
		 "The crypto_shash_init function failed. (ret=-5)"},
		{"update", [] { tb::crypto::fail_update(1, -6); }, -6,
		 "The crypto_shash_update function failed. (ret=-6)"},
		{"final", [] { tb::crypto::fail_final(1, -7); }, -7,
		 "The crypto_shash_final function failed. (ret=-7)"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::log::clear();
		c.arm();
		EXPECT_EQ(devdrv_calculate_block_sha256(head.data(), 100, out), c.calc_rc);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_calculate_block_sha256", c.msg));
		// A comparison reports -61 for every way of failing.
		c.arm();
		EXPECT_EQ(devdrv_config_cmp_sha256_data(head.data(), 100, abc_sha), -ENODATA);
		// Setting the check code keeps the old one on failure.
		Image before = head;
		c.arm();
		EXPECT_EQ(devdrv_config_set_check_code(head.data()), c.calc_rc);
		EXPECT_EQ(head, before);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_set_check_code",
			"The devdrv_calculate_block_sha256 failed. (ret=" +
				std::to_string(c.calc_rc) + ")"));
		EXPECT_EQ(tb::crypto::live(), 0u);
	}
}

// ---------------------------------------------------------------------------
// No memory for a block image: -12 and no flash traffic after the point of
// failure, for every allocation of each operation.
TEST_F(Store, AllocationFailuresOfTheBlockLayer)
{
	Image head = documented_init_head();
	ASSERT_EQ(devdrv_config_set_check_code(head.data()), 0);
	const tb::u8 one = 1;
	struct Op {
		const char *name;
		std::function<int()> run;
	} ops[] = {
		{"write one block", [&] { return devdrv_config_write_one_block(0, 9, head.data()); }},
		{"write both", [&] { return devdrv_config_write_blk_ops(0, 0, head.data(), UCFG_WR_BOTH); }},
		{"static update", [&] { return devdrv_config_update(0, 5, &one, 1, 1); }},
		{"sync all", [&] { return devdrv_config_sync_main_backup(0, head.data(), 0, 0); }},
	};
	for (const Op &op : ops) {
		SCOPED_TRACE(op.name);
		tb::reset();
		ASSERT_EQ(op.run(), 0);
		const tb::u32 n = tb::alloc::calls();
		ASSERT_GT(n, 0u);
		for (tb::u32 k = 1; k <= n; k++) {
			tb::reset();
			fl::load_block(0, 0, pattern(5));	// something to overwrite
			tb::alloc::fail_nth(k);
			EXPECT_EQ(op.run(), -ENOMEM) << "allocation " << k;
			EXPECT_EQ(tb::alloc::outstanding(), 0u);
			EXPECT_TRUE(tb::log::has_fmt(L::Error, "", "The ka_vmalloc failed. (device_id=%u)") ||
				    tb::log::has_fmt(L::Error, "",
					"The ka_vmalloc function return NULL. (device_id=%u)"))
				<< tb::log::dump(8);
			if (k == 1) {
				EXPECT_EQ(fl::total_writes(), 0u);
			}
		}
	}
}

// ---------------------------------------------------------------------------
TEST_F(Store, DeviceLocks)
{
	for (tb::u32 d = 0; d < 4; d++) {
		devdrv_config_mutex_lock(d);
		EXPECT_EQ(tb::locks::held(), 1);
		EXPECT_TRUE(devdrv_config_mutex_held(d));
		devdrv_config_mutex_unlock(d);
		EXPECT_EQ(tb::locks::held(), 0);
	}
	devdrv_config_mutex_lock(4);
	EXPECT_EQ(tb::locks::held(), 0);
	auto r = tb::log::find(L::Error, "devdrv_config_mutex_lock",
			       "Device id error for devdev_config_mutex_lock. (dev_id=4)");
	ASSERT_TRUE(r) << tb::log::dump();
	EXPECT_NE(r->msg.find("devdev"), std::string::npos);
	devdrv_config_mutex_unlock(4);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_mutex_unlock",
		"Device id error for devdrv_config_mutex_unlock. (device_id=4)"));
	EXPECT_TRUE(tb::take_violations().empty());
}

TEST_F(Store, SignatureTypeRules)
{
	ASSERT_EQ(devdrv_config_pss_cfg_init(1), 0);
	tb::u32 sign = 7;
	ASSERT_EQ(devdrv_config_get_pss_cfg(0, &sign), 0);
	EXPECT_EQ(sign, 1u);
	EXPECT_TRUE(tb::log::has(L::Notice, "devdrv_config_get_pss_cfg", "The sign details. (sign=1)"));

	struct Case {
		tb::u32 dev, sign;
		int rc;
		tb::u32 after;
	} cases[] = {
		{7, 0, 0, 0}, {0, 2, -EINVAL, 0}, {1, 1, 0, 1},
		{0, 0xffffffffu, -EINVAL, 1}, {99, 0, 0, 0},
	};
	for (const Case &c : cases) {
		tb::log::clear();
		EXPECT_EQ(devdrv_config_set_pss_cfg(c.dev, c.sign), c.rc);
		if (c.rc) {
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_set_pss_cfg",
				"The value of dev_id or sign is invalid. (dev_id=" +
					std::to_string(c.dev) + "; sign=" +
					std::to_string(static_cast<int>(c.sign)) + ")"));
		}
		ASSERT_EQ(devdrv_config_get_pss_cfg(c.dev, &sign), 0);
		EXPECT_EQ(sign, c.after);
	}
	EXPECT_EQ(devdrv_config_get_pss_cfg(3, nullptr), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_pss_cfg",
		"The value of dev_id or sign is invalid. (dev_id=3; sign_is_null=1)"));
	EXPECT_EQ(tb::locks::held(), 0);
}

} // namespace
