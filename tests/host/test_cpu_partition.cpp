// SPDX-License-Identifier: GPL-2.0
//
// The CPU partition queries: group sizes from the cgroup cpuset files, read
// once per module life, and the configured CPU numbers of cpu_num_cfg.
//
// The table of group sizes is module state that outlives tb::reset(), so
// every test here expects a freshly loaded module: run them under CTest
// (one process per test), not in one run of the binary.
#include "entry_helpers.h"

#include <tuple>

using namespace entry;
using tb::log::Level;

namespace {

const std::string kCtrl = "/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus";
const std::string kData = "/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus";
const std::string kAi = "/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus";

void documented_files()
{
	tb::files::set(kCtrl, "0-1,8-9\n");
	tb::files::set(kData, "2-3,10-11\n");
	tb::files::set(kAi, "4-7,12-15\n");
}

using Rec = std::tuple<u32, u32, u32, u32, u32, u32, u32, u32>;
Rec rec(const dev_user_cfg_cpu_nums &r)
{
	return {r.ccpu_num, r.ccpu_os_sched, r.dcpu_num, r.dcpu_os_sched,
		r.aicpu_num, r.aicpu_os_sched, r.tscpu_num, r.tscpu_os_sched};
}

Rec query(u32 dev, int want_rc = 0)
{
	dev_user_cfg_cpu_nums r;
	std::memset(&r, 0x5A, sizeof(r));
	EXPECT_EQ(dev_user_cfg_get_cpu_number(dev, &r), want_rc) << tb::log::dump(8);
	return rec(r);
}

std::size_t config_lines()
{
	std::size_t n = 0;
	for (const auto &r : tb::log::records())
		if (r.level == Level::Info && r.msg.rfind("Cpus number config.", 0) == 0)
			n++;
	return n;
}

} // namespace

class CpuPartition : public tb::Fixture {};

TEST_F(CpuPartition, DocumentedCpusetsReadOnce)
{
	documented_files();
	const Rec want{2, 1, 2, 1, 4, 1, 0, 0};
	EXPECT_EQ(query(0), want);
	EXPECT_EQ(query(1), want);
	EXPECT_EQ(tb::files::opens(kCtrl), 2u);	// once per device
	EXPECT_EQ(tb::files::opens(kAi), 2u);
	EXPECT_EQ(tb::files::open_count(), 0u);

	// From now on the table answers; the files are not read again.
	tb::files::set(kCtrl, "0-3,8-11\n");
	EXPECT_EQ(query(0), want);
	EXPECT_EQ(query(1), want);
	EXPECT_EQ(tb::files::opens(kCtrl), 2u);
	EXPECT_EQ(config_lines(), 4u);
	EXPECT_TRUE(tb::log::has(Level::Info, "", "Cpus number config. (ccpu_num=2; ccpu_os_sched=1)"));
	EXPECT_TRUE(tb::log::has(Level::Info, "", "Cpus number config. (aicpu_num=4; aicpu_os_sched=1)"));
	EXPECT_TRUE(tb::log::has(Level::Info, "", "Cpus number config. (tscpu_num=0; tscpu_os_sched=0)"));

	// Refusals do not depend on the table.
	EXPECT_EQ(dev_user_cfg_get_cpu_number(0, nullptr), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "", "The cpu_nums_cfg is NULL."));
	query(2, -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "",
		"Get device number Failed or invalid parameter. (ret=0; dev_id=2; dev_num=2)"));
	tb::ctl::set_present(false);
	query(0, -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "",
		"Get device number Failed or invalid parameter. (ret=-22; dev_id=0; dev_num=0)"));
	tb::ctl::set_present(true);
	tb::ctl::set_dev_num_result(-5);
	query(0, -5);
}

// One file's contents, the other two fixed, from a fresh table: what each
// device gets of that group.
struct ParseCase {
	const char *label;
	const char *ctrl;
	u32 dev0, dev1;
	const char *error;	// expected error message, "" none
};

void PrintTo(const ParseCase &c, std::ostream *os)
{
	*os << c.label;
}

class CpusetParse : public tb::Fixture,
		    public ::testing::WithParamInterface<ParseCase> {};

TEST_P(CpusetParse, Counts)
{
	const ParseCase &c = GetParam();
	documented_files();
	tb::files::set(kCtrl, c.ctrl);
	const Rec r0 = query(0);
	const Rec r1 = query(1);
	EXPECT_EQ(std::get<0>(r0), c.dev0);
	EXPECT_EQ(std::get<0>(r1), c.dev1);
	EXPECT_EQ(std::get<1>(r0), 1u);
	EXPECT_EQ(std::get<1>(r1), 1u);
	EXPECT_EQ(std::get<4>(r1), 4u);	// the other groups are untouched
	if (*c.error) {
		EXPECT_TRUE(tb::log::has(Level::Error, "", c.error)) << tb::log::dump(10);
	} else {
		EXPECT_EQ(tb::log::count(Level::Error), 0u) << tb::log::dump(10);
	}
}

