// SPDX-License-Identifier: GPL-2.0
// Unit tests of ucfg, through a fake device that records the requests.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "uapi/user_cfg.h"
#include "ucfg.h"
#include "view.h"

namespace {

struct FakeDevice : ucfg::Transport {
	std::string view, view_path;
	user_cfg_para last{};
	ucfg::Bytes sent, reply;
	ucfg::IoctlResult result;

	int open(const std::string &n) override { return n == ucfg::kDefaultNode ? 0 : ENOENT; }
	int read_view(const std::string &path, std::string &text) override
	{
		view_path = path;
		text = view;
		return view.empty() ? ENOENT : 0;
	}
	// Item requests, and the boot configuration as the driver reports it.
	ucfg::IoctlResult ioctl(unsigned long cmd, void *arg) override
	{
		if (cmd == USER_CFG_IOC_BOOT_CFG) {
			*static_cast<std::uint32_t *>(arg) = 32;
			return result;
		}
		auto *rec = static_cast<user_cfg_para *>(arg);
		last = *rec;
		auto *buf = reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(rec->buf));
		if (rec->cmd == USER_CFG_CMD_SET)
			sent.assign(buf, buf + rec->buf_size);
		if (rec->cmd == USER_CFG_CMD_GET) {
			rec->buf_size = std::min<std::size_t>(reply.size(), rec->buf_size);
			std::copy_n(reply.begin(), rec->buf_size, buf);
		}
		return result;
	}
};

struct Outcome {
	int rc;
	std::string out, err;
};

Outcome run(FakeDevice &dev, std::vector<std::string> args)
{
	std::ostringstream out, err;
	int rc = ucfg::run(args, dev, out, err);
	return {rc, out.str(), err.str()};
}

TEST(Values, BytesAndDisplay)
{
	const std::string cpu = "010204" + std::string(26, '0');
	const std::string shadow = "hex:0000000000ab" + std::string(4084, '0');
	struct Case {
		const char *name, *input, *bytes;
		std::string shown;
	};
	const Case cases[] = {
		{"ssh_status", "on", "01", "on (1)\n"},
		{"ddr_ecc_enable", "hex:00", "00", "off (0)\n"},
		{"cpu_num_cfg", " 1, 2 ,4", cpu.c_str(), "control 1, data 2, AI 4\n"},
		{"p2p_mem_cfg", "0x00000400", "00040000", "1024 (0x00000400)\n"},
		{"usershadow", shadow.c_str(), shadow.c_str() + 4,
		 "1 of 2048 bytes set (secret: --raw prints them in hex)\n"},
		{"my_item", "hex:0a:0B ff", "0a0bff",
		 "00000000  0a 0b ff" + std::string(42, ' ') + "|...|\n00000003\n"},
	};
	for (const Case &c : cases) {
		std::string error;
		auto v = ucfg::decode_value(c.name, c.input, error);
		ASSERT_TRUE(v) << c.name << " " << c.input << ": " << error;
		EXPECT_EQ(ucfg::hex_string(*v), c.bytes);
		EXPECT_EQ(ucfg::render_value(c.name, *v, ucfg::Show::kHuman).out, c.shown);
	}
}

const char kView[] = "device 1\nhead main valid\nhead backup bad-check\nin_use main\n"
		     "copies differ\nstatic cpu_num_cfg default 16\nstatic p2p_mem_cfg set 4\n"
		     "static ddr_ecc_enable default 1\nstatic ccpu_usr_cert_hash default 1024\n"
		     "static usershadow default 2048\nstatic ssh_status set 1\n"
		     "item 0 ok bad size=100 block=2 offset=0 name=a\\x20b\\xff\n"
		     "table records=1 in_use=1 free=0 room=1098\n"
		     "block 2 in_use=1 used=65400 live=40000\n"
		     "space blocks=1 live=40000 dead=25400 free=135 largest=103\n";

