// SPDX-License-Identifier: GPL-2.0
//
// Static catalogue items end to end on simulated flash: defaults on a blank
// device, set / read / clear of every item with the head images checked
// byte for byte, refusals that come only after the head was validated and
// repaired, dynamic bytes carried over and the CPU configuration read.
// Faults in static operations are swept by the campaign (test_campaign).
#include <openssl/sha.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "model.h"
#include "testbed.h"

extern "C" {
#include "catalogue/catalogue.h"
#include "drv_user_cfg.h"
#include "store/store.h"
}

namespace {

namespace fl = tb::flash;
using L = tb::log::Level;
using Image = fl::Image;
using Bytes = model::Bytes;

// Record place and size of each catalogue item, as the format documents it.
struct Row {
	const char *name;
	tb::u32 offset, size;
};
const Row kRows[6] = {
	{"cpu_num_cfg", 0, 17},	     {"p2p_mem_cfg", 17, 5}, {"ddr_ecc_enable", 22, 2},
	{"ccpu_usr_cert_hash", 24, 1025}, {"usershadow", 1049, 2049}, {"ssh_status", 3098, 2},
};

// An initialised head with every static record unset and no check code.
Image init_head()
{
	Image img(fl::kBlockSize, 0);
	img[0] = 1;
	for (tb::u32 i = 0; i < 32; i++) {
		img[65372 + 4 * i] = static_cast<tb::u8>(i);
		if (i < 2) {
			img[65372 + 4 * i + 1] = 1;
			img[65372 + 4 * i + 2] = img[65372 + 4 * i + 3] = 0xff;
		}
	}
	const tb::u32 flag = 0x8a7b6c5d;
	std::memcpy(&img[65532], &flag, 4);
	return img;
}

Image with_record(Image img, int idx, tb::u8 valid, const Bytes &value)
{
	img[4 + kRows[idx].offset] = valid;
	std::copy(value.begin(), value.end(), img.begin() + 4 + kRows[idx].offset + 1);
	SHA256(img.data(), 65500, &img[65500]);
	return img;
}

Bytes value_for(int idx, tb::u8 seed)
{
	Bytes v(kRows[idx].size - 1);
	for (std::size_t i = 0; i < v.size(); i++)
		v[i] = static_cast<tb::u8>(seed + i * 31 + idx);
	return v;
}

// Reads item idx of dev with room bytes of room; rc and the bytes given.
struct Read {
	int rc;
	tb::u32 len;
	Bytes buf;
};
Read read_item(tb::u32 dev, int idx, tb::u32 room)
{
	Read r{0, room, Bytes(room + 16, 0xee)};
	r.rc = devdrv_get_user_config_core(dev, idx, r.buf.data(), &r.len);
	return r;
}

class Static : public tb::Fixture {
protected:
	void SetUp() override
	{
		tb::Fixture::SetUp();
		tb::ctl::set_dts_cpu(model::kDtsCpu[0], model::kDtsCpu[1], model::kDtsCpu[2]);
	}
};

// ---------------------------------------------------------------------------
TEST_F(Static, DefaultsOnBlankFlash)
{
	for (int i = 0; i < 6; i++) {
		SCOPED_TRACE(kRows[i].name);
		tb::log::clear();
		const Bytes &want = model::kStatic[i].dflt;
		Read r = read_item(0, i, static_cast<tb::u32>(want.size()));
		ASSERT_EQ(r.rc, 0);
		EXPECT_EQ(r.len, want.size());
		EXPECT_EQ(Bytes(r.buf.begin(), r.buf.begin() + want.size()), want);
		EXPECT_TRUE(tb::log::has(L::Warning, "devdrv_get_user_config_core",
			"No valid flash block is found, user config may be not existent, get default config."));
	}
	const struct {
		int idx;
		tb::u32 room;
		const char *step, *msg;
	} refusals[] = {
		{-1, 16, "devdrv_get_user_config_core", "Invalid cfg_index. (cfg_index=-1)"},
		{6, 16, "devdrv_get_user_config_core", "Invalid cfg_index. (cfg_index=6)"},
		{1, 3, "devdrv_config_get_default_extract",
		 "The input length is too small. (buff_size=3; least=4)"},
		{0, 15, "devdrv_config_get_default_dts_cpu_config",
		 "Input buf size is too small. (buff_size=15; least=16)"},
	};
	for (const auto &c : refusals) {
		tb::log::clear();
		Read r = read_item(0, c.idx, c.room);
		EXPECT_EQ(r.rc, -EINVAL) << c.msg;
		EXPECT_EQ(r.len, c.room);
		EXPECT_TRUE(tb::log::has(L::Error, c.step, c.msg)) << tb::log::dump(5);
	}
	EXPECT_EQ(fl::total_writes(), 0u);
	tb::u32 len = 4;
	EXPECT_EQ(devdrv_get_user_config_core(0, 1, nullptr, &len), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_get_user_config_core",
				 "Input buf handle is NULL. (device_id=0)"));
}

