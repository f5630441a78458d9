// SPDX-License-Identifier: GPL-2.0
//
// The item functions other kernel modules call: argument checks, the pause
// after every write attempt, the clear by index, and the reference model
// driven through both entries with faults at random transfers.
#include "entry_helpers.h"
#include "model.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

using namespace entry;
using tb::log::Level;

class KernelApi : public tb::Fixture {};

namespace {

struct ArgCase {
	const char *label;
	std::function<void()> world;
	std::function<int()> op;
	bool is_set;
	const char *msg;
};

} // namespace

// Refused calls: -22, the documented message, no flash, no lock, no pause.
TEST_F(KernelApi, RefusedArguments)
{
	static std::uint8_t data[32769];
	static u32 out;
	const std::string n31(31, 'a'), n32(32, 'a');
	auto none = [] {};
	const std::vector<ArgCase> cases = {
		{"get, no name", none, [] { return hal_kernel_get_user_config(0, nullptr, data, 1, &out); },
		 false, "invalid param. (device_id=0; item_name=0; data=1; size=1)"},
		{"set, no data", none, [] { return hal_kernel_set_user_config(1, "x", nullptr, 4); },
		 true, "invalid param. (device_id=1; item_name=1; data=0; size=4)"},
		{"set, size 0", none, [] { return hal_kernel_set_user_config(0, "x", data, 0); },
		 true, "invalid param. (device_id=0; item_name=1; data=1; size=0)"},
		{"set, size 32769", none, [] { return hal_kernel_set_user_config(0, "x", data, 32769); },
		 true, "invalid param. (device_id=0; item_name=1; data=1; size=32769)"},
		{"get, size 32769", none,
		 [] { return hal_kernel_get_user_config(0, "x", data, 32769, &out); },
		 false, "invalid param. (device_id=0; item_name=1; data=1; size=32769)"},
		{"get, no out_len", none, [] { return hal_kernel_get_user_config(0, "x", data, 8, nullptr); },
		 false, "Invalid param. (device_id=0; out_len=0)"},
		{"set, 32-character name", none,
		 [n32] { return hal_kernel_set_user_config(0, n32.c_str(), data, 4); },
		 true, "strcpy_s failed. (device_id=0; ret=%d)"},
		{"get, 32-character name", none,
		 [n32] { return hal_kernel_get_user_config(0, n32.c_str(), data, 4, &out); },
		 false, "strcpy_s failed. (device_id=0; ret=%d)"},
		{"set, device 1 of 1", [] { tb::ctl::set_dev_num(1); },
		 [] { return hal_kernel_set_user_config(1, "ssh_status", data, 1); },
		 true, "The device id is incorrect. (device_id=1)"},
		{"get, device 2 of 2", none,
		 [] { return hal_kernel_get_user_config(2, "ssh_status", data, 1, &out); },
		 false, "The device id is incorrect. (device_id=2)"},
		{"set, 3 devices", [] { tb::ctl::set_dev_num(3); },
		 [] { return hal_kernel_set_user_config(0, "ssh_status", data, 1); },
		 true, "Get device num failed. (device_id=0; dev_num=3; ret=0)"},
		{"get, control module absent", [] { tb::ctl::set_present(false); },
		 [] { return hal_kernel_get_user_config(0, "ssh_status", data, 1, &out); },
		 false, "Get device num failed. (device_id=0; dev_num=0; ret=-22)"},
		{"set, control module absent", [] { tb::ctl::set_present(false); },
		 [] { return hal_kernel_set_user_config(0, "ssh_status", data, 1); },
		 true, "Get device num failed. (device_id=0; dev_num=0; ret=-22)"},
	};
	for (const ArgCase &c : cases) {
		SCOPED_TRACE(c.label);
		tb::reset();
		c.world();
		EXPECT_EQ(with_lock_held(0, c.op), -EINVAL);
		EXPECT_TRUE(tb::take_violations().empty());
		EXPECT_TRUE(tb::log::has_fmt(Level::Error, "", c.msg)) << tb::log::dump(6);
		EXPECT_EQ(tb::flash::total_reads() + tb::flash::total_writes(), 0u);
		EXPECT_EQ(tb::delay::calls(), 0u);
	}
	(void)n31;
}