// What the commands send the driver, their exit status and what they print.
TEST(Commands, RequestsExitStatusAndOutput)
{
	FakeDevice dev;
	ASSERT_EQ(run(dev, {"get", "-d", "1", "ccpu_usr_cert_hash"}).rc, 0);
	EXPECT_EQ(dev.last.buf_size, 1024u); // a static item: exactly its length
	EXPECT_EQ(dev.last.device_id, 1u);
	dev.reply = {'h', 'i'};
	EXPECT_EQ(run(dev, {"get", "--text", "greeting"}).out, "hi\n");
	EXPECT_EQ(dev.last.buf_size, ucfg::kDynamicMax); // room for any content
	ASSERT_EQ(run(dev, {"clear", std::string(31, 'k') + "\\x01"}).rc, 0);
	EXPECT_EQ(std::string(dev.last.name, 32), std::string(31, 'k') + "\x01"); // no NUL
	EXPECT_EQ(run(dev, {"status"}).rc, ucfg::kExitNoDevice);
	dev.view = kView;
	Outcome r = run(dev, {"list", "-d", "1", "--view-dir", "/v", "--json"});
	nlohmann::json j = nlohmann::json::parse(r.out);
	EXPECT_EQ(dev.view_path, "/v/dev1");
	EXPECT_EQ(j["items"][0]["name"], nullptr); // not UTF-8: bytes in name_hex
	EXPECT_EQ(j["items"][0]["name_hex"], "612062ff");
	EXPECT_EQ(j["space"]["largest_without_rebuild"], 103);
	EXPECT_EQ(j["health"]["problems"].size(), 2u);
	const std::vector<std::vector<std::string>> usage = {
		{"fetch", "x"}, {"get", "a", "b"}, {"set", "x"}, {"get", std::string(33, 'n')},
		{"get", ""}, {"get", "bad\\xq"}, {"get", "-d", "one", "x"}, {"boot-cfg", "-d", "1"},
		{"get", "--raw", "--text", "x"}, {"get", "--text", "ssh_status"},
		{"get", "--json", "x"}, {"clear", "-o", "f", "x"}, {"list", "--size", "5"},
		{"status", "--size", "32769"},
	};
	for (const auto &args : usage)
		EXPECT_EQ(run(dev, args).rc, ucfg::kExitUsage) << testing::PrintToString(args);
	struct Case {
		std::vector<std::string> args;
		int exit;
		const char *says;
		ucfg::IoctlResult result = {};
	};
	const Case cases[] = {
		{{"set", "ssh_status", "2"}, ucfg::kExitValue, "ssh_status is on or off"},
		{{"set", "ssh_status", "hex:0101"}, ucfg::kExitValue, "takes exactly 1 bytes"},
		{{"set", "cpu_num_cfg", "1,256,3"}, ucfg::kExitValue, "three numbers 0 to 255"},
		{{"set", "p2p_mem_cfg", "4294967296"}, ucfg::kExitValue, "0 to 4294967295"},
		{{"set", "x", "hex:abc"}, ucfg::kExitValue, "odd number of hex digits"},
		{{"set", "x", "text:" + std::string(32769, 'x')}, ucfg::kExitValue, "1 to 32768"},
		{{"set", "x", "text:" + std::string(32768, 'x')}, ucfg::kExitOk, ""},
		{{"get", "x"}, ucfg::kExitRefused, "set/clear (EACCES)", {-1, EACCES}},
		{{"get", "x"}, ucfg::kExitRefused, "could not copy 12 bytes", {12, 0}},
		{{"get", "--device-node=/n", "x"}, ucfg::kExitNoDevice, "open /n: no such node"},
		{{"list"}, ucfg::kExitOk, "  p2p_mem_cfg          set"},
		{{"list"}, ucfg::kExitOk, "  a\\x20b\\xff    "},
		{{"status"}, ucfg::kExitOk, "device 1: damaged"},
		{{"status"}, ucfg::kExitOk, "  item a\\x20b\\xff: backup copy damaged\n"},
		{{"status", "--size", "100"}, ucfg::kExitOk, "fits without compacting"},
		{{"status", "--size", "5000"}, ucfg::kExitOk, "needs the content blocks compacted"},
		{{"status", "--size", "32000"}, ucfg::kExitOk, "not even after compacting"},
		{{"boot-cfg"}, ucfg::kExitOk, "set: bit 5 of the boot configuration register is 1"},
	};
	for (const Case &c : cases) {
		dev.result = c.result;
		r = run(dev, c.args);
		EXPECT_EQ(r.rc, c.exit) << testing::PrintToString(c.args);
		EXPECT_NE((r.out + r.err).find(c.says), std::string::npos) << r.out << r.err;
	}
	EXPECT_EQ(dev.sent, ucfg::Bytes(32768, 'x')); // the longest value, whole
}

} // namespace