// ---------------------------------------------------------------------------
class EveryItem : public Static, public ::testing::WithParamInterface<int> {};

TEST_P(EveryItem, SetReadClearReadDefault)
{
	const int i = GetParam();
	const tb::u32 n = kRows[i].size - 1;
	const Bytes v = value_for(i, 0x40), v2 = value_for(i, 0x90);
	const Bytes &dflt = model::kStatic[i].dflt;

	// Set on blank flash: a fresh head is created, both copies written.
	ASSERT_EQ(devdrv_config_update(0, i, v.data(), n, 1), 0);
	EXPECT_EQ(fl::writes(0, 0) + fl::writes(0, 32), 2u);
	EXPECT_TRUE(tb::log::has(L::Warning, "devdrv_config_update", "Init new block data. (device_id=0)"));
	EXPECT_TRUE(tb::log::has(L::Notice, "devdrv_config_update",
		"Config update success. (device_id=0; config_index=" + std::to_string(i) + ")"));
	Image want = with_record(init_head(), i, 1, v);
	EXPECT_EQ(fl::block(0, 0), want);
	EXPECT_EQ(fl::block(0, 32), want);

	// Read back, exactly n bytes even with a larger buffer.
	for (tb::u32 room : {n, n + 100}) {
		Read r = read_item(0, i, room);
		ASSERT_EQ(r.rc, 0);
		EXPECT_EQ(r.len, n);
		EXPECT_EQ(Bytes(r.buf.begin(), r.buf.begin() + n), v);
		EXPECT_EQ(r.buf[n], 0xee);
	}
	tb::log::clear();
	Read shortr = read_item(0, i, n - 1);
	EXPECT_EQ(shortr.rc, -EINVAL);
	EXPECT_EQ(shortr.len, n - 1);
	EXPECT_EQ(shortr.buf, Bytes(n + 15, 0xee));
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_item",
		"Input buf size is too small. (buff_size=" + std::to_string(n - 1) +
			"; least=" + std::to_string(n) + ")"));
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_get_user_config_core",
				 "The devdrv_config_get_item failed. (device_id=0; ret=-22)"));

	// A second set on a valid head changes only this record.
	fl::mark();
	ASSERT_EQ(devdrv_config_update(0, i, v2.data(), n, 1), 0);
	EXPECT_EQ(fl::writes_since_mark(), 2u);
	want = with_record(init_head(), i, 1, v2);
	EXPECT_EQ(fl::block(0, 0), want);
	EXPECT_EQ(fl::block(0, 32), want);

	// The same value again writes nothing and still succeeds.
	fl::mark();
	tb::log::clear();
	ASSERT_EQ(devdrv_config_update(0, i, v2.data(), n, 1), 0);
	EXPECT_EQ(fl::writes_since_mark(), 0u);
	EXPECT_TRUE(tb::log::has(L::Notice, "devdrv_config_update",
		"Config update success. (device_id=0; config_index=" + std::to_string(i) + ")"));

	// Clear: 0xff bytes with the valid byte 0 (any set flag but 1 clears).
	const Bytes ff(n, 0xff);
	ASSERT_EQ(devdrv_config_update(0, i, ff.data(), n, i % 2 ? 0 : 7), 0);
	want = with_record(init_head(), i, 0, ff);
	EXPECT_EQ(fl::block(0, 0), want);
	EXPECT_EQ(fl::block(0, 32), want);
	tb::log::clear();
	Read r = read_item(0, i, n);
	ASSERT_EQ(r.rc, 0);
	EXPECT_EQ(r.len, n);
	EXPECT_EQ(Bytes(r.buf.begin(), r.buf.begin() + n), dflt);
	EXPECT_TRUE(tb::log::has(L::Info, "devdrv_config_get_item_extract",
		"The item in flash block is invalid, rewind to get default config."));
	EXPECT_EQ(fl::block(1, 0), Image(fl::kBlockSize, 0xff)) << "device 1 untouched";
}

