// SPDX-License-Identifier: GPL-2.0
//
// The offline image tool, run as a program on images that the module's own
// code wrote in the test bed: what it reports must be what was written, what
// it writes must read back through the module, damage must be found where it
// was made and repaired as far as a device would repair it, and no file,
// however broken, may crash it.
//
// Expectations come from what the test wrote and damaged, never from the
// tool's own output fed back.
#include "testbed.h"

extern "C" {
#include <drv_user_cfg.h>
}

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/sha.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using json = nlohmann::json;

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::size_t kArea = 0x400000, kAreaAt = 0xA40000, kBlk = 0x10000;

struct Result {
	int rc;
	std::string out, err;
};

std::string slurp(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	return std::string(std::istreambuf_iterator<char>(f), {});
}

class Tool {
public:
	Tool()
	{
		char tmpl[] = "/tmp/ucfg-image-test-XXXXXX";
		dir_ = mkdtemp(tmpl);
	}
	~Tool() { std::system(("rm -rf '" + dir_ + "'").c_str()); }

	std::string path(const std::string &name) const { return dir_ + "/" + name; }

	Result run(const std::string &args) const
	{
		std::string o = path("out"), e = path("err");
		std::string cmd = std::string(UCFG_IMAGE_TOOL) + " " + args + " >" + o + " 2>" + e;
		int st = std::system(cmd.c_str());
		return {WIFEXITED(st) ? WEXITSTATUS(st) : 128, slurp(o), slurp(e)};
	}

	json inspect(const std::string &args) const
	{
		Result r = run("inspect --json " + args);
		EXPECT_EQ(r.rc, 0) << r.err;
		return json::parse(r.out);
	}

private:
	std::string dir_;
};

void write_file(const std::string &path, const Bytes &data)
{
	std::ofstream f(path, std::ios::binary | std::ios::trunc);
	f.write(reinterpret_cast<const char *>(data.data()), (std::streamsize)data.size());
}

Bytes read_file(const std::string &path)
{
	std::string s = slurp(path);
	return Bytes(s.begin(), s.end());
}

std::string hex(const Bytes &v)
{
	static const char d[] = "0123456789abcdef";
	std::string s;
	for (std::uint8_t c : v) {
		s += d[c >> 4];
		s += d[c & 15];
	}
	return s;
}

Bytes pattern(std::size_t n, unsigned seed)
{
	std::mt19937 rng(seed);
	Bytes v(n);
	for (auto &c : v)
		c = (std::uint8_t)rng();
	return v;
}

// Index of the first byte of needle in the main content blocks 2 to 31 of
// an area: where the module put a value, found without asking the tool.
std::size_t find_in_main_blocks(const Bytes &area, const Bytes &needle)
{
	auto begin = area.begin() + 2 * kBlk, end = area.begin() + 32 * kBlk;
	auto it = std::search(begin, end, needle.begin(), needle.end());
	return it == end ? std::string::npos : (std::size_t)(it - area.begin());
}

class Image : public tb::Fixture {
protected:
	// The store as a device leaves it: two static values, named items of
	// several sizes, one grown (its old slot is dead space), one removed.
	void populate()
	{
		u8 on = 1;
		u8 p2p[4] = {9, 0, 0, 0};
		ASSERT_EQ(hal_kernel_set_user_config(0, "ssh_status", &on, 1), 0);
		ASSERT_EQ(hal_kernel_set_user_config(0, "p2p_mem_cfg", p2p, 4), 0);
		items_ = {{"alpha", pattern(5, 1)},
			  {"bravo", pattern(1000, 2)},
			  {"charlie", pattern(32768, 3)},
			  {"delta", pattern(300, 4)},
			  {std::string(31, 'n'), pattern(77, 5)}};
		for (auto &[name, v] : items_)
			ASSERT_EQ(hal_kernel_set_user_config(0, name.c_str(), v.data(), (u32)v.size()),
				  0) << name;
		// delta grows: written anew, its 300 + 32 bytes left behind.
		items_["delta"] = pattern(700, 6);
		Bytes &d = items_["delta"];
		ASSERT_EQ(hal_kernel_set_user_config(0, "delta", d.data(), (u32)d.size()), 0);
		area_ = tb::flash::area(0);
	}

	// Every item as the module reads it from the area in the test bed.
	void expect_module_reads(const Bytes &area, const std::map<std::string, Bytes> &items)
	{
		tb::flash::load_area(0, area);
		for (const auto &[name, v] : items) {
			Bytes buf(32768);
			u32 len = 0;
			EXPECT_EQ(hal_kernel_get_user_config(0, name.c_str(), buf.data(),
							     (u32)buf.size(), &len), 0)
				<< name;
			buf.resize(len);
			EXPECT_EQ(buf, v) << name;
		}
	}