// Accepted edges, and the pause that follows every write attempt.
TEST_F(KernelApi, WritesPauseAfterEveryAttempt)
{
	const std::string n31(31, 'a');
	Bytes big(32768, 0x3C);
	std::uint8_t one = 1, two[2] = {1, 1};
	u32 out = 0;

	struct Case {
		const char *label;
		std::function<int()> op;
		int want;
	};
	const std::vector<Case> cases = {
		{"ssh_status", [&] { return hal_kernel_set_user_config(0, "ssh_status", &one, 1); }, 0},
		{"ssh_status, size 2", [&] { return hal_kernel_set_user_config(0, "ssh_status", two, 2); },
		 -EINVAL},
		{"31-character name", [&] {
			 return hal_kernel_set_user_config(1, n31.c_str(), &one, 1); }, 0},
		{"32768 bytes", [&] {
			 return hal_kernel_set_user_config(1, "big", big.data(), 32768); }, 0},
		{"flash write fails", [&] {
			 tb::flash::fail_write(1, -EIO, {}, true);
			 int rc = hal_kernel_set_user_config(0, "dyn", big.data(), 10);
			 tb::flash::clear_faults();
			 return rc;
		 }, -ENODEV},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.label);
		const tb::u32 before = tb::delay::calls();
		EXPECT_EQ(c.op(), c.want) << tb::log::dump(6);
		EXPECT_EQ(tb::delay::calls(), before + 1);
		EXPECT_EQ(tb::delay::history().back(), 100u);
		EXPECT_EQ(tb::locks::held(), 0);
	}
	// The accepted values are there; reads do not pause.
	const tb::u32 pauses = tb::delay::calls();
	Bytes got(32768);
	ASSERT_EQ(hal_kernel_get_user_config(1, n31.c_str(), got.data(), 32768, &out), 0);
	EXPECT_EQ(out, 1u);
	ASSERT_EQ(hal_kernel_get_user_config(1, "big", got.data(), 32768, &out), 0);
	EXPECT_EQ(out, 32768u);
	EXPECT_EQ(got, big);
	ASSERT_EQ(hal_kernel_get_user_config(0, "ssh_status", got.data(), 1, &out), 0);
	EXPECT_EQ(got[0], 1);
	EXPECT_EQ(hal_kernel_get_user_config(0, "never_set", got.data(), 16, &out), -ENOENT);
	EXPECT_TRUE(tb::log::has(Level::Warning, "", "Can't get dynamic item. (ret=-2)"));
	EXPECT_EQ(tb::delay::calls(), pauses);
	// p2p_mem_cfg: 4 bytes fit in 4, not in 3.
	ASSERT_EQ(hal_kernel_get_user_config(0, "p2p_mem_cfg", got.data(), 4, &out), 0);
	EXPECT_EQ(out, 4u);
	EXPECT_EQ(hal_kernel_get_user_config(0, "p2p_mem_cfg", got.data(), 3, &out), -EINVAL);
}

// The pause happens after the lock is released: while the writer sleeps,
// nobody holds a flash lock.
TEST_F(KernelApi, PauseIsOutsideTheLock)
{
	tb::delay::set_real(true);
	std::uint8_t one = 1;
	std::atomic<bool> done{false};
	std::thread writer([&] {
		EXPECT_EQ(hal_kernel_set_user_config(0, "ssh_status", &one, 1), 0);
		done = true;
	});
	bool seen_sleeping = false;
	while (!done) {
		if (tb::delay::calls() == 1 && !done) {
			seen_sleeping = true;
			EXPECT_EQ(tb::locks::held(), 0);
		}
		std::this_thread::yield();
	}
	writer.join();
	EXPECT_TRUE(seen_sleeping);
}