INSTANTIATE_TEST_SUITE_P(Static, EveryItem, ::testing::Range(0, 6),
	[](const ::testing::TestParamInfo<int> &p) { return std::string(kRows[p.param].name); });

// A record's valid byte decides: only 1 means stored.
TEST_F(Static, ValidByteDecides)
{
	const Bytes v = value_for(1, 3);
	for (tb::u8 vb : {1, 0, 2, 0xff}) {
		fl::load_block(0, 0, with_record(init_head(), 1, vb, v));
		fl::load_block(0, 32, with_record(init_head(), 1, vb, v));
		Read r = read_item(0, 1, 4);
		ASSERT_EQ(r.rc, 0);
		EXPECT_EQ(Bytes(r.buf.begin(), r.buf.begin() + 4), vb == 1 ? v : model::kStatic[1].dflt)
			<< "valid byte " << int(vb);
	}
}

// ---------------------------------------------------------------------------
// Index and size are tested only after the head was validated (and a
// damaged copy repaired); a refused update writes nothing else.
TEST_F(Static, RefusalsComeAfterValidation)
{
	const Image good = with_record(init_head(), 5, 1, {1});
	Image damaged = good;
	damaged[3103] ^= 2;
	const tb::u8 buf[32] = {};
	struct Case {
		const char *name;
		tb::u32 dev;
		int idx;
		tb::u32 size;
		bool main_damaged;
		const char *trace;
		const char *step, *msg;
	} cases[] = {
		{"index -1", 0, -1, 1, true, "R0 R32 R32 R0 W0 R0", "devdrv_config_set_item",
		 "The input cfg_index is incorrect. (cfg_index=-1)"},
		{"index 6", 0, 6, 1, true, "R0 R32 R32 R0 W0 R0", "devdrv_config_set_item",
		 "The input cfg_index is incorrect. (cfg_index=6)"},
		{"index 6, both valid", 0, 6, 1, false, "R0 R32 R0", "devdrv_config_set_item",
		 "The input cfg_index is incorrect. (cfg_index=6)"},
		{"cpu_num_cfg with 17 bytes", 0, 0, 17, true, "R0 R32 R32 R0 W0 R0",
		 "devdrv_config_set_item", "Input buf size is invalid. (buf_size=17; must_be=16)"},
		{"ssh_status with 0 bytes", 1, 5, 0, false, "R0 R32 R0", "devdrv_config_set_item",
		 "Input buf size is invalid. (buf_size=0; must_be=1)"},
		{"usershadow with 2047 bytes", 0, 4, 2047, true, "R0 R32 R32 R0 W0 R0",
		 "devdrv_config_set_item", "Input buf size is invalid. (buf_size=2047; must_be=2048)"},
		{"device 2", 2, 5, 1, false, "R0 R32 R0", "devdrv_config_write_blk_check",
		 "The device ID is not fixed. (device_id=2)"},
	};
	const Bytes big(2048, 0x5a);
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		fl::load_block(c.dev, 0, c.main_damaged ? damaged : good);
		fl::load_block(c.dev, 32, good);
		EXPECT_EQ(devdrv_config_update(c.dev, c.idx, c.size > 32 ? big.data() : buf, c.size, 1),
			  -EINVAL);
		EXPECT_EQ(fl::trace_str(c.dev), c.trace);
		EXPECT_EQ(fl::block(c.dev, 0), good);
		EXPECT_EQ(fl::block(c.dev, 32), good);
		EXPECT_TRUE(tb::log::has(L::Error, c.step, c.msg)) << tb::log::dump(6);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_update",
			"The devdrv_config_update_item failed. (device_id=" + std::to_string(c.dev) +
				"; ret=-22)"));
	}

	// Reads of a bad index with a valid head.
	tb::reset();
	fl::load_block(0, 0, good);
	fl::load_block(0, 32, good);
	for (int idx : {-1, 6}) {
		tb::log::clear();
		Read r = read_item(0, idx, 16);
		EXPECT_EQ(r.rc, -EINVAL);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_item",
			"The input cfg_index is incorrect. (cfg_index=" + std::to_string(idx) + ")"));
	}
	// Device 2 on blank flash: the new head is refused by the write check.
	tb::reset();
	EXPECT_EQ(devdrv_config_update(2, 5, buf, 1, 1), -EINVAL);
	EXPECT_EQ(fl::total_writes(), 0u);
}

