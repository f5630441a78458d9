// SPDX-License-Identifier: GPL-2.0
//
// The item catalogue: name resolution with the board-id register, the
// default value of every item, the conversion of a row's default string,
// the two value checks, and the device count query.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "testbed.h"

extern "C" {
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "drv_user_cfg.h"
}

namespace {

using L = tb::log::Level;
using Bytes = std::vector<tb::u8>;

class Catalogue : public tb::Fixture {};

TEST_F(Catalogue, NameLookup)
{
	tb::regs::set_board_id(0x1234);
	const std::string x32(32, 'x');
	const struct {
		std::string name;
		int idx;
	} cases[] = {
		{"cpu_num_cfg", 0}, {"p2p_mem_cfg", 1}, {"ddr_ecc_enable", 2},
		{"ccpu_usr_cert_hash", 3}, {"usershadow", 4}, {"ssh_status", 5},
		{"cpu_num", -1}, {"cpu_num_cfgx", -1}, {"CPU_NUM_CFG", -1},
		{"Ssh_status", -1}, {"ssh_status ", -1}, {"", -1}, {x32, -1},
		{x32 + "tail", -1}, {"my.item", -1},
	};
	for (const auto &c : cases) {
		tb::log::clear();
		EXPECT_EQ(devdrv_get_config_index_by_name(c.name.c_str()), c.idx) << c.name;
		// An unknown name is not an error.
		EXPECT_EQ(tb::log::count(L::Error), 0u) << c.name;
		if (c.idx >= 0) {
			EXPECT_TRUE(tb::log::has(L::Info, "devdrv_get_config_index_by_name",
				"Board ID matchs. (board_id=4660; config_board_id=-1)"));
		}
	}
	// A 32-byte field holding a name of exactly 32 characters and no NUL
	// compares over those 32 bytes only.
	char field[33];
	std::memset(field, 'x', 32);
	field[32] = '\0';
	EXPECT_EQ(devdrv_get_config_index_by_name(field), -1);
}

// The board id is read from its register until one read succeeds, then
// never again; without it no name resolves, known or not.
TEST_F(Catalogue, BoardIdUnreadableThenCached)
{
	tb::regs::set_board_id(0xbeef);
	tb::regs::set_ioremap_fails(true);
	if (devdrv_get_config_index_by_name("ssh_status") != -ENODEV)
		GTEST_SKIP() << "board id already cached in this process (run under ctest)";
	for (const char *name : {"ssh_status", "not_in_catalogue"}) {
		tb::log::clear();
		EXPECT_EQ(devdrv_get_config_index_by_name(name), -ENODEV) << name;
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_get_boardid_by_reg",
					 "The ioremap function return NULL."));
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_get_config_index_by_name",
					 "Unable to get board id."));
	}
	EXPECT_EQ(tb::regs::readl_count(tb::regs::kBoardIdOffset), 0u);

	tb::regs::set_ioremap_fails(false);
	tb::log::clear();
	EXPECT_EQ(devdrv_get_config_index_by_name("ssh_status"), 5);
	EXPECT_EQ(tb::regs::readl_count(tb::regs::kBoardIdOffset), 1u);
	EXPECT_EQ(tb::regs::mappings(), 0u);
	EXPECT_TRUE(tb::log::has(L::Info, "devdrv_get_boardid_by_reg",
				 "The value of board_id. (board_id=48879)"));

	// Cached: the register is neither mapped nor read again.
	tb::regs::set_ioremap_fails(true);
	tb::regs::set_board_id(0x0001);
	const tb::u32 maps = tb::regs::ioremap_calls();
	EXPECT_EQ(devdrv_get_config_index_by_name("usershadow"), 4);
	EXPECT_EQ(devdrv_get_config_index_by_name("nope"), -1);
	EXPECT_EQ(tb::regs::ioremap_calls(), maps);
	EXPECT_EQ(tb::regs::readl_count(tb::regs::kBoardIdOffset), 1u);
	EXPECT_TRUE(tb::log::has(L::Info, "devdrv_get_boardid_by_reg",
				 "The value of board_id. (board_id=48879)"));
}