INSTANTIATE_TEST_SUITE_P(
	Elements, CpusetParse,
	::testing::Values(
		ParseCase{"single", "5,6\n", 1, 1, ""},
		ParseCase{"octal", "010-011,0x10-0x13\n", 2, 4, ""},
		ParseCase{"reversed", "3-1,0-0\n", 4294967295u, 1, ""},
		ParseCase{"mixed", "0-1,4\n", 2, 1, ""},
		ParseCase{"empty", "\n", 0, 0, ""},
		ParseCase{"one_element", "0-3\n", 4, 0,
			  "String parse failed. (dev_id=1; buf=\"0-3\")"}),
	[](const ::testing::TestParamInfo<ParseCase> &i) { return std::string(i.param.label); });

// A missing file fails the first call and leaves the table unfilled: the
// next call reads every file again, from device 0.
TEST_F(CpuPartition, MissingFileIsRetried)
{
	documented_files();
	tb::files::remove(kAi);
	query(0, -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Info, "",
		"Opening file is abnormal. (dev_id=0; cpu_type=\"" + kAi + "\", errno=-2.)"));
	EXPECT_TRUE(tb::log::has(Level::Error, "", "AI cpu information got failed. (dev_id=0; ret=-22)"));
	EXPECT_TRUE(tb::log::has(Level::Error, "",
				 "Failed to invoke the dev_user_cfg_init_cpu_info. (ret=-22)"));
	EXPECT_EQ(config_lines(), 0u);
	EXPECT_EQ(tb::files::opens(kCtrl), 1u);

	// A file that reads nothing fails the same way.
	tb::files::set(kAi, "4-7,12-15\n");
	tb::files::fail_read(kData, -EIO);
	query(1, -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "",
		"File read failed. (dev_id=0; cpu_type=\"" + kData + "\"; read_len=-5)"));
	EXPECT_TRUE(tb::log::has(Level::Error, "", "Data cpu information got failed. (dev_id=0; ret=-22)"));
	tb::files::fail_read(kData, 0);

	EXPECT_EQ(query(1), (Rec{2, 1, 2, 1, 4, 1, 0, 0}));
	EXPECT_EQ(tb::files::opens(kCtrl), 4u);	// 1 + 1 + both devices
	EXPECT_EQ(config_lines(), 4u);
	EXPECT_EQ(tb::files::open_count(), 0u);
}

// A control module reporting more devices than the table holds: devices
// 0 to 3 are served, the table is filled for them only, and device 4 is
// refused rather than read past the table.
TEST_F(CpuPartition, MoreDevicesThanTheTable)
{
	tb::ctl::set_dev_num(6);
	tb::files::set(kCtrl, "0,1-2,3-5,6-9,10-14,15-20\n");
	tb::files::set(kData, "0,0,0,0,0,0\n");
	tb::files::set(kAi, "0,0,0,0,0,0\n");
	EXPECT_EQ(std::get<0>(query(3)), 4u);
	EXPECT_EQ(tb::files::opens(kCtrl), 4u);
	query(4, -EINVAL);
	query(5, -EINVAL);
	EXPECT_EQ(std::get<0>(query(0)), 1u);
	EXPECT_EQ(std::get<0>(query(2)), 3u);
	EXPECT_EQ(tb::files::opens(kCtrl), 4u);
}

// The configured numbers: stored value, else the device tree's.
TEST_F(CpuPartition, ConfiguredNumbers)
{
	tb::ctl::set_dts_cpu(2, 3, 11);
	u32 out[4] = {7, 7, 7, 7};

	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(0, out, 16), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "", "Input data size out of range. (size=16)"));
	EXPECT_EQ(tb::flash::total_reads(), 0u);
	EXPECT_EQ(out[0], 7u);

	ASSERT_EQ(dev_user_cfg_get_cpu_cfg(1, out, 12), 0);
	EXPECT_EQ(out[0], 2u);
	EXPECT_EQ(out[1], 3u);
	EXPECT_EQ(out[2], 11u);
	EXPECT_EQ(out[3], 7u);

	std::uint8_t value[16] = {4, 6, 200};
	ASSERT_EQ(hal_kernel_set_user_config(0, "cpu_num_cfg", value, 16), 0);
	ASSERT_EQ(dev_user_cfg_get_cpu_cfg(0, out, 12), 0);
	EXPECT_EQ(out[0], 4u);
	EXPECT_EQ(out[1], 6u);
	EXPECT_EQ(out[2], 200u);
	ASSERT_EQ(dev_user_cfg_get_cpu_cfg(1, out, 12), 0);
	EXPECT_EQ(out[0], 2u);

	tb::flash::mark();
	out[0] = 7;
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(2, out, 12), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "", "Input parameter is incorrect. (device_id=2)"));
	EXPECT_TRUE(tb::log::has(Level::Error, "",
		"Call devdrv_config_get_cpu_cfg function fail. (device_id=2; ret=-22)"));
	EXPECT_EQ(tb::flash::reads_since_mark(), 0u);
	EXPECT_EQ(out[0], 7u);

	// No stored value and no control module: no default, caller untouched.
	tb::ctl::set_present(false);
	EXPECT_EQ(dev_user_cfg_get_cpu_cfg(1, out, 12), -EINVAL);
	EXPECT_TRUE(tb::log::has(Level::Error, "", "The kallsyms_lookup_name return NULL."));
	EXPECT_EQ(out[0], 7u);
	EXPECT_EQ(tb::locks::held(), 0);
}
