// SPDX-License-Identifier: GPL-2.0
//
// The item command of /dev/user_config through devdrv_config_ioctl: who may
// do what, the checks of every field of the request record, and user
// memory that faults. A refused request must have no effect at all: no
// flash transfer and no lock.
#include "entry_helpers.h"

#include <chrono>
#include <functional>
#include <thread>

using namespace entry;
using tb::log::Level;

namespace {

constexpr std::uint8_t kDynValue[3] = {0xAB, 0xCD, 0xEF};

// Both devices hold ssh_status = 1 and the dynamic item "dyn_item", written
// through the kernel API (no authority needed there).
void preload()
{
	std::uint8_t one = 1;
	Bytes dyn(kDynValue, kDynValue + 3);
	for (std::uint32_t dev = 0; dev < 2; dev++) {
		ASSERT_EQ(hal_kernel_set_user_config(dev, "ssh_status", &one, 1), 0);
		ASSERT_EQ(hal_kernel_set_user_config(dev, "dyn_item", dyn.data(), 3), 0);
	}
	tb::log::clear();
}

struct Caller {
	const char *label;
	tb::task::Spec spec;
	bool cap;	// holds CAP_SYS_ADMIN
	bool listed;	// passes the whitelist with the list "devmgr_daemon"
};

const std::vector<Caller> &callers()
{
	static const std::vector<Caller> c = {
		{"daemon", daemon(false), false, true},
		{"daemon_with_cap", daemon(true), true, true},
		{"daemon_exe_as_uid0", task("/var/devmgr_daemon", 0, true), true, false},
		{"daemon_exe_as_uid1000", task("/var/devmgr_daemon", 1000, false), false, false},
		{"sched_daemon", task("/var/sched_daemon", 1000, false), false, false},
		{"copy_in_tmp", task("/tmp/devmgr_daemon", 1101, false), false, false},
		{"comm_only", task("/usr/bin/intruder", 1101, false, "devmgr_daemon"), false, false},
		{"root_not_listed", task("/usr/bin/ucfg_test", 0, true), true, false},
		{"plain_user", task("/usr/bin/ucfg_test", 1000, false), false, false},
	};
	return c;
}

struct Item {
	const char *name;
	int cls;	// 0, 1, or -1 for a dynamic item (treated like 1)
	std::uint32_t len;
};
const Item kItems[] = {
	{"usershadow", 0, kUsershadowLen},
	{"ssh_status", 1, 1},
	{"dyn_item", -1, 3},
};

// The documented authority matrix of the ioctl entry, with the result the
// operation then gives on preloaded devices.
int expected(const Caller &c, const Item &it, std::uint32_t cmd)
{
	if (it.cls == 0) {
		if (!c.cap)
			return -EACCES;
		return cmd <= 2 ? 0 : -EINVAL;
	}
	if (cmd == 0)
		return 0;
	if (!c.listed)
		return -EACCES;
	return cmd <= 2 ? 0 : -EINVAL;
}

} // namespace

class Entry : public tb::Fixture {};

