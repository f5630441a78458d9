// SPDX-License-Identifier: GPL-2.0
//
// Test entry: every test starts in a pristine world, fixture or not.
#include <gtest/gtest.h>

#include "testbed.h"

namespace {

class ResetListener : public ::testing::EmptyTestEventListener {
	void OnTestStart(const ::testing::TestInfo &) override { tb::reset(); }
};

} // namespace

int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	::testing::UnitTest::GetInstance()->listeners().Append(new ResetListener);
	return RUN_ALL_TESTS();
}
