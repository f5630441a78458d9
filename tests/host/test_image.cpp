// SPDX-License-Identifier: GPL-2.0
//
// The offline image tool, run as a program on images the module's code
// wrote in the test bed: it must describe an image exactly as the module's
// view describes the live store (one JSON for both), find damage where it
// was made and repair what a device would, write what the module reads
// back, and refuse files that are no image.
#include "oracle.h"
#include "ucfg.h"
#include "view.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace ucfg;
namespace fl = tb::flash;
using json = nlohmann::ordered_json;
constexpr std::size_t kAreaAt = 0xA40000;

struct Outcome {
	int rc;
	std::string out, err;
};

class Image : public ::testing::Test {
protected:
	void SetUp() override
	{
		char tmpl[] = "/tmp/ucfg-image-test-XXXXXX";
		dir_ = mkdtemp(tmpl);
		tb::reset();
		tb::task::set(tb::task::daemon());
	}
	void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

	std::string path(const std::string &n) const { return dir_ + "/" + n; }
	Outcome run(const std::string &args) const
	{
		std::string o = path("out"), e = path("err");
		int st = std::system((std::string(UCFG_IMAGE_TOOL) + " " + args + " >" + o + " 2>" + e)
					     .c_str());
		return {WIFEXITED(st) ? WEXITSTATUS(st) : 128, slurp(o), slurp(e)};
	}
	static std::string slurp(const std::string &p)
	{
		std::ifstream f(p, std::ios::binary);
		return std::string(std::istreambuf_iterator<char>(f), {});
	}
	// Device dev's area of the bed written into a file at offset at.
	void save(const std::string &name, u32 dev, std::size_t size, std::size_t at)
	{
		std::string bytes(size, '\xff');
		std::memcpy(bytes.data() + at, fl::at(dev, 0), fl::kArea);
		std::ofstream(path(name), std::ios::binary) << bytes;
	}
	void load(const std::string &name, u32 dev, std::size_t at)
	{
		std::string bytes = slurp(path(name));
		ASSERT_GE(bytes.size(), at + fl::kArea);
		std::memcpy(fl::at(dev, 0), bytes.data() + at, fl::kArea);
	}
	json live(u32 dev)
	{
		std::string error;
		auto v = parse_view(view_text(dev), error);
		EXPECT_TRUE(v) << error;
		return v ? to_json(*v) : json();
	}
	std::string dir_;
};

void fill(u32 dev)
{
	ASSERT_EQ(set(dev, "ssh_status", {1}), 0);
	ASSERT_EQ(set(dev, std::string(32, 'n'), pattern(300, 1)), 0);
	ASSERT_EQ(set(dev, "x\x01y", pattern(32768, 2)), 0);
	ASSERT_EQ(set(dev, "gone", pattern(50, 3)), 0);
	ASSERT_EQ(clear(dev, "gone"), 0);
}

// An area, a whole flash, and the second of two devices in one file: the
// tool says what the module's own view of the live store says.
TEST_F(Image, DescribesWhatTheModuleSees)
{
	fill(0);
	fill(1);
	ASSERT_EQ(set(1, "other", pattern(9, 4)), 0);
	save("area.img", 0, fl::kArea, 0);
	save("flash.img", 0, 16 << 20, kAreaAt);
	std::string two = slurp(path("area.img"));
	save("dev1.img", 1, fl::kArea, 0);
	std::ofstream(path("two.img"), std::ios::binary) << two << slurp(path("dev1.img"));
	const std::pair<const char *, u32> files[] = {
		{"area.img", 0}, {"flash.img", 0}, {"--devices 2 -d 1 two.img", 1}};
	for (const auto &[args, dev] : files) {
		std::string a = args;
		std::size_t sp = a.rfind(' ');
		a = sp == std::string::npos ? path(a) : a.substr(0, sp + 1) + path(a.substr(sp + 1));
		Outcome r = run("inspect --json " + a);
		ASSERT_EQ(r.rc, 0) << r.err;
		json got = json::parse(r.out), want = live(dev);
		want["device"] = 0;	// the tool numbers the device in the file
		EXPECT_EQ(got, want) << args;
		EXPECT_EQ(run("verify " + a).rc, 0);
	}
	Outcome r = run("get --raw " + path("area.img") + " 'x\\x01y'");
	EXPECT_EQ(r.out, hex_string(pattern(32768, 2)) + "\n") << r.err;
}

// Damage in one copy is found where it was made and repaired as a device
// repairs it on its next accesses; the module then reads every item.
TEST_F(Image, DamageFoundAndRepaired)
{
	fill(0);
	struct Case {
		u32 blk, at;
		const char *problem;
		int after;	// verify after repair
	};
	const Case cases[] = {
		{0, 5000, "head block 0: bad-check", 0},
		{32, 65533, "head block 32: no-marker", 0},
		{2, 10, "main copy damaged", 0},
		{34, 10, "backup copy damaged", 6},	// left for the next write
	};
	for (const Case &c : cases) {
		tb::reset();
		tb::task::set(tb::task::daemon());
		fill(0);
		fl::at(0, c.blk)[c.at] ^= 0x10;
		save("d.img", 0, fl::kArea, 0);
		Outcome r = run("verify " + path("d.img"));
		EXPECT_EQ(r.rc, 6);
		EXPECT_NE(r.out.find(c.problem), std::string::npos) << r.out;
		EXPECT_EQ(run("repair " + path("d.img")).rc, c.after);
		EXPECT_EQ(run("verify " + path("d.img")).rc, c.after);
		load("d.img", 0, 0);
		EXPECT_EQ(get(0, std::string(32, 'n'), 300), (Res{0, pattern(300, 1)}));
		EXPECT_EQ(get(0, "ssh_status", 1), (Res{0, {1}}));
	}
}

TEST_F(Image, WritesTheModuleReadsAndRefusesNonImages)
{
	ASSERT_EQ(run("create --init " + path("new.img")).rc, 0);
	ASSERT_EQ(run("set " + path("new.img") + " greeting text:hello").rc, 0);
	ASSERT_EQ(run("set " + path("new.img") + " cpu_num_cfg 1,2,4").rc, 0);
	ASSERT_EQ(run("clear " + path("new.img") + " ssh_status").rc, 0);
	load("new.img", 0, 0);
	EXPECT_EQ(get(0, "greeting", 100), (Res{0, {'h', 'e', 'l', 'l', 'o'}}));
	EXPECT_EQ(get(0, "cpu_num_cfg", 16).data[2], 4);
	EXPECT_EQ(run("get " + path("new.img") + " never").rc, 4);
	std::ofstream(path("short.img"), std::ios::binary) << std::string(1000, 'x');
	const std::pair<std::string, int> refused[] = {
		{"inspect " + path("short.img"), 2},
		{"inspect " + path("missing.img"), 2},
		{"inspect --devices 3 " + path("new.img"), 2},
		{"set " + path("new.img") + " ssh_status maybe", 5},
		{"create " + path("new.img"), 1},
		{"frobnicate " + path("new.img"), 1},
		{"get " + path("new.img") + " " + std::string(33, 'n'), 1},
	};
	for (const auto &[args, rc] : refused)
		EXPECT_EQ(run(args).rc, rc) << args;
	EXPECT_EQ(run("--version").out, std::string("ucfg-image ") + kVersion + "\n");
	EXPECT_NE(run("--help").out.find("Usage: ucfg-image [OPTIONS] COMMAND IMAGE"),
		  std::string::npos);
}

} // namespace