// Every caller x item x sub-command, on both devices, from a fresh world.
// Class 2 (get open, set and clear refused) has no catalogue row, so it
// cannot be reached through the entry.
TEST_F(Entry, AuthorityMatrix)
{
	for (const Caller &c : callers()) {
		for (const Item &it : kItems) {
			for (std::uint32_t cmd : {0u, 1u, 2u, 7u}) {
				const std::uint32_t dev = cmd % 2;
				tb::reset();
				preload();
				tb::task::set(c.spec);
				// A get of the dynamic item offers more room than it
				// needs; a set stores exactly the item's length.
				Bytes buf(it.cls == -1 && cmd == 0 ? 4096 : it.len, 0x01);
				user_cfg_para p = para(dev, cmd, it.name, buf.data(),
						       static_cast<std::uint32_t>(buf.size()));
				const int want = expected(c, it, cmd);
				SCOPED_TRACE(std::string(c.label) + " " + it.name +
					     " cmd " + std::to_string(cmd));
				tb::flash::mark();
				int rc;
				if (want == -EACCES)
					rc = with_lock_held(dev, [&] { return ioctl(&p); });
				else
					rc = ioctl(&p);
				EXPECT_EQ(rc, want) << tb::log::dump(8);
				EXPECT_EQ(tb::locks::held(), 0);
				EXPECT_TRUE(tb::take_violations().empty());
				if (want == -EACCES) {
					EXPECT_EQ(tb::flash::reads_since_mark(), 0u);
					EXPECT_EQ(tb::flash::writes_since_mark(), 0u);
					EXPECT_TRUE(tb::log::has_fmt(Level::Error, "devdrv_config_ioctl",
						"The devdrv_config_check_authority failed. (device_id=%u; ret=-13)"));
				}
				if (want == -EINVAL) {
					// Refused by the operation, after the lock: no writes.
					EXPECT_TRUE(tb::log::has(Level::Error, "",
						"The cmd parameter error. (cmd=7)"));
					EXPECT_EQ(tb::flash::writes_since_mark(), 0u);
				}
				if (want == 0 && cmd == 0 && it.cls == -1) {
					EXPECT_EQ(p.buf_size, 3u);
					EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 3),
						  Bytes(kDynValue, kDynValue + 3));
				}
				if (want == 0 && cmd == 0 && it.cls == 1) {
					EXPECT_EQ(buf[0], 1);
				}
				if (want == 0 && cmd == 1) {
					// The write really happened: read it back.
					tb::task::restore_default();
					Bytes back(it.len);
					u32 out = 0;
					EXPECT_EQ(hal_kernel_get_user_config(dev, it.name, back.data(),
									     it.len, &out), 0);
					EXPECT_EQ(out, it.len);
					EXPECT_EQ(back, Bytes(it.len, 0x01));
				}
				if (want == 0 && cmd == 2) {
					tb::task::restore_default();
					Bytes back(it.len + 8);
					u32 out = 0;
					int r = hal_kernel_get_user_config(dev, it.name, back.data(),
									   it.len + 8, &out);
					if (it.cls == -1) {
						EXPECT_EQ(r, -ENOENT);
					} else {
						EXPECT_EQ(r, 0);
						EXPECT_EQ(Bytes(back.begin(), back.begin() + out),
							  Bytes(it.len, 0x00));
					}
				}
			}
		}
	}
}

// Every field of the record at and past its bounds.
struct ParaCase {
	const char *label;
	std::function<void()> world;		// control module set-up
	std::function<void(user_cfg_para &)> edit;	// from a valid dynamic get
	int want;
	const char *step;			// error expected in the log ("" none)
	const char *msg;
};

