// SPDX-License-Identifier: GPL-2.0
//
// The offline image tool run as a program on images the module wrote: one JSON
// for an image and the live store, damage repaired, writes read back, refusals.
#include "oracle.h"
#include "ucfg.h"
#include "view.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/wait.h>

namespace {

using namespace ucfg;
namespace fl = tb::flash;

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
		fresh();
	}
	void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

	// A new bed with device 0 holding static and named items, a 32-byte
	// name, one of the longest values and the dead slot of a cleared one.
	static void fresh()
	{
		tb::reset();
		tb::task::set(tb::task::daemon());
		ASSERT_EQ(set(0, "ssh_status", {1}), 0);
		ASSERT_EQ(set(0, std::string(32, 'n'), pattern(300, 1)), 0);
		ASSERT_EQ(set(0, "x\x01y", pattern(32768, 2)), 0);
		ASSERT_EQ(set(0, "gone", pattern(50, 3)), 0);
		ASSERT_EQ(clear(0, "gone"), 0);
	}
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
	// Device 0's area of the bed written into a file of size bytes at at.
	void save(const std::string &name, std::size_t size, std::size_t at)
	{
		std::string bytes(size, '\xff');
		std::memcpy(bytes.data() + at, fl::at(0, 0), fl::kArea);
		std::ofstream(path(name), std::ios::binary) << bytes;
	}
	void load(const std::string &name)
	{
		std::string bytes = slurp(path(name));
		ASSERT_EQ(bytes.size(), fl::kArea);
		std::memcpy(fl::at(0, 0), bytes.data(), fl::kArea);
	}
	std::string dir_;
};

// An area, a whole flash with the area at 0xA40000, and the second of two
// devices in one file (the first erased): the tool says what the module's
// own view of the live store says.
TEST_F(Image, DescribesWhatTheModuleSees)
{
	save("area.img", fl::kArea, 0);
	save("flash.img", 16 << 20, 0xA40000);
	save("two.img", 2 * fl::kArea, fl::kArea);
	std::string error;
	auto v = parse_view(view_text(0), error);
	ASSERT_TRUE(v) << error;
	const std::pair<std::string, const char *> files[] = {
		{"", "area.img"}, {"", "flash.img"}, {"--devices 2 -d 1 ", "two.img"}};
	for (const auto &[options, file] : files) {
		Outcome r = run("inspect --json " + options + path(file));
		ASSERT_EQ(r.rc, 0) << r.err;
		EXPECT_EQ(nlohmann::ordered_json::parse(r.out), to_json(*v)) << file;
	}
	Outcome r = run("get --raw " + path("area.img") + " " + std::string(32, 'n'));
	EXPECT_EQ(r.out, hex_string(pattern(300, 1)) + "\n") << r.err;
}

// Damage in one copy is found where it was made and repaired as a device
// repairs it on its next accesses; the module then reads every item.
TEST_F(Image, DamageFoundAndRepaired)
{
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
		fresh();
		fl::at(0, c.blk)[c.at] ^= 0x10;
		save("d.img", fl::kArea, 0);
		Outcome r = run("verify " + path("d.img"));
		EXPECT_EQ(r.rc, 6);
		EXPECT_NE(r.out.find(c.problem), std::string::npos) << r.out;
		EXPECT_EQ(run("repair " + path("d.img")).rc, c.after);
		EXPECT_EQ(run("verify " + path("d.img")).rc, c.after);
		load("d.img");
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
	load("new.img");
	EXPECT_EQ(get(0, "greeting", 100), (Res{0, {'h', 'e', 'l', 'l', 'o'}}));
	EXPECT_EQ(get(0, "cpu_num_cfg", 16).data[2], 4);
	std::ofstream(path("short.img"), std::ios::binary) << std::string(1000, 'x');
	const std::pair<std::string, int> refused[] = {
		{"inspect " + path("short.img"), 2},
		{"inspect " + path("missing.img"), 2},
		{"inspect --devices 3 " + path("new.img"), 2},
		{"set " + path("new.img") + " ssh_status maybe", 5},
		{"create " + path("new.img"), 1},
		{"frobnicate " + path("new.img"), 1},
		{"get " + path("new.img") + " " + std::string(33, 'n'), 1},
		{"get " + path("new.img") + " never", 4},
	};
	for (const auto &[args, rc] : refused)
		EXPECT_EQ(run(args).rc, rc) << args;
}

} // namespace