	Tool tool_;
	std::map<std::string, Bytes> items_;
	Bytes area_;
};

// What the module wrote, reported item by item, in each of the file
// shapes: the area alone, a whole flash, and the second device of two.
TEST_F(Image, ReportsWhatTheModuleWrote)
{
	populate();
	Bytes flash(0x1000000, 0xff);
	std::copy(area_.begin(), area_.end(), flash.begin() + kAreaAt);
	Bytes two(2 * kArea, 0xff);
	std::copy(area_.begin(), area_.end(), two.begin() + kArea);
	write_file(tool_.path("area.img"), area_);
	write_file(tool_.path("flash.img"), flash);
	write_file(tool_.path("two.img"), two);

	struct Shape {
		const char *layout, *options, *file;
	};
	const std::vector<Shape> shapes = {
		{"area", "", "area.img"},
		{"flash", "", "flash.img"},
		{"area", "--devices 2 --device 1 ", "two.img"},
	};
	for (const Shape &shape : shapes) {
		SCOPED_TRACE(shape.file);
		const std::string layout = shape.layout;
		const std::string a = shape.options + tool_.path(shape.file);
		json j = tool_.inspect(a);
		EXPECT_EQ(j["layout"], layout);
		EXPECT_TRUE(j["intact"]);
		EXPECT_FALSE(j["blank"]);
		EXPECT_EQ(j["blk_state"], 3);
		for (const json &h : j["heads"])
			EXPECT_TRUE(h["valid"]) << h;

		std::map<std::string, json> statics;
		for (const json &s : j["static"])
			statics[s["name"]] = s;
		EXPECT_TRUE(statics["ssh_status"]["stored"]);
		EXPECT_EQ(statics["ssh_status"]["value"], "01");
		EXPECT_EQ(statics["p2p_mem_cfg"]["value"], "09000000");
		EXPECT_FALSE(statics["ddr_ecc_enable"]["stored"]);
		EXPECT_EQ(statics["ddr_ecc_enable"]["value"], "01"); // its default

		std::map<std::string, json> dyn;
		for (const json &d : j["dynamic"])
			dyn[d["name"]] = d;
		ASSERT_EQ(dyn.size(), items_.size());
		std::uint64_t live = 0;
		for (const auto &[name, v] : items_) {
			ASSERT_TRUE(dyn.count(name)) << name;
			EXPECT_EQ(dyn[name]["size"], v.size()) << name;
			EXPECT_EQ(dyn[name]["main"], "ok") << name;
			EXPECT_EQ(dyn[name]["backup"], "ok") << name;
			live += v.size() + 32;
		}
		EXPECT_EQ(j["head_len"], 52 * items_.size());
		// The grown item's first slot is the only dead space.
		EXPECT_EQ(j["dead_bytes"], 300 + 32);
		std::uint64_t used = 0;
		for (const json &u : j["usage"])
			used += u["used_bytes"].get<std::uint64_t>();
		EXPECT_EQ(used, live + 300 + 32);
		EXPECT_EQ(j["free_bytes"], 30ULL * 65535 - used);

		Result v = tool_.run("verify " + a);
		EXPECT_EQ(v.rc, 0) << v.out << v.err;
		for (const auto &[name, val] : items_) {
			Result g = tool_.run("get --raw " + a + " " + name);
			EXPECT_EQ(g.rc, 0) << name << g.err;
			EXPECT_EQ(g.out, hex(val) + "\n") << name;
		}
	}
	// A get changes nothing.
	EXPECT_EQ(read_file(tool_.path("area.img")), area_);
}