TEST_F(Entry, RecordChecks)
{
	auto none = [] {};
	const std::vector<ParaCase> cases = {
		{"count 1, device 0", [] { tb::ctl::set_dev_num(1); }, [](user_cfg_para &) {}, 0, "", ""},
		{"count 1, device 1", [] { tb::ctl::set_dev_num(1); },
		 [](user_cfg_para &p) { p.device_id = 1; }, -EINVAL,
		 "check_config_para", "The device id is incorrect. (device_id=1)"},
		{"count 2, device 1", none, [](user_cfg_para &p) { p.device_id = 1; }, 0, "", ""},
		{"count 2, device 2", none, [](user_cfg_para &p) { p.device_id = 2; }, -EINVAL,
		 "check_config_para", "The device id is incorrect. (device_id=2)"},
		{"count 3", [] { tb::ctl::set_dev_num(3); }, [](user_cfg_para &) {}, -EINVAL,
		 "check_config_para", "Get device num failed. (device_id=0; dev_num=3; ret=0)"},
		{"count 0", [] { tb::ctl::set_dev_num(0); }, [](user_cfg_para &) {}, -EINVAL,
		 "check_config_para", "The device id is incorrect. (device_id=0)"},
		{"control module absent", [] { tb::ctl::set_present(false); },
		 [](user_cfg_para &) {}, -EINVAL, "check_config_para",
		 "Get device num failed. (device_id=0; dev_num=0; ret=-22)"},
		{"control module fails", [] { tb::ctl::set_dev_num_result(-5); },
		 [](user_cfg_para &) {}, -EINVAL, "check_config_para",
		 "Get device num failed. (device_id=0; dev_num=0; ret=-5)"},
		{"buf_size 0", none, [](user_cfg_para &p) { p.buf_size = 0; }, -EINVAL,
		 "check_config_para", "The buf parameteris incorrect. (device_id=0; buf_size=0)"},
		{"buf_size 32768", none, [](user_cfg_para &p) { p.buf_size = 32768; }, 0, "", ""},
		{"buf_size 32769", none, [](user_cfg_para &p) { p.buf_size = 32769; }, -EINVAL,
		 "check_config_para", "The buf parameteris incorrect. (device_id=0; buf_size=32769)"},
		{"buf 0", none, [](user_cfg_para &p) { p.buf = 0; }, -EINVAL,
		 "check_config_para", "The buf parameteris incorrect. (device_id=0; buf_size=32768)"},
		{"set with buf_size 0", none, [](user_cfg_para &p) { p.cmd = 1; p.buf_size = 0; },
		 -EINVAL, "check_config_para", "The buf parameteris incorrect. (device_id=0; buf_size=0)"},
		{"clear with buf 0, size 0", none,
		 [](user_cfg_para &p) { p.cmd = 2; p.buf = 0; p.buf_size = 0; }, 0, "", ""},
		{"clear with size 40000", none,
		 [](user_cfg_para &p) { p.cmd = 2; p.buf_size = 40000; }, 0, "", ""},
		{"cmd 5 (valid buffer)", none, [](user_cfg_para &p) { p.cmd = 5; }, -EINVAL,
		 "", "The cmd parameter error. (cmd=5)"},
		{"cmd 7 with buf 0", none, [](user_cfg_para &p) { p.cmd = 7; p.buf = 0; }, -EINVAL,
		 "check_config_para", "The buf parameteris incorrect. (device_id=0; buf_size=32768)"},
		{"cfg_index ignored", none, [](user_cfg_para &p) { p.cfg_index = 99; }, 0, "", ""},
	};
	for (const ParaCase &c : cases) {
		SCOPED_TRACE(c.label);
		tb::reset();
		preload();
		tb::task::set(daemon());
		c.world();
		Bytes buf(32768, 0);
		user_cfg_para p = para(0, 0, "dyn_item", buf.data(), 32768);
		c.edit(p);
		const std::uint32_t dev = p.device_id < 4 ? p.device_id : 0;
		tb::flash::mark();
		int rc;
		const bool before_lock = c.want != 0 && std::string(c.step) != "";
		if (before_lock)
			rc = with_lock_held(dev, [&] { return ioctl(&p); });
		else
			rc = ioctl(&p);
		EXPECT_EQ(rc, c.want) << tb::log::dump(8);
		EXPECT_TRUE(tb::take_violations().empty());
		if (c.want != 0) {
			EXPECT_EQ(tb::flash::writes_since_mark(), 0u);
		}
		if (before_lock) {
			EXPECT_EQ(tb::flash::reads_since_mark(), 0u);
			EXPECT_TRUE(tb::log::has(Level::Error, c.step, c.msg)) << tb::log::dump(8);
			EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_check_para",
						 "Check para failed. (ret=-22)"));
			EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_ioctl",
						 "The devdrv_config_check_para failed. (ret=-22)"));
		} else if (c.want != 0) {
			EXPECT_TRUE(tb::log::has(Level::Error, c.step, c.msg)) << tb::log::dump(8);
			EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_ioctl",
				"The devdrv_user_config_op failed. (device_id=0; ret=-22)"));
		}
	}
}

