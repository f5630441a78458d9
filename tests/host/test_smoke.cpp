// SPDX-License-Identifier: GPL-2.0
//
// The module's code links against the test bed and reaches the flash.
#include <gtest/gtest.h>

#include "testbed.h"

extern "C" {
#include "store/store.h"
}

namespace {

class Smoke : public tb::Fixture {};

TEST_F(Smoke, HeadImageWrittenToBothCopiesInOrder)
{
	tb::flash::Image img(tb::flash::kBlockSize, 0xee);
	ASSERT_EQ(devdrv_config_init_block(img.data()), 0);
	EXPECT_EQ(img[0], 1);
	EXPECT_EQ(img[65532], 0x5d);

	ASSERT_EQ(devdrv_config_write_blk_ops(0, 0, img.data(), UCFG_WR_BOTH), 0);
	EXPECT_EQ(tb::flash::block(0, 0), img);
	EXPECT_EQ(tb::flash::block(0, 32), img);
	EXPECT_EQ(tb::flash::block(0, 1), tb::flash::Image(tb::flash::kBlockSize, 0xff));
	EXPECT_EQ(tb::flash::trace_str(0), "R0 W0 R0 R32 W32 R32");
	EXPECT_EQ(tb::flash::trace_str(1), "");
	EXPECT_TRUE(tb::log::has(tb::log::Level::Info, "devdrv_config_write_block",
				 "The sec_flash_write of device id. (device_id=0)"));

	// The same image again costs one read per copy and no write.
	tb::flash::mark();
	ASSERT_EQ(devdrv_config_write_blk_ops(0, 0, img.data(), UCFG_WR_BOTH), 0);
	EXPECT_EQ(tb::flash::trace_str_since_mark(0), "R0 R32");
}

} // namespace
