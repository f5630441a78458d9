// SPDX-License-Identifier: GPL-2.0
//
// The parts of the test bed whose silent failure would weaken every other
// test: flash addressing and fault counting, the log parser, SHA-256, the
// user-copy fault semantics, allocation-fault counting.
#include <gtest/gtest.h>

#include <cstring>

#include "testbed.h"

extern "C" {
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include "common/siblings.h"
#include "store/store.h"
const char *tb_c_stringify_null(void);
}

namespace {

using tb::flash::Image;
using tb::flash::kBlockSize;
using Level = tb::log::Level;

class Testbed : public tb::Fixture {};

constexpr u32 off(u32 blk) { return (blk + 164) * kBlockSize; }

int wr(u32 dev, u32 blk, u8 fill)
{
	Image img(kBlockSize, fill);
	return sec_flash_write(dev, off(blk), img.data(), kBlockSize);
}

TEST_F(Testbed, FlashAddressingAndContractViolations)
{
	ASSERT_EQ(wr(1, 63, 0x11), 0);
	EXPECT_EQ(tb::flash::block(1, 63), Image(kBlockSize, 0x11));
	EXPECT_EQ(tb::flash::block(0, 63), Image(kBlockSize, 0xff));
	EXPECT_EQ(tb::flash::writes(1, 63), 1u);
	EXPECT_TRUE(tb::violations().empty());

	Image buf(2 * kBlockSize);
	struct {
		u32 offset, len;
	} bad[] = {{off(64), kBlockSize},	  {off(0) - kBlockSize, kBlockSize},
		   {off(3) + 512, kBlockSize}, {off(3), kBlockSize / 2},
		   {off(3), 2 * kBlockSize}};
	for (auto &b : bad) {
		EXPECT_EQ(sec_flash_read(0, b.offset, buf.data(), b.len), -EINVAL);
		EXPECT_EQ(tb::take_violations().size(), 1u) << b.offset << " " << b.len;
	}
	EXPECT_EQ(sec_flash_read(4, off(0), buf.data(), kBlockSize), -ENODEV);
	EXPECT_TRUE(tb::violations().empty());
}

TEST_F(Testbed, FaultScheduleCountsFromArming)
{
	ASSERT_EQ(wr(0, 2, 0x01), 0);	// before arming: not counted
	tb::flash::fail_write(2, -7);
	tb::flash::fail_read(1, -9, tb::flash::on_block(40), /*sticky=*/true);
	EXPECT_EQ(wr(0, 3, 0x02), 0);
	EXPECT_EQ(wr(0, 4, 0x03), -7);
	EXPECT_EQ(wr(0, 5, 0x04), 0);
	EXPECT_EQ(tb::flash::block(0, 4), Image(kBlockSize, 0xff));	// unchanged

	Image buf(kBlockSize);
	EXPECT_EQ(sec_flash_read(0, off(39), buf.data(), kBlockSize), 0);
	EXPECT_EQ(sec_flash_read(0, off(40), buf.data(), kBlockSize), -9);
	EXPECT_EQ(sec_flash_read(1, off(40), buf.data(), kBlockSize), -9);
	EXPECT_EQ(tb::flash::faults_fired(), 2u);
	EXPECT_EQ(tb::flash::trace_str(0), "W2 W3 W4! W5 R39 R40!");

	// Torn (old bytes kept, error) and silently corrupted writes.
	tb::flash::clear_faults();
	tb::flash::tear_write(1, 100);
	tb::flash::corrupt_write(2, 7, 0x80);
	EXPECT_EQ(wr(0, 2, 0x55), -EIO);
	Image torn = tb::flash::block(0, 2);
	EXPECT_EQ(torn[99], 0x55);
	EXPECT_EQ(torn[100], 0x01);
	EXPECT_EQ(wr(0, 6, 0x00), 0);
	Image bad = tb::flash::block(0, 6);
	EXPECT_EQ(bad[7], 0x80);
	bad[7] = 0;
	EXPECT_EQ(bad, Image(kBlockSize, 0x00));

	// Power cut: the 2nd write is torn to 0xFF past 10 bytes, all fails
	// until reboot.
	tb::flash::power_cut(2, 10u, tb::flash::TearFill::Erased);
	EXPECT_EQ(wr(1, 0, 0x22), 0);
	EXPECT_EQ(wr(1, 1, 0x33), -EIO);
	EXPECT_EQ(sec_flash_read(1, off(0), buf.data(), kBlockSize), -EIO);
	EXPECT_FALSE(tb::flash::powered());
	tb::flash::reboot();
	EXPECT_EQ(sec_flash_read(1, off(1), buf.data(), kBlockSize), 0);
	EXPECT_EQ(buf[9], 0x33);
	EXPECT_EQ(buf[10], 0xff);
	EXPECT_EQ(tb::flash::faults_pending(), 0u);
}

TEST_F(Testbed, LogParsesModuleMessage)
{
	tb::task::Spec t;
	t.comm = "devmgr_daemon";
	t.pid = 4242;
	tb::task::set(t);
	Image img(kBlockSize);
	ASSERT_EQ(devdrv_config_read_block(0, 64, img.data()), -EINVAL);

	auto recs = tb::log::records();
	ASSERT_EQ(recs.size(), 1u) << tb::log::dump();
	const tb::log::Record &r = recs[0];
	EXPECT_EQ(r.level, Level::Error);
	EXPECT_TRUE(r.prefixed && r.error_form && r.newline);
	EXPECT_EQ(r.tag, "user_cfg_drv");
	EXPECT_EQ(r.step, "devdrv_config_read_block");
	EXPECT_GT(r.line, 0);
	EXPECT_EQ(r.comm, "devmgr_daemon");
	EXPECT_EQ(r.pid, 4242);
	EXPECT_EQ(r.msg, "The block of device id is out of range. (device_id=0; block=64)");
	EXPECT_TRUE(tb::log::has_fmt(Level::Error, "devdrv_config_read_block",
				     "The block of device id is out of range. "
				     "(device_id=%u; block=%u)"));
	EXPECT_FALSE(tb::log::has_fmt(Level::Error, "", "(device_id=%u)"));
	EXPECT_FALSE(tb::log::has(Level::Warning, "", r.msg));
	EXPECT_STREQ(tb_c_stringify_null(), "((void *)0)");
}

TEST_F(Testbed, Sha256KnownAnswerAndFaults)
{
	u8 out[32];
	ASSERT_EQ(devdrv_calculate_block_sha256(reinterpret_cast<const u8 *>("abc"), 3, out), 0);
	const u8 want[8] = {0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea};
	EXPECT_EQ(std::memcmp(out, want, 8), 0);
	EXPECT_EQ(out[31], 0xad);

	tb::crypto::fail_alloc(1);
	EXPECT_EQ(devdrv_calculate_block_sha256(out, 3, out), -ENODATA);
	tb::crypto::fail_update(1, -5);
	EXPECT_EQ(devdrv_calculate_block_sha256(out, 3, out), -5);
	EXPECT_EQ(tb::crypto::live(), 0u);
	EXPECT_EQ(tb::crypto::allocs(), 3u);
}

TEST_F(Testbed, UserCopyFaults)
{
	char src[16], dst[16];
	std::memset(src, 'a', sizeof(src));

	tb::user::mark_unmapped(src + 10, 4);
	std::memset(dst, 'x', sizeof(dst));
	EXPECT_EQ(copy_from_user(dst, src + 4, 12), 6ul);	// stops at src + 10
	EXPECT_EQ(std::string(dst, 12), std::string("aaaaaa") + std::string(6, '\0'));
	EXPECT_EQ(copy_to_user(src + 8, dst, 4), 2ul);

	tb::user::clear();
	tb::user::mark_not_user(src + 15, 1);
	std::memset(dst, 'x', sizeof(dst));
	EXPECT_FALSE(access_ok(src, 16));
	EXPECT_TRUE(access_ok(src, 15));
	EXPECT_EQ(copy_from_user(dst, src, 16), 16ul);
	EXPECT_EQ(std::string(dst, 16), std::string(16, '\0'));
	EXPECT_EQ(copy_from_user(dst, nullptr, 4), 4ul);	// null page faults
}

TEST_F(Testbed, AllocationFaultsCountFromArming)
{
	void *a = vmalloc(8);
	tb::alloc::fail_nth(2);
	void *b = vzalloc(8);
	void *c = __vmalloc(8, GFP_KERNEL | __GFP_ZERO | __GFP_ACCOUNT);
	void *d = vmalloc(8);
	EXPECT_TRUE(a && b && !c && d);
	EXPECT_EQ(tb::alloc::last_gfp(), static_cast<unsigned>(GFP_KERNEL));
	EXPECT_EQ(static_cast<u8 *>(b)[7], 0);
	EXPECT_EQ(tb::alloc::calls(), 4u);
	EXPECT_EQ(tb::alloc::outstanding(), 3u);
	vfree(a);
	vfree(b);
	vfree(d);
	vfree(d);
	EXPECT_EQ(tb::take_violations().size(), 1u);	// the double free
}

} // namespace