TEST_F(Entry, NoFileOrNoRecord)
{
	user_cfg_para p = para(0, 0, "ssh_status");
	EXPECT_EQ(devdrv_config_ioctl(nullptr, USER_CFG_IOC_ITEM,
				      reinterpret_cast<unsigned long>(&p)), -EINVAL);
	EXPECT_TRUE(tb::log::has_fmt(Level::Error, "devdrv_config_ioctl",
				     "Input parameter is incorrect. (arg=%lu)"));
	EXPECT_EQ(ioctl(nullptr), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "devdrv_config_ioctl",
				 "Input parameter is incorrect. (arg=0)"));
	EXPECT_EQ(tb::user::copies_from(), 0u);
	EXPECT_EQ(tb::flash::total_reads(), 0u);
}

// Names: exactly 32 bytes without a terminator; catalogue names in another
// case are dynamic items; the caller's cfg_index plays no part.
TEST_F(Entry, Names)
{
	tb::task::set(daemon(true));
	const std::string n32(32, 'n');
	std::string n32b = n32;
	n32b[31] = 'm';
	Bytes a = {1, 2, 3}, b = {4, 5, 6, 7};
	user_cfg_para p = para(1, 1, n32, a.data(), 3);
	ASSERT_EQ(ioctl(&p), 0);
	p = para(1, 1, n32b, b.data(), 4);
	ASSERT_EQ(ioctl(&p), 0);
	Bytes got(64, 0);
	p = para(1, 0, n32, got.data(), 64);
	ASSERT_EQ(ioctl(&p), 0);
	EXPECT_EQ(p.buf_size, 3u);
	EXPECT_EQ(Bytes(got.begin(), got.begin() + 3), a);

	// "SSH_STATUS" is not ssh_status: a 5-byte dynamic item, and the
	// catalogue item keeps its default.
	Bytes five = {9, 9, 9, 9, 9};
	p = para(0, 1, "SSH_STATUS", five.data(), 5);
	ASSERT_EQ(ioctl(&p), 0);
	std::uint8_t ssh = 0xEE;
	p = para(0, 0, "ssh_status", &ssh, 1);
	ASSERT_EQ(ioctl(&p), 0);
	EXPECT_EQ(ssh, 0);

	// "usershadow" with cfg_index 3 is index 4: its length is 2048, not
	// the 1024 of index 3.
	Bytes shadow(kUsershadowLen, 0xEE);
	p = para(0, 0, "usershadow", shadow.data(), 1024);
	p.cfg_index = 3;
	EXPECT_EQ(ioctl(&p), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "",
				 "Size error. (cfg_index=4; buf_size=1024; data_size=2048)"));
	p = para(0, 0, "usershadow", shadow.data(), kUsershadowLen);
	p.cfg_index = 3;
	EXPECT_EQ(ioctl(&p), 0);
	EXPECT_EQ(shadow, Bytes(kUsershadowLen, 0));
}