// ---------------------------------------------------------------------------
// Defaults of every catalogue row, and the refusals of a short buffer.
TEST_F(Catalogue, DefaultOfEveryItem)
{
	tb::ctl::set_dts_cpu(3, 0x105, 9);	// only the low 8 bits are kept
	Bytes cpu(16, 0);
	cpu[0] = 3;
	cpu[1] = 5;
	cpu[2] = 9;
	struct Case {
		int idx;
		tb::u32 room;
		int rc;
		Bytes value;		// expected value (rc 0)
		tb::u32 len_after;
		const char *step, *msg;	// error on refusal
		std::function<void()> setup;
	} cases[] = {
		{0, 16, 0, cpu, 16, nullptr, nullptr, nullptr},
		{0, 100, 0, cpu, 16, nullptr, nullptr, nullptr},
		{1, 4, 0, {4, 0, 0, 0}, 4, nullptr, nullptr, nullptr},
		{2, 1, 0, {1}, 1, nullptr, nullptr, nullptr},
		{3, 2000, 0, Bytes(1024, 0), 1024, nullptr, nullptr, nullptr},
		{4, 2048, 0, Bytes(2048, 0), 2048, nullptr, nullptr, nullptr},
		{5, 1, 0, {0}, 1, nullptr, nullptr, nullptr},
		{1, 3, -EINVAL, {}, 3, "devdrv_config_get_default_extract",
		 "The input length is too small. (buff_size=3; least=4)", nullptr},
		{1, 0x80000000u, -EINVAL, {}, 0x80000000u, "devdrv_config_get_default_extract",
		 "The input length is too small. (buff_size=2147483648; least=4)", nullptr},
		{4, 2047, -EINVAL, {}, 2047, "devdrv_config_get_default_extract",
		 "The input length is too small. (buff_size=2047; least=2048)", nullptr},
		{0, 15, -EINVAL, {}, 15, "devdrv_config_get_default_dts_cpu_config",
		 "Input buf size is too small. (buff_size=15; least=16)", nullptr},
		{0, 16, -EINVAL, {}, 16, "devdrv_config_get_default_dts_cpu_config",
		 "The kallsyms_lookup_name return NULL.", [] { tb::ctl::set_present(false); }},
		{0, 16, -7, {}, 16, "devdrv_config_get_default_dts_cpu_config",
		 "The get_dts_cpu_config_handle function fail. (ret=-7)",
		 [] { tb::ctl::set_dts_cpu_result(-7); }},
		{2, 1, -ENOMEM, {}, 1, "devdrv_config_get_default_extract",
		 "Alloc memory for buffer failed.", [] { tb::alloc::fail_nth(1); }},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE("index " + std::to_string(c.idx) + " room " + std::to_string(c.room));
		tb::log::clear();
		tb::ctl::set_present(true);
		tb::ctl::set_dts_cpu_result(0);
		if (c.setup)
			c.setup();
		Bytes buf(std::min<tb::u32>(c.room, 4096) + 8, 0xee);
		tb::u32 len = c.room;
		EXPECT_EQ(devdrv_config_get_default(&user_cfg_version_1[c.idx], buf.data(), &len),
			  c.rc);
		EXPECT_EQ(len, c.len_after);
		if (c.rc == 0) {
			EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.value.size()), c.value);
			EXPECT_EQ(buf[c.value.size()], 0xee) << "nothing beyond the value";
		} else {
			EXPECT_EQ(buf, Bytes(buf.size(), 0xee)) << "nothing written on failure";
			EXPECT_TRUE(tb::log::has(L::Error, c.step, c.msg)) << tb::log::dump(6);
		}
		EXPECT_EQ(tb::ctl::refs(tb::ctl::kGetDtsCpuCfg), 0);
	}
	EXPECT_GE(tb::ctl::calls(tb::ctl::kGetDtsCpuCfg), 3u);
}