// Clear by index: device 0 or 1 only, whatever the device count; an index
// outside the catalogue names the dynamic item with the empty name.
TEST_F(KernelApi, ClearByIndex)
{
	std::uint8_t one = 1;
	u32 out = 0;
	tb::ctl::set_dev_num(4);
	tb::flash::mark();
	EXPECT_EQ(with_lock_held(2, [] { return devdrv_config_clear_user_item(2, kSshStatus); }),
		  -EINVAL);
	EXPECT_TRUE(tb::take_violations().empty());
	EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_user_item_op",
				 "Input parameter is incorrect. (device_id=2)"));
	EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_clear_user_item",
		"The devdrv_config_user_item_op failed. (device_id=2; ret=-22)"));
	EXPECT_EQ(tb::flash::reads_since_mark(), 0u);

	// Device 1 is cleared even when the count says one device: the bound
	// is fixed.
	tb::ctl::set_dev_num(2);
	ASSERT_EQ(hal_kernel_set_user_config(1, "ssh_status", &one, 1), 0);
	tb::ctl::set_dev_num(1);
	EXPECT_EQ(devdrv_config_clear_user_item(1, kSshStatus), 0);
	tb::ctl::set_dev_num(2);
	std::uint8_t v = 0xEE;
	ASSERT_EQ(hal_kernel_get_user_config(1, "ssh_status", &v, 1, &out), 0);
	EXPECT_EQ(v, 0);

	// On a device with no valid head there is nothing to clear: -2 (the
	// fresh head written then carries no check code, so the device still
	// reads as empty).
	EXPECT_EQ(devdrv_config_clear_user_item(0, 6), -ENOENT);
	EXPECT_FALSE(tb::log::has(Level::Error, "", "Usr cfg name not found."));

	// Index 6, -1 or 1000 with no item under the empty name: -2.
	tb::task::set(daemon());
	Bytes e = {7, 7}, other = {8};
	user_cfg_para p = para(0, 1, "other", other.data(), 1);
	ASSERT_EQ(ioctl(&p), 0);
	for (int idx : {6, -1, 1000}) {
		tb::log::clear();
		EXPECT_EQ(devdrv_config_clear_user_item(0, idx), -ENOENT) << idx;
		EXPECT_TRUE(tb::log::has(Level::Error, "", "Usr cfg name not found."));
	}
	// An item stored under the empty name (the ioctl accepts it) is what
	// such a clear removes; other items stay.
	p = para(0, 1, "", e.data(), 2);
	ASSERT_EQ(ioctl(&p), 0);
	EXPECT_EQ(devdrv_config_clear_user_item(0, 6), 0);
	Bytes got(8);
	p = para(0, 0, "", got.data(), 8);
	EXPECT_EQ(ioctl(&p), -ENOENT);
	p = para(0, 0, "other", got.data(), 8);
	EXPECT_EQ(ioctl(&p), 0);
	EXPECT_EQ(got[0], 8);
	EXPECT_EQ(tb::locks::held(), 0);
}

// The reference model through the ioctl entry and the kernel API on both
// devices, with faults at random transfers: exercises clear and repair.
TEST_F(KernelApi, ModelWithFaults)
{
	for (std::uint64_t seed : {301u, 302u}) {
		SCOPED_TRACE(seed);
		tb::reset();
		model::DriverConfig cfg;
		cfg.seed = seed;
		cfg.steps = 150;
		cfg.fault_rate = 0.5;
		cfg.rot_rate = 0.05;
		cfg.names = 8;
		cfg.max_size = 4096;
		cfg.kernel_api = true;
		model::Driver d(cfg);
		EXPECT_EQ(d.run(), "");
		EXPECT_GT(d.stats().faults, 20u);
	}
}