// User memory that faults: the record, the data of a set, the data and the
// length write-back of a get.
TEST_F(Entry, UserCopiesFail)
{
	tb::task::set(daemon(true));
	Bytes dyn(100);
	for (std::size_t i = 0; i < dyn.size(); i++)
		dyn[i] = static_cast<std::uint8_t>(i + 1);
	ASSERT_EQ(hal_kernel_set_user_config(0, "dyn_item", dyn.data(), 100), 0);
	const auto area0 = tb::flash::area(0);

	struct Case {
		const char *label;
		std::function<int()> op;
		int want;
		const char *msg;
	};
	Bytes big(4096, 0);
	std::uint8_t one = 1;
	Bytes set_data(200, 0x5A);
	const std::vector<Case> cases = {
		{"record not user", [&] {
			 user_cfg_para p = para(0, 0, "dyn_item", big.data(), 4096);
			 tb::user::mark_not_user(&p, sizeof(p));
			 return ioctl(&p);
		 }, 56, "The copy_from_user failed. (ret=56)"},
		{"record cut at byte 40", [&] {
			 user_cfg_para p = para(0, 0, "dyn_item", big.data(), 4096);
			 tb::user::mark_unmapped(reinterpret_cast<char *>(&p) + 40, 16);
			 return ioctl(&p);
		 }, 16, "The copy_from_user failed. (ret=16)"},
		{"record in page zero", [&] { return ioctl(reinterpret_cast<void *>(64)); },
		 56, "The copy_from_user failed. (ret=56)"},
		{"dynamic set data cut at 120", [&] {
			 tb::user::mark_unmapped(set_data.data() + 120, 80);
			 user_cfg_para p = para(0, 1, "dyn_item", set_data.data(), 200);
			 return ioctl(&p);
		 }, 80, "The copy_from_user failed. (ret=80)"},
		{"static set data not user", [&] {
			 tb::user::mark_not_user(&one, 1);
			 user_cfg_para p = para(0, 1, "ssh_status", &one, 1);
			 return ioctl(&p);
		 }, 1, "The copy_from_user failed. (ret=1)"},
		{"dynamic get data cut at 50", [&] {
			 tb::user::mark_unmapped(big.data() + 50, 100);
			 user_cfg_para p = para(0, 0, "dyn_item", big.data(), 4096);
			 return ioctl(&p);
		 }, 50, "The copy_to_user failed. (ret=50)"},
		{"dynamic get length write-back", [&] {
			 // The record must copy in whole, so its length field
			 // goes bad only once the request waits for the lock,
			 // which this thread holds meanwhile.
			 user_cfg_para p = para(0, 0, "dyn_item", big.data(), 4096);
			 int rc = 0;
			 devdrv_config_mutex_lock(0);
			 std::thread t([&] {
				 tb::task::set(daemon(true));
				 rc = ioctl(&p);
			 });
			 while (tb::user::copies_from() == 0)
				 std::this_thread::yield();
			 std::this_thread::sleep_for(std::chrono::milliseconds(50));
			 tb::user::mark_unmapped(&p.buf_size, 4);
			 devdrv_config_mutex_unlock(0);
			 t.join();
			 EXPECT_EQ(Bytes(big.begin(), big.begin() + 100), dyn);
			 EXPECT_EQ(p.buf_size, 4096u);
			 return rc;
		 }, 4, "The copy_to_user failed. (ret=4)"},
		{"static get data not user", [&] {
			 tb::user::mark_not_user(big.data(), kUsershadowLen);
			 user_cfg_para p = para(0, 0, "usershadow", big.data(), kUsershadowLen);
			 return ioctl(&p);
		 }, 2048, "The copy_to_user failed. (ret=2048)"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.label);
		tb::log::clear();
		tb::user::clear();
		tb::flash::mark();
		EXPECT_EQ(c.op(), c.want) << tb::log::dump(8);
		tb::user::clear();
		EXPECT_TRUE(tb::log::has(Level::Error, "", c.msg)) << tb::log::dump(8);
		EXPECT_EQ(tb::flash::writes_since_mark(), 0u);
		EXPECT_EQ(tb::locks::held(), 0);
		EXPECT_EQ(tb::alloc::outstanding(), 0u);
		EXPECT_TRUE(tb::flash::area(0) == area0);
	}
	// Nothing before the lock touched the flash for a bad record.
	tb::flash::mark();
	user_cfg_para p = para(0, 1, "dyn_item", big.data(), 4096);
	tb::user::mark_not_user(&p, sizeof(p));
	EXPECT_EQ(with_lock_held(0, [&] { return ioctl(&p); }), 56);
	tb::user::clear();
	EXPECT_EQ(tb::flash::reads_since_mark(), 0u);
	EXPECT_TRUE(tb::take_violations().empty());
}