// The conversion of a row's default string, through rows whose names no
// provider serves.
TEST_F(Catalogue, DefaultStringConversion)
{
	struct Case {
		const char *str;
		tb::u32 size;	// record size: size - 1 value bytes
		int rc;
		Bytes value;
		const char *msg;
	} cases[] = {
		{"0x", 2, -EINVAL, {}, "The default data len is out of range. (len=2)"},
		{"0x1", 2, -EINVAL, {}, "The default data len is out of range. (len=3)"},
		{"", 2, -EINVAL, {}, "The default data len is out of range. (len=0)"},
		{"0x123", 3, -EINVAL, {}, "Default data must own a even number length. (len=5)"},
		{"00x1", 2, -EINVAL, {},
		 "Default data is not start with \"0x\" or \"0X\". (str[0]=0; str[1]=0)"},
		{"1x01", 2, -EINVAL, {},
		 "Default data is not start with \"0x\" or \"0X\". (str[0]=1; str[1]=x)"},
		{"0xG0", 2, -EINVAL, {}, "The scanf_s failed. (ret=0)"},
		{"0x01G0", 3, -EINVAL, {}, "The scanf_s failed. (ret=0)"},
		{"0x010203", 3, -EINVAL, {},
		 "Default data has len hex, but output buf_size is only size. (len=3; size=2)"},
		{"0X0A", 2, 0, {0x0a}, nullptr},
		{"0x0G", 2, 0, {0x00}, nullptr},
		{"0xfF", 2, 0, {0xff}, nullptr},
		{"0x0102", 5, 0, {0x01, 0x02, 0x00, 0x00}, nullptr},
		{"0x00", 1025, 0, Bytes(1024, 0), nullptr},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.str);
		tb::log::clear();
		const user_cfg_item_desc row = {"no_provider_item", -1, 0, c.size, 1, c.str, nullptr};
		Bytes buf(c.size + 8, 0xee);
		tb::u32 len = c.size + 8;
		EXPECT_EQ(devdrv_config_get_default(&row, buf.data(), &len), c.rc);
		// The length is reported once the room was found sufficient.
		EXPECT_EQ(len, c.size - 1);
		if (c.rc == 0) {
			EXPECT_EQ(Bytes(buf.begin(), buf.begin() + c.value.size()), c.value);
			EXPECT_EQ(buf[c.value.size()], 0xee);
			EXPECT_EQ(tb::log::count(L::Error), 0u);
			continue;
		}
		EXPECT_EQ(buf, Bytes(buf.size(), 0xee));
		const std::vector<std::string> chain = {"devdrv_config_str2hex",
			"devdrv_config_get_default_extract", "devdrv_config_get_default"};
		EXPECT_EQ(tb::log::steps(L::Error), chain);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_str2hex", c.msg)) << tb::log::dump(4);
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_default_extract",
					 "The devdrv_config_str2hex failed. (ret=-22)"));
		EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_default",
					 "The devdrv_config_get_default_extract failed. (ret=-22)"));
	}

	// The provider serves its row by name; it needs room for byte 2.
	tb::log::clear();
	const user_cfg_item_desc tiny = {"cpu_num_cfg", -1, 0, 3, 1, "0x0100", nullptr};
	Bytes buf(8, 0xee);
	tb::u32 len = 8;
	EXPECT_EQ(devdrv_config_get_default(&tiny, buf.data(), &len), -EINVAL);
	EXPECT_EQ(len, 2u);
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_default_dts_cpu_config",
		"Config index is out of range. (ai_cpu_num_index=2; least=2)"));
	EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_default",
		"Faild in excute get_para_post_process_func. (item_name=cpu_num_cfg; ret=-22)"));
	EXPECT_EQ(buf, Bytes(8, 0xee));
}

TEST_F(Catalogue, ValueChecks)
{
	const tb::u8 v0 = 0, v1 = 1, v2 = 2, vff = 0xff;
	const struct {
		tb::u32 sel;
		const tb::u8 *value;
		int rc;
	} cases[] = {
		{0, &v0, 0}, {0, &v1, 0}, {1, &v1, 0}, {1, &v0, 0},
		{2, &v0, -1}, {0xffffffffu, &v1, -1}, {0, &v2, -1}, {1, &vff, -1},
		{0, nullptr, -1}, {1, nullptr, -1},
	};
	for (auto check : {ddr_ecc_enable_check_para, ssh_status_check_para}) {
		for (const auto &c : cases) {
			EXPECT_EQ(check(c.sel, c.value), c.rc)
				<< "selector " << c.sel << " value "
				<< (c.value ? std::to_string(*c.value) : "null");
		}
	}
	EXPECT_EQ(user_cfg_version_1[2].check_para, ddr_ecc_enable_check_para);
	EXPECT_EQ(user_cfg_version_1[5].check_para, ssh_status_check_para);
}

TEST_F(Catalogue, DeviceCount)
{
	const struct {
		const char *name;
		bool present;
		int result;
		int rc;
		tb::u32 count;
		const char *msg;
	} cases[] = {
		{"present", true, 0, 0, 2, nullptr},
		{"absent", false, 0, -EINVAL, 77, "The kallsyms_lookup_name function return NULL."},
		{"error", true, -5, -5, 77, "The get_dev_num_handle function fail. (ret=-5)"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		tb::reset();
		tb::ctl::set_present(c.present);
		tb::ctl::set_dev_num_result(c.result);
		tb::u32 count = 77;
		EXPECT_EQ(devdrv_config_get_dev_num(&count), c.rc);
		EXPECT_EQ(count, c.count);
		EXPECT_EQ(tb::ctl::refs(tb::ctl::kGetDevNum), 0);
		if (c.msg)
			EXPECT_TRUE(tb::log::has(L::Error, "devdrv_config_get_dev_num", c.msg));
		else
			EXPECT_EQ(tb::log::count(L::Error), 0u);
	}
	// Looked up afresh on every call: a control module loaded later counts.
	tb::reset();
	tb::ctl::set_present(false);
	tb::u32 count = 0;
	EXPECT_EQ(devdrv_config_get_dev_num(&count), -EINVAL);
	tb::ctl::set_present(true);
	tb::ctl::set_dev_num(1);
	EXPECT_EQ(devdrv_config_get_dev_num(&count), 0);
	EXPECT_EQ(count, 1u);
}

} // namespace