// Damage where a device can suffer it; what verify, inspect and repair make
// of it, and what the module then reads from the repaired image.
TEST_F(Image, FindsDamageAndRepairsAsTheDeviceWould)
{
	populate();
	std::size_t bravo_main = find_in_main_blocks(area_, items_["bravo"]);
	ASSERT_NE(bravo_main, std::string::npos);
	std::size_t bravo_backup = bravo_main + 32 * kBlk;

	struct Case {
		const char *label;
		std::vector<std::size_t> flips;
		int verify_rc, repair_rc;
		const char *bad_head;	     // "0", "32" or nullptr
		const char *bravo_main_slot, *bravo_backup_slot;
		bool readable;		     // the module reads bravo afterwards
	};
	const std::vector<Case> cases = {
		{"main head", {100}, 6, 0, "0", "ok", "ok", true},
		{"backup head", {32 * kBlk + 9000}, 6, 0, "32", "ok", "ok", true},
		{"main slot", {bravo_main + 10}, 6, 0, nullptr, "bad", "ok", true},
		{"backup slot", {bravo_backup + 10}, 6, 6, nullptr, "ok", "bad", true},
		{"both slots", {bravo_main + 10, bravo_backup + 10}, 6, 6, nullptr, "bad", "bad",
		 false},
		{"main head and main slot", {100, bravo_main + 999}, 6, 0, "0", "bad", "ok", true},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.label);
		Bytes img = area_;
		for (std::size_t at : c.flips)
			img[at] ^= 0x10;
		std::string f = tool_.path("d.img");
		write_file(f, img);

		Result v = tool_.run("verify " + f);
		EXPECT_EQ(v.rc, c.verify_rc) << v.out;
		json j = tool_.inspect(f);
		EXPECT_FALSE(j["intact"]);
		for (const json &h : j["heads"])
			EXPECT_EQ(h["valid"], !(c.bad_head &&
						 std::to_string(h["block"].get<int>()) == c.bad_head))
				<< h;
		for (const json &d : j["dynamic"]) {
			bool bravo = d["name"] == "bravo";
			EXPECT_EQ(d["main"], bravo ? c.bravo_main_slot : "ok") << d;
			EXPECT_EQ(d["backup"], bravo ? c.bravo_backup_slot : "ok") << d;
		}

		Result r = tool_.run("repair " + f);
		EXPECT_EQ(r.rc, c.repair_rc) << r.out << r.err;
		Bytes repaired = read_file(f);
		ASSERT_EQ(repaired.size(), kArea);
		// Repair never touches the backup copy of an intact item's block
		// beyond what the module itself rewrites, and never loses a value.
		std::map<std::string, Bytes> expect = items_;
		if (!c.readable)
			expect.erase("bravo");
		expect_module_reads(repaired, expect);
		if (c.repair_rc == 0) {
			EXPECT_EQ(tool_.run("verify " + f).rc, 0);
			EXPECT_NE(repaired, img) << "repair wrote nothing";
		}
	}
}

// What the tool writes is what the module reads, on a blank image and on a
// whole-flash image; a refused write leaves the file as it was.
TEST_F(Image, WritesThatTheModuleReads)
{
	Tool &t = tool_;
	std::string area = t.path("new.img"), flash = t.path("flash.img");
	ASSERT_EQ(t.run("create " + area).rc, 0);
	EXPECT_EQ(read_file(area), Bytes(kArea, 0xff));
	EXPECT_EQ(t.run("create " + area).rc, 1) << "an existing file is replaced only by --force";
	ASSERT_EQ(t.run("create --layout flash " + flash).rc, 0);
	EXPECT_EQ(read_file(flash).size(), 0x1000000U);

	Bytes big = pattern(32768, 9);
	write_file(t.path("big.bin"), big);
	for (const std::string &f : {area, flash}) {
		SCOPED_TRACE(f);
		EXPECT_EQ(t.run("verify " + f).rc, 0) << "blank is not damage";
		ASSERT_EQ(t.run("set " + f + " ssh_status 1").rc, 0);
		ASSERT_EQ(t.run("set " + f + " p2p_mem_cfg hex:05000000").rc, 0);
		ASSERT_EQ(t.run("set " + f + " greeting text:hello").rc, 0);
		ASSERT_EQ(t.run("set " + f + " blob @" + t.path("big.bin")).rc, 0);
		ASSERT_EQ(t.run("set " + f + " gone hex:0102").rc, 0);
		ASSERT_EQ(t.run("clear " + f + " gone").rc, 0);
		EXPECT_EQ(t.run("get " + f + " gone").rc, 4);
		EXPECT_EQ(t.run("verify " + f).rc, 0);

		Bytes before = read_file(f);
		EXPECT_EQ(t.run("set " + f + " ssh_status hex:0101").rc, 5) << "wrong length";
		EXPECT_EQ(t.run("set " + f + " x @/nonexistent").rc, 5);
		EXPECT_EQ(read_file(f), before);

		// A name of 32 bytes fills its field without a NUL, as the
		// ioctl allows (the kernel API stops at 31).
		const std::string n32(32, 'z');
		ASSERT_EQ(t.run("set " + f + " " + n32 + " hex:2a").rc, 0);
		EXPECT_EQ(t.run("get --raw " + f + " " + n32).out, "2a\n");

		Bytes whole = read_file(f);
		std::size_t at = whole.size() == kArea ? 0 : kAreaAt;
		// Outside the configuration area a whole flash is left as it was.
		EXPECT_EQ(std::count(whole.begin(), whole.begin() + at, 0xff), (long)at);
		EXPECT_EQ(std::count(whole.begin() + at + kArea, whole.end(), 0xff),
			  (long)(whole.size() - at - kArea));
		Bytes a(whole.begin() + at, whole.begin() + at + kArea);
		expect_module_reads(a, {{"ssh_status", {1}},
					{"p2p_mem_cfg", {5, 0, 0, 0}},
					{"greeting", {'h', 'e', 'l', 'l', 'o'}},
					{"blob", big}});
		Bytes buf(16);
		u32 len = 0;
		EXPECT_EQ(hal_kernel_get_user_config(0, "gone", buf.data(), 16, &len), -ENOENT);
	}

	// Every write went through a temporary that was renamed: none is left.
	for (const auto &e : std::filesystem::directory_iterator(t.path("")))
		EXPECT_EQ(e.path().filename().string().find(".img."), std::string::npos)
			<< e.path();

	// --init writes the head the module writes before its first value.
	std::string init = t.path("init.img");
	ASSERT_EQ(t.run("create --init --devices 2 " + init).rc, 0);
	for (int d = 0; d < 2; d++) {
		json j = t.inspect("--devices 2 --device " + std::to_string(d) + " " + init);
		EXPECT_EQ(j["blk_state"], 3);
		EXPECT_TRUE(j["intact"]);
		EXPECT_TRUE(j["dynamic"].empty());
	}
	Bytes two = read_file(init);
	tb::flash::load_area(0, Bytes(two.begin(), two.begin() + kArea));
	Bytes buf(1);
	u32 len = 0;
	EXPECT_EQ(hal_kernel_get_user_config(0, "ssh_status", buf.data(), 1, &len), 0);
	EXPECT_EQ(buf, Bytes{0}) << "the default of a fresh head";
}