// A digest that cannot be computed at any point of an update: -61 and no
// write at all (the head is valid in both copies).
TEST_F(Static, HashFailureInUpdate)
{
	const Image good = with_record(init_head(), 5, 1, {1});
	const tb::u8 v = 0;
	for (tb::u32 k = 1; k <= 3; k++) {
		SCOPED_TRACE("digest " + std::to_string(k));
		tb::reset();
		fl::load_block(0, 0, good);
		fl::load_block(0, 32, good);
		tb::crypto::fail_alloc(k);
		EXPECT_EQ(devdrv_config_update(0, 5, &v, 1, 1), -ENODATA);
		EXPECT_EQ(fl::total_writes(), 0u);
		EXPECT_EQ(fl::block(0, 0), good);
		if (k == 3) {
			const std::vector<std::string> chain = {
				"devdrv_calculate_block_sha256", "devdrv_config_set_check_code",
				"devdrv_config_set_item", "devdrv_config_update_item", "devdrv_config_update"};
			EXPECT_EQ(tb::log::steps(L::Error), chain);
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_set_check_code",
				"The devdrv_calculate_block_sha256 failed. (ret=-61)"));
		}
	}
}

// Everything but the record and the check code is carried over, dynamic
// item table, usage table and unused bytes included.
TEST_F(Static, DynamicBytesSurviveStaticUpdate)
{
	Image h = init_head();
	for (std::size_t i = 8192; i < 65372 + 128; i++)	// table, reserve, usage
		h[i] = static_cast<tb::u8>(i * 5 + 1);
	const tb::u32 head_len = 52 * 3;
	std::memcpy(&h[8192], &head_len, 4);
	for (std::size_t i = 3104; i < 8192; i++)	// unused end of the static area
		h[i] = static_cast<tb::u8>(i);
	const Image before = with_record(h, 0, 1, value_for(0, 1));
	fl::load_block(0, 0, before);
	fl::load_block(0, 32, before);
	const tb::u8 ssh = 1;
	ASSERT_EQ(devdrv_config_update(0, 5, &ssh, 1, 1), 0);
	Image want = before;
	want[3102] = 1;
	want[3103] = 1;
	SHA256(want.data(), 65500, &want[65500]);
	EXPECT_EQ(fl::block(0, 0), want);
	EXPECT_EQ(fl::block(0, 32), want);
	EXPECT_EQ(fl::writes(0, 0) + fl::writes(0, 32), 2u);
	EXPECT_EQ(fl::total_writes(), 2u);
}

TEST_F(Static, CpuConfigRead)
{
	Bytes buf(16, 0xee);
	EXPECT_EQ(devdrv_config_get_cpu_cfg(2, buf.data(), 16), -EINVAL);
	EXPECT_EQ(devdrv_config_get_cpu_cfg(0, nullptr, 16), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_cpu_cfg",
				 "Input parameter is incorrect. (device_id=2)"));
	EXPECT_EQ(fl::total_reads(), 0u);
	EXPECT_EQ(tb::regs::ioremap_calls(), 0u);

	ASSERT_EQ(devdrv_config_get_cpu_cfg(1, buf.data(), 16), 0);
	EXPECT_EQ(buf, model::kStatic[0].dflt);
	const Bytes v = value_for(0, 9);
	ASSERT_EQ(devdrv_config_update(1, 0, v.data(), 16, 1), 0);
	ASSERT_EQ(devdrv_config_get_cpu_cfg(1, buf.data(), 16), 0);
	EXPECT_EQ(buf, v);
	tb::log::clear();
	EXPECT_EQ(devdrv_config_get_cpu_cfg(1, buf.data(), 15), -EINVAL);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_cpu_cfg",
				 "Devdrv get static item failed. (cfg_index=0; ret=-22)"));
}

} // namespace
