// SPDX-License-Identifier: GPL-2.0
//
// Unit tests of ucfg: values, explanations and the command line, and the
// requests it sends, through a fake device that records them.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "uapi/user_cfg.h"
#include "ucfg.h"

using ucfg::Bytes;

namespace {

Bytes hex(const std::string &s)
{
	std::string error;
	auto v = ucfg::decode_value("any_dynamic", "hex:" + s, error);
	EXPECT_TRUE(v) << error;
	return v.value_or(Bytes{});
}

// Stands in for /dev/user_config: records every request and answers as told.
struct FakeDevice : ucfg::Transport {
	int open_errno = 0;
	int opens = 0;
	std::string node;
	std::vector<unsigned long> requests;
	user_cfg_para last{};
	Bytes sent;                            // the buffer of a set
	ucfg::IoctlResult result;              // what every ioctl returns
	Bytes reply;                           // written to the caller's buffer
	std::optional<std::uint32_t> new_size; // written to buf_size after a get

	int open(const std::string &path) override
	{
		opens++;
		node = path;
		return open_errno;
	}
	ucfg::IoctlResult ioctl(unsigned long request, void *arg) override
	{
		requests.push_back(request);
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
			std::memcpy(buf, reply.data(),
				    std::min<std::size_t>(reply.size(), rec->buf_size));
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

std::string temp_path(const char *tag)
{
	return testing::TempDir() + "ucfg_" + tag + "_" +
	       testing::UnitTest::GetInstance()->current_test_info()->name();
}

// --- Values ------------------------------------------------------------------

struct Accepted {
	const char *name, *input, *bytes, *shown;
};

TEST(Values, AcceptedFormsGiveBytesAndReadBack)
{
	const std::string cpu = "010204" + std::string(26, '0');
	const Accepted cases[] = {
	    {"ssh_status", "on", "01", "on (1)\n"},
	    {"ssh_status", "0", "00", "off (0)\n"},
	    {"ddr_ecc_enable", "off", "00", "off (0)\n"},
	    {"ddr_ecc_enable", "hex:01", "01", "on (1)\n"},
	    {"cpu_num_cfg", "1,2,4", cpu.c_str(), "control 1, data 2, AI 4\n"},
	    {"cpu_num_cfg", " 1, 2 ,4", cpu.c_str(), "control 1, data 2, AI 4\n"},
	    {"p2p_mem_cfg", "1024", "00040000", "1024 (0x00000400)\n"},
	    // The hex form that get prints reads back as the same number.
	    {"p2p_mem_cfg", "0x00000400", "00040000", "1024 (0x00000400)\n"},
	    {"p2p_mem_cfg", "4294967295", "ffffffff", "4294967295 (0xffffffff)\n"},
	    {"p2p_mem_cfg", "hex:04000000", "04000000", "4 (0x00000004)\n"},
	    {"my_item", "text:hi there", "6869207468657265", nullptr},
	    {"my_item", "hex:0a:0B ff", "0a0bff", nullptr},
	    {"my_item", "0X0a0b", "0a0b", nullptr},
	};
	for (const Accepted &c : cases) {
		SCOPED_TRACE(std::string(c.name) + " " + c.input);
		std::string error;
		auto v = ucfg::decode_value(c.name, c.input, error);
		ASSERT_TRUE(v) << error;
		EXPECT_EQ(ucfg::hex_string(*v), c.bytes);
		EXPECT_TRUE(ucfg::check_value_length(c.name, v->size(), error)) << error;
		if (c.shown) {
			EXPECT_EQ(ucfg::render_value(c.name, *v, ucfg::Show::kHuman).out, c.shown);
		}
		// --raw prints what hex: takes back.
		std::string raw = ucfg::render_value(c.name, *v, ucfg::Show::kRaw).out;
		EXPECT_EQ(raw, std::string(c.bytes) + "\n");
		EXPECT_EQ(ucfg::decode_value(c.name, "hex:" + raw, error), v);
	}
}

TEST(Values, MalformedValuesAndWrongLengthsAreRefused)
{
	struct Refused {
		const char *name, *input, *why;
	};
	const Refused malformed[] = {
	    {"ssh_status", "2", "on or off"},        {"ssh_status", "yes", "on or off"},
	    {"cpu_num_cfg", "1,2", "ctrl,data,ai"},  {"cpu_num_cfg", "1,2,3,4", "ctrl,data,ai"},
	    {"cpu_num_cfg", "1,256,3", "0 to 255"},  {"cpu_num_cfg", "1,,3", "ctrl,data,ai"},
	    {"p2p_mem_cfg", "4294967296", "number"}, {"p2p_mem_cfg", "-1", "number"},
	    {"p2p_mem_cfg", "0x", "number"},         {"usershadow", "on", "hex:"},
	    {"my_item", "hello", "text:"},           {"my_item", "hex:abc", "odd"},
	    {"my_item", "hex:a b", "two digits"},    {"my_item", "0xzz", "not a hex digit"},
	};
	for (const Refused &c : malformed) {
		std::string error;
		EXPECT_FALSE(ucfg::decode_value(c.name, c.input, error))
		    << c.name << " " << c.input;
		EXPECT_NE(error.find(c.why), std::string::npos) << c.input << ": " << error;
	}

	struct Length {
		const char *name;
		std::size_t n;
		bool ok;
	};
	const Length lengths[] = {
	    {"ssh_status", 1, true},
	    {"ssh_status", 2, false},
	    {"cpu_num_cfg", 3, false},
	    {"cpu_num_cfg", 16, true},
	    {"usershadow", 2048, true},
	    {"usershadow", 2047, false},
	    {"my_item", 0, false},
	    {"my_item", 1, true},
	    {"my_item", 32768, true},
	    {"my_item", 32769, false},
	    {"ccpu_usr_cert_hash", 1024, true},
	};
	for (const Length &c : lengths) {
		std::string error;
		EXPECT_EQ(ucfg::check_value_length(c.name, c.n, error), c.ok)
		    << c.name << " " << c.n;
		if (!c.ok) {
			EXPECT_NE(error.find(std::to_string(c.n)), std::string::npos) << error;
		}
	}
}

TEST(Values, RenderingOfOddAndSecretValues)
{
	auto show = [](const char *name, const Bytes &v, ucfg::Show s) {
		return ucfg::render_value(name, v, s);
	};
	// The driver stores switch values unchecked: show them, with a note.
	auto odd = show("ssh_status", {7}, ucfg::Show::kHuman);
	EXPECT_EQ(odd.out, "7\n");
	EXPECT_NE(odd.note.find("neither"), std::string::npos);

	Bytes cpu(16, 0);
	cpu[0] = 3;
	cpu[15] = 9;
	EXPECT_NE(show("cpu_num_cfg", cpu, ucfg::Show::kHuman).note.find("09"), std::string::npos);

	// A secret shows how much of it is set, never its bytes, unless --raw.
	Bytes shadow(2048, 0);
	shadow[5] = 0xab;
	shadow[6] = 0xcd;
	auto human = show("usershadow", shadow, ucfg::Show::kHuman);
	EXPECT_EQ(human.out, "2 of 2048 bytes set (secret: --raw prints them in hex)\n");
	EXPECT_EQ(show("usershadow", shadow, ucfg::Show::kRaw).out.substr(10, 4), "abcd");

	EXPECT_EQ(show("note", hex("6869"), ucfg::Show::kText).out, "hi\n");
	EXPECT_EQ(show("note", hex("68690a"), ucfg::Show::kText).out, "hi\n");
	auto binary = show("note", hex("0001"), ucfg::Show::kText);
	EXPECT_EQ(binary.out, ucfg::hex_dump(hex("0001")));
	EXPECT_FALSE(binary.note.empty());

	// Identical lines collapse; the last line is the length.
	Bytes cert(1024, 0);
	cert[1] = 'A';
	EXPECT_EQ(ucfg::hex_dump(cert),
		  "00000000  00 41 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |.A..............|\n"
		  "00000010  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
		  "*\n"
		  "00000400\n");
	EXPECT_EQ(ucfg::hex_dump(hex("41424344454647484950")),
		  "00000000  41 42 43 44 45 46 47 48  49 50                    |ABCDEFGHIP|\n"
		  "0000000a\n");
}

// --- Errors ------------------------------------------------------------------

TEST(Errors, EveryDriverResultIsExplainedWithItsExitCode)
{
	struct Case {
		int err, exit;
		const char *says;
	};
	const Case cases[] = {
	    {EACCES, 3, "CAP_SYS_ADMIN"},   {ENOENT, 4, "never set"},  {EINVAL, 3, "device count"},
	    {ENOSPC, 3, "item table full"}, {ENXIO, 3, "both copies"}, {ENODEV, 3, "board id"},
	    {ENOMEM, 3, "memory"},          {ENODATA, 3, "SHA-256"},   {EDOM, 3, "one flash copy"},
	    {ENOTTY, 3, "64-bit"},          {EIO, 3, "kernel log"},
	};
	for (const Case &c : cases) {
		std::string text = ucfg::explain_request_errno(c.err);
		EXPECT_NE(text.find(c.says), std::string::npos) << text;
		EXPECT_EQ(ucfg::exit_code_for_errno(c.err), c.exit) << text;
	}
	EXPECT_NE(ucfg::explain_open_errno(ENOENT, "/dev/x").find("module loaded"),
		  std::string::npos);
	EXPECT_NE(ucfg::explain_open_errno(EACCES, "/dev/x").find("run as root"),
		  std::string::npos);
}

// --- Command line --------------------------------------------------------------

TEST(Args, AcceptedCommandLines)
{
	std::string error;
	auto o = ucfg::parse_args({"--device-node=/tmp/n", "get", "-d", "1", "--raw", "x"}, error);
	ASSERT_TRUE(o) << error;
	EXPECT_EQ(o->command, ucfg::Command::kGet);
	EXPECT_EQ(o->node, "/tmp/n");
	EXPECT_EQ(o->device, 1u);
	EXPECT_TRUE(o->raw);
	EXPECT_EQ(o->name, "x");

	o = ucfg::parse_args({"set", "--device", "0", "--", "n", "-text"}, error);
	ASSERT_TRUE(o) << error;
	EXPECT_EQ(o->value, "-text");
	EXPECT_EQ(ucfg::parse_args({"get", "-o", "f", std::string(32, 'n')}, error)->out_file, "f");
	EXPECT_EQ(ucfg::parse_args({"boot-cfg", "--help"}, error)->command, ucfg::Command::kHelp);
	EXPECT_EQ(ucfg::parse_args({"--version"}, error)->command, ucfg::Command::kVersion);
}

TEST(Args, RefusedCommandLinesExitWithUsageBeforeOpening)
{
	const std::vector<std::vector<std::string>> refused = {
	    {},
	    {"fetch", "x"},
	    {"get"},
	    {"get", "a", "b"},
	    {"set", "x"},
	    {"get", std::string(33, 'n')},
	    {"get", ""},
	    {"get", "-d", "one", "x"},
	    {"get", "-d", "4294967296", "x"},
	    {"get", "-d"},
	    {"get", "--raw", "--text", "x"},
	    {"get", "--text", "ssh_status"},
	    {"set", "--raw", "x", "text:a"},
	    {"clear", "-o", "f", "x"},
	    {"boot-cfg", "-d", "1"},
	    {"dts-cpu", "extra"},
	    {"get", "--frobnicate", "x"},
	    {"get", "--raw=1", "x"},
	};
	for (const auto &args : refused) {
		FakeDevice dev;
		Outcome r = run(dev, args);
		EXPECT_EQ(r.rc, ucfg::kExitUsage) << testing::PrintToString(args);
		EXPECT_EQ(dev.opens, 0);
		EXPECT_NE(r.err.find("--help"), std::string::npos);
	}
}

// --- Requests ------------------------------------------------------------------

TEST(Requests, StaticGetAsksForExactlyTheValueLength)
{
	const std::pair<const char *, std::uint32_t> items[] = {
	    {"cpu_num_cfg", 16},          {"p2p_mem_cfg", 4},   {"ddr_ecc_enable", 1},
	    {"ccpu_usr_cert_hash", 1024}, {"usershadow", 2048}, {"ssh_status", 1},
	};
	for (auto [name, length] : items) {
		FakeDevice dev;
		dev.reply = Bytes(length, 1);
		Outcome r = run(dev, {"get", "-d", "1", "--device-node", "/n", name});
		EXPECT_EQ(r.rc, 0) << name << r.err;
		EXPECT_EQ(dev.node, "/n");
		ASSERT_EQ(dev.requests, std::vector<unsigned long>{USER_CFG_IOC_ITEM});
		EXPECT_EQ(dev.last.buf_size, length) << name;
		EXPECT_EQ(dev.last.cmd, USER_CFG_CMD_GET);
		EXPECT_EQ(dev.last.device_id, 1u);
		EXPECT_STREQ(dev.last.name, name);
		EXPECT_NE(dev.last.buf, 0u);
	}
}

TEST(Requests, DynamicGetTakesTheLengthFromTheRecord)
{
	FakeDevice dev;
	dev.reply = hex("68656c6c6f00ffff");
	dev.new_size = 5;
	Outcome r = run(dev, {"get", "--text", "greeting"});
	EXPECT_EQ(r.rc, 0) << r.err;
	EXPECT_EQ(dev.last.buf_size, ucfg::kDynamicMax);
	EXPECT_EQ(r.out, "hello\n");

	const std::string path = temp_path("out");
	r = run(dev, {"get", "-o", path, "greeting"});
	EXPECT_EQ(r.rc, 0) << r.err;
	EXPECT_EQ(r.out, "");
	std::ifstream f(path, std::ios::binary);
	EXPECT_EQ(std::string(std::istreambuf_iterator<char>(f), {}), "hello");
	std::remove(path.c_str());

	EXPECT_EQ(run(dev, {"get", "-o", "/nonexistent/dir/f", "greeting"}).rc, ucfg::kExitValue);

	// A length beyond the buffer offered is the driver's fault, not data.
	dev.new_size = ucfg::kDynamicMax + 1;
	EXPECT_EQ(run(dev, {"get", "greeting"}).rc, ucfg::kExitRefused);
}

TEST(Requests, SetAndClearSendTheValueTheDriverNeeds)
{
	FakeDevice dev;
	ASSERT_EQ(run(dev, {"set", "cpu_num_cfg", "1,2,4"}).rc, 0);
	EXPECT_EQ(dev.last.cmd, USER_CFG_CMD_SET);
	EXPECT_EQ(dev.last.buf_size, 16u);
	EXPECT_EQ(dev.sent, hex("010204" + std::string(26, '0')));

	const std::string path = temp_path("in");
	std::ofstream(path, std::ios::binary) << std::string("a\0b", 3);
	ASSERT_EQ(run(dev, {"set", "blob", "@" + path}).rc, 0);
	EXPECT_EQ(dev.sent, hex("610062"));
	std::remove(path.c_str());

	// A 32-byte name fills the field with no terminating zero.
	const std::string name(32, 'k');
	ASSERT_EQ(run(dev, {"clear", "-d", "1", name}).rc, 0);
	EXPECT_EQ(dev.last.cmd, USER_CFG_CMD_CLEAR);
	EXPECT_EQ(std::string(dev.last.name, 32), name);
	EXPECT_EQ(dev.last.buf, 0u);
	EXPECT_EQ(dev.last.buf_size, 0u);

	// Bad values stop before the node is opened.
	for (const char *value : {"hex:0102", "@/nonexistent/value", "maybe"}) {
		FakeDevice fresh;
		Outcome r = run(fresh, {"set", "ssh_status", value});
		EXPECT_EQ(r.rc, ucfg::kExitValue) << value;
		EXPECT_EQ(fresh.opens, 0);
	}
}

TEST(Requests, ExitCodesFollowTheDriverResult)
{
	struct Case {
		long ret;
		int err, exit;
		const char *says;
	};
	const Case cases[] = {
	    {-1, ENOENT, ucfg::kExitNotSet, "never set"},
	    {-1, EACCES, ucfg::kExitRefused, "whitelisted"},
	    {-1, EINVAL, ucfg::kExitRefused, "bad request"},
	    {12, 0, ucfg::kExitRefused, "could not copy 12 bytes"},
	    {-5, 0, ucfg::kExitRefused, "unexpected result -5"},
	};
	for (const Case &c : cases) {
		for (auto args : std::vector<std::vector<std::string>>{
			 {"get", "x"}, {"set", "x", "text:a"}, {"clear", "x"}, {"dts-cpu"}}) {
			FakeDevice dev;
			dev.result = {c.ret, c.err};
			dev.reply = Bytes(12, 0);
			Outcome r = run(dev, args);
			EXPECT_EQ(r.rc, c.exit) << args[0] << " " << c.ret << " " << c.err;
			EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
			EXPECT_EQ(r.out, "");
		}
	}
	FakeDevice absent;
	absent.open_errno = ENOENT;
	Outcome r = run(absent, {"boot-cfg"});
	EXPECT_EQ(r.rc, ucfg::kExitNoDevice);
	EXPECT_NE(r.err.find("/dev/user_config"), std::string::npos);
	EXPECT_TRUE(absent.requests.empty());
}

TEST(Requests, DeviceQueries)
{
	FakeDevice dev;
	dev.reply = {32, 0, 0, 0};
	EXPECT_EQ(run(dev, {"boot-cfg"}).out, "set (32)\n");
	dev.reply = {0, 0, 0, 0};
	EXPECT_EQ(run(dev, {"boot-cfg"}).out, "clear (0)\n");
	dev.reply = {2, 0, 0, 0, 3, 0, 0, 0, 0, 1, 0, 0};
	EXPECT_EQ(run(dev, {"dts-cpu"}).out, "control 2, data 3, AI 256\n");
	EXPECT_EQ(dev.requests, (std::vector<unsigned long>{0x80044302, 0x80044302, 0x80044304}));
}

} // namespace
