// SPDX-License-Identifier: GPL-2.0
//
// Unit tests of ucfg: values, the command line, the requests it sends and
// what it makes of the store's view, through a fake device that records
// the requests and hands out a view text.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "uapi/user_cfg.h"
#include "ucfg.h"
#include "view.h"

using ucfg::Bytes;

namespace {

struct FakeDevice : ucfg::Transport {
	int opens = 0;
	user_cfg_para last{};
	Bytes sent, reply;
	ucfg::IoctlResult result;
	std::optional<std::uint32_t> new_size;
	std::string view, view_path;

	int open(const std::string &) override
	{
		opens++;
		return 0;
	}
	int read_view(const std::string &path, std::string &text) override
	{
		view_path = path;
		text = view;
		return view.empty() ? ENOENT : 0;
	}
	ucfg::IoctlResult ioctl(unsigned long request, void *arg) override
	{
		if (request != USER_CFG_IOC_ITEM) {
			std::memcpy(arg, reply.data(), reply.size());
			return result;
		}
		auto *rec = static_cast<user_cfg_para *>(arg);
		last = *rec;
		auto *buf = reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(rec->buf));
		if (rec->cmd == USER_CFG_CMD_SET)
			sent.assign(buf, buf + rec->buf_size);
		if (rec->cmd == USER_CFG_CMD_GET && result.ret == 0) {
			std::memcpy(buf, reply.data(), std::min<std::size_t>(reply.size(), rec->buf_size));
			if (new_size)
				rec->buf_size = *new_size;
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

TEST(Values, FormsBytesAndDisplay)
{
	const std::string cpu = "010204" + std::string(26, '0');
	struct Case {
		const char *name, *input, *bytes, *shown;	// bytes nullptr: refused
	};
	const Case cases[] = {
		{"ssh_status", "on", "01", "on (1)\n"},
		{"ddr_ecc_enable", "hex:00", "00", "off (0)\n"},
		{"cpu_num_cfg", " 1, 2 ,4", cpu.c_str(), "control 1, data 2, AI 4\n"},
		{"p2p_mem_cfg", "0x00000400", "00040000", "1024 (0x00000400)\n"},
		{"my_item", "text:hi", "6869", nullptr},
		{"my_item", "hex:0a:0B ff", "0a0bff", nullptr},
		{"ssh_status", "2", nullptr, nullptr},
		{"cpu_num_cfg", "1,256,3", nullptr, nullptr},
		{"p2p_mem_cfg", "4294967296", nullptr, nullptr},
		{"usershadow", "on", nullptr, nullptr},
		{"my_item", "hex:abc", nullptr, nullptr},
		{"my_item", "hello", nullptr, nullptr},
	};
	for (const Case &c : cases) {
		std::string error;
		auto v = ucfg::decode_value(c.name, c.input, error);
		ASSERT_EQ(v.has_value(), c.bytes != nullptr) << c.name << " " << c.input;
		if (!v)
			continue;
		EXPECT_EQ(ucfg::hex_string(*v), c.bytes);
		if (c.shown)
			EXPECT_EQ(ucfg::render_value(c.name, *v, ucfg::Show::kHuman).out, c.shown);
		std::string raw = ucfg::render_value(c.name, *v, ucfg::Show::kRaw).out;
		EXPECT_EQ(ucfg::decode_value(c.name, "hex:" + raw, error), v);
	}
	Bytes shadow(2048, 0);
	shadow[5] = 0xab;
	EXPECT_EQ(ucfg::render_value("usershadow", shadow, ucfg::Show::kHuman).out,
		  "1 of 2048 bytes set (secret: --raw prints them in hex)\n");
	std::string error;
	EXPECT_FALSE(ucfg::check_value_length("ssh_status", 2, error));
	EXPECT_FALSE(ucfg::check_value_length("my_item", 32769, error));
	EXPECT_TRUE(ucfg::check_value_length("my_item", 32768, error));
}

TEST(Args, RefusedBeforeTheNodeIsOpened)
{
	const std::vector<std::vector<std::string>> refused = {
		{}, {"fetch", "x"}, {"get"}, {"get", "a", "b"}, {"set", "x"},
		{"get", std::string(33, 'n')}, {"get", ""}, {"get", "-d", "one", "x"},
		{"get", "--raw", "--text", "x"}, {"get", "--text", "ssh_status"},
		{"clear", "-o", "f", "x"}, {"boot-cfg", "-d", "1"}, {"get", "--frobnicate", "x"},
		{"get", "--json", "x"}, {"list", "--size", "5"}, {"get", "bad\\xq"},
		{"status", "--size", "32769"},
	};
	for (const auto &args : refused) {
		FakeDevice dev;
		Outcome r = run(dev, args);
		EXPECT_EQ(r.rc, ucfg::kExitUsage) << testing::PrintToString(args);
		EXPECT_EQ(dev.opens, 0);
		EXPECT_NE(r.err.find("--help"), std::string::npos);
	}
	std::string error;
	auto o = ucfg::parse_args({"get", "--device-node=/n", "-d", "1", "--raw", "a\\x01b"}, error);
	ASSERT_TRUE(o) << error;
	EXPECT_EQ(o->name, std::string("a\x01" "b"));
	EXPECT_EQ(o->node, "/n");
	EXPECT_EQ(ucfg::parse_args({"set", "--", "n", "-text"}, error)->value, "-text");
	FakeDevice dev;
	EXPECT_EQ(run(dev, {"--version"}).out, std::string("ucfg ") + ucfg::kVersion + "\n");
}

TEST(Requests, RecordsTheDriverNeeds)
{
	FakeDevice dev;
	dev.reply = Bytes(1024, 1);
	ASSERT_EQ(run(dev, {"get", "-d", "1", "ccpu_usr_cert_hash"}).rc, 0);
	EXPECT_EQ(dev.last.buf_size, 1024u);	// a static item: exactly its length
	EXPECT_EQ(dev.last.device_id, 1u);
	dev.reply = {'h', 'i', 0, 0};
	dev.new_size = 2;
	Outcome r = run(dev, {"get", "--text", "greeting"});
	EXPECT_EQ(r.out, "hi\n");
	EXPECT_EQ(dev.last.buf_size, ucfg::kDynamicMax);	// then the content length
	ASSERT_EQ(run(dev, {"set", "cpu_num_cfg", "1,2,4"}).rc, 0);
	EXPECT_EQ(ucfg::hex_string(dev.sent), "010204" + std::string(26, '0'));
	const std::string name(32, 'k');
	ASSERT_EQ(run(dev, {"clear", name}).rc, 0);
	EXPECT_EQ(std::string(dev.last.name, 32), name);	// no terminating zero
	EXPECT_EQ(dev.last.buf, 0u);
	struct Case {
		long ret;
		int err, exit;
		const char *says;
	};
	for (const Case &c : {Case{-1, ENOENT, ucfg::kExitNotSet, "never set"},
			      Case{-1, EACCES, ucfg::kExitRefused, "whitelisted"},
			      Case{12, 0, ucfg::kExitRefused, "could not copy 12 bytes"}}) {
		dev.result = {c.ret, c.err};
		r = run(dev, {"get", "x"});
		EXPECT_EQ(r.rc, c.exit);
		EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
	}
	dev.result = {};
	dev.reply = {32, 0, 0, 0};
	EXPECT_NE(run(dev, {"boot-cfg"}).out.find("bit 5"), std::string::npos);
}

const char kView[] = "device 1\nhead main valid\nhead backup bad-check\nin_use main\n"
		     "copies differ\nstatic cpu_num_cfg default 16\nstatic p2p_mem_cfg set 4\n"
		     "static ddr_ecc_enable default 1\nstatic ccpu_usr_cert_hash default 1024\n"
		     "static usershadow default 2048\nstatic ssh_status set 1\n"
		     "item 0 ok bad size=100 block=2 offset=0 name=a\\x20b\\xff\n"
		     "record 1 free\ntable records=2 in_use=1 free=1 room=1098\n"
		     "block 2 in_use=1 used=65400 live=40000\nblock 3 in_use=1 used=65535 live=65535\n"
		     "space blocks=2 live=65667 dead=65268 free=135 largest=103\n";

TEST(View, ListStatusAndJson)
{
	FakeDevice dev;
	dev.view = kView;
	Outcome r = run(dev, {"list", "-d", "1", "--view-dir", "/v"});
	EXPECT_EQ(dev.view_path, "/v/dev1");
	EXPECT_NE(r.out.find("a\\x20b\\xff"), std::string::npos) << r.out;
	EXPECT_NE(r.out.find("p2p_mem_cfg          set"), std::string::npos) << r.out;
	r = run(dev, {"status", "--size", "5000"});
	EXPECT_NE(r.out.find("damaged"), std::string::npos);
	EXPECT_NE(r.out.find("backup copy damaged"), std::string::npos);
	EXPECT_NE(r.out.find("needs the content blocks compacted first"), std::string::npos);
	nlohmann::json j = nlohmann::json::parse(run(dev, {"list", "--json"}).out);
	EXPECT_EQ(j["items"][0]["name"], nullptr);	// not UTF-8: bytes in name_hex
	EXPECT_EQ(j["items"][0]["name_hex"], "612062ff");
	EXPECT_EQ(j["space"]["largest_without_rebuild"], 103);
	EXPECT_EQ(j["health"]["problems"].size(), 2u);
	std::string error;
	auto v = ucfg::parse_view(kView, error);
	ASSERT_TRUE(v) << error;
	EXPECT_EQ(v->fits(100), "fits without compacting");
	EXPECT_EQ(v->fits(32000), "does not fit, not even after compacting");
	EXPECT_FALSE(ucfg::parse_view("item 0 ok ok size=x\n", error));
	dev.view.clear();
	EXPECT_EQ(run(dev, {"status"}).rc, ucfg::kExitNoDevice);
}

} // namespace