// Broken files: a clear message on stderr, a non-zero exit, never a crash.
TEST_F(Image, BadImagesAreRefusedCleanly)
{
	populate();
	Bytes valid_marker = area_;
	valid_marker[5000] ^= 1; // static area changed, check code kept
	valid_marker[32 * kBlk + 5000] ^= 1;

	// A record whose slot would run past the end of its block, with a head
	// whose check code matches (computed here, independently).
	Bytes outside = area_;
	for (std::size_t head : {std::size_t(0), 32 * kBlk}) {
		std::uint8_t *rec = outside.data() + head + 8196; // first record
		std::uint32_t off = 65500;
		std::memcpy(rec + 36, &off, 4); // item_offset
		SHA256(outside.data() + head, 65500, outside.data() + head + 65500);
	}
	std::string first_name(reinterpret_cast<const char *>(area_.data() + 8196),
			       strnlen(reinterpret_cast<const char *>(area_.data() + 8196), 32));

	struct Case {
		const char *label;
		Bytes data;
		int inspect_rc, verify_rc;
		const char *message;
	};
	std::vector<Case> cases = {
		{"empty", {}, 2, 2, "neither"},
		{"truncated area", Bytes(kArea - 1, 0xff), 2, 2, "neither"},
		{"area plus one", Bytes(kArea + 1, 0xff), 2, 2, "neither"},
		{"flash too short", Bytes(kAreaAt + kArea - kBlk, 0xff), 2, 2, "neither"},
		{"random bytes", pattern(kArea, 11), 0, 6, "damaged"},
		{"zeros", Bytes(kArea, 0), 0, 6, "no valid marker"},
		{"marker with a wrong check code", valid_marker, 0, 6, "check code does not match"},
		{"record outside its block", outside, 0, 6, "record 0"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.label);
		std::string f = tool_.path("bad.img");
		write_file(f, c.data);
		Result i = tool_.run("inspect " + f);
		EXPECT_EQ(i.rc, c.inspect_rc) << i.err;
		Result v = tool_.run("verify " + f);
		EXPECT_EQ(v.rc, c.verify_rc) << v.err;
		EXPECT_NE((v.out + v.err).find(c.message), std::string::npos) << v.out << v.err;
		Result j = tool_.run("inspect --json " + f);
		if (j.rc == 0) {
			EXPECT_TRUE(json::accept(j.out)) << j.out;
		}
		Result g = tool_.run("get " + f + " '" + first_name + "'");
		EXPECT_NE(g.rc, 0);
		EXPECT_LT(g.rc, 7) << "crashed: " << g.err;
		EXPECT_EQ(read_file(f), c.data) << "a read-only command changed the file";
	}
	EXPECT_EQ(tool_.run("inspect " + tool_.path("missing.img")).rc, 2);
	EXPECT_EQ(tool_.run("frobnicate x").rc, 1);
	EXPECT_EQ(tool_.run("get x").rc, 1);
	EXPECT_EQ(tool_.run("--layout disk inspect x").rc, 1);
	EXPECT_EQ(tool_.run("--devices 3 inspect " + tool_.path("bad.img")).rc, 2);
}

} // namespace
