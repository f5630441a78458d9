// SPDX-License-Identifier: GPL-2.0
//
// The published formats against the code: every offset and size that
// docs/FORMAT.md (on-flash records, static item places) and the ioctl ABI
// file state is read from those documents and compared with offsetof and
// sizeof of the module's structures and with the catalogue, in both
// directions: a documented field the code lacks, a field the documents
// omit, or a number that differs fails. The documents are the independent
// side: they are written for users, not generated from the code.
#include <cstddef>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "testbed.h"

extern "C" {
#include "catalogue/catalogue.h"
#include "store/store.h"
#include "uapi/user_cfg.h"
}

namespace {

// struct name and field name -> (offset, size)
using Layout = std::map<std::pair<std::string, std::string>,
			std::pair<size_t, size_t>>;

#define FIELD(T, f)                                                         \
	{ { #T, #f }, { offsetof(struct T, f), sizeof(((struct T *)nullptr)->f) } }

const Layout &code_layout()
{
	static const Layout l = {
		FIELD(user_cfg_head_blk, format_word),
		FIELD(user_cfg_head_blk, static_area),
		FIELD(user_cfg_head_blk, head_len),
		FIELD(user_cfg_head_blk, item_head),
		FIELD(user_cfg_head_blk, reserved),
		FIELD(user_cfg_head_blk, usage),
		FIELD(user_cfg_head_blk, check_code),
		FIELD(user_cfg_head_blk, valid_flag),
		FIELD(user_cfg_item_head, name),
		FIELD(user_cfg_item_head, blk_offset),
		FIELD(user_cfg_item_head, item_offset),
		FIELD(user_cfg_item_head, item_bytes),
		FIELD(user_cfg_item_head, authority_flg),
		FIELD(user_cfg_item_head, valid_flg),
		FIELD(user_cfg_blk_usage, blk_id),
		FIELD(user_cfg_blk_usage, use_flg),
		FIELD(user_cfg_blk_usage, used_bytes),
		FIELD(user_cfg_para, device_id),
		FIELD(user_cfg_para, cmd),
		FIELD(user_cfg_para, cfg_index),
		FIELD(user_cfg_para, name),
		FIELD(user_cfg_para, buf_size),
		FIELD(user_cfg_para, buf),
	};
	return l;
}

std::string slurp(const std::string &path)
{
	std::ifstream in(path);
	EXPECT_TRUE(in.good()) << "cannot read " << path;
	std::stringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

// The record tables of FORMAT.md: "| offset | size | `field` | ..." rows,
// attributed to the struct that the nearest heading above names.
Layout format_md_layout(const std::string &text)
{
	static const std::regex heading(R"(^#+ .*\(`struct (\w+)`\))");
	static const std::regex row(R"(^\| (\d+) \| (\d+) \| `(\w+)` \|)");
	Layout l;
	std::istringstream in(text);
	std::string line, cur;
	std::smatch m;
	while (std::getline(in, line)) {
		if (std::regex_search(line, m, heading))
			cur = m[1];
		else if (line.rfind("## ", 0) == 0)
			cur.clear();
		else if (std::regex_search(line, m, row)) {
			EXPECT_FALSE(cur.empty()) << "row outside a record: " << line;
			auto key = std::make_pair(cur, m[3].str());
			EXPECT_EQ(l.count(key), 0u) << "documented twice: " << line;
			l[key] = { std::stoul(m[1]), std::stoul(m[2]) };
		}
	}
	return l;
}

// The request record's table in the ABI file: "offset size type field".
Layout abi_layout(const std::string &text)
{
	static const std::regex row(R"(^\s+(\d+)\s+(\d+)\s+(\S+)\s+(\w+)\s*$)");
	Layout l;
	std::istringstream in(text);
	std::string line;
	std::smatch m;
	while (std::getline(in, line))
		if (std::regex_match(line, m, row))
			l[{ "user_cfg_para", m[4] }] = { std::stoul(m[1]),
							 std::stoul(m[2]) };
	return l;
}

void expect_same(const Layout &doc, const std::string &doc_name,
		 const std::set<std::string> &structs)
{
	for (const auto &[key, val] : doc) {
		auto it = code_layout().find(key);
		if (it == code_layout().end()) {
			ADD_FAILURE() << doc_name << " documents " << key.first << "."
				      << key.second << ", which the code lacks";
			continue;
		}
		EXPECT_EQ(val, it->second)
			<< doc_name << ": " << key.first << "." << key.second
			<< " (offset, size)";
	}
	for (const auto &[key, val] : code_layout()) {
		if (structs.count(key.first)) {
			EXPECT_EQ(doc.count(key), 1u)
				<< doc_name << " omits " << key.first << "."
				<< key.second;
		}
	}
}

TEST(FormatDoc, RecordLayoutsMatchTheCode)
{
	const std::string docs = UCFG_DOCS_DIR;
	expect_same(format_md_layout(slurp(docs + "/FORMAT.md")), "FORMAT.md",
		    { "user_cfg_head_blk", "user_cfg_item_head",
		      "user_cfg_blk_usage" });
	expect_same(abi_layout(slurp(docs + "/ABI/testing/dev-user_config")),
		    "ABI/testing/dev-user_config", { "user_cfg_para" });
	// A record covers its whole struct: the last field ends at sizeof.
	EXPECT_EQ(sizeof(struct user_cfg_head_blk), 65536u);
	EXPECT_EQ(sizeof(struct user_cfg_para), 56u);
}

// The static item table: index, name, catalogue offset, record size and
// the head offset of the valid byte (4 + catalogue offset).
TEST(FormatDoc, StaticItemPlacesMatchTheCatalogue)
{
	static const std::regex row(
		R"(^\| (\d) \| `(\w+)` \| (\d+) \| (\d+) \| (\d+) \|)");
	std::istringstream in(slurp(std::string(UCFG_DOCS_DIR) + "/FORMAT.md"));
	std::string line;
	std::smatch m;
	std::set<unsigned> seen;
	while (std::getline(in, line)) {
		if (!std::regex_search(line, m, row))
			continue;
		const unsigned k = std::stoul(m[1]);
		ASSERT_LT(k, USER_CFG_ITEM_NUM) << line;
		const auto &r = user_cfg_version_1[k];
		EXPECT_EQ(m[2].str(), r.name) << line;
		EXPECT_EQ(std::stoul(m[3]), r.offset) << line;
		EXPECT_EQ(std::stoul(m[4]), r.size) << line;
		EXPECT_EQ(std::stoul(m[5]),
			  offsetof(struct user_cfg_head_blk, static_area) +
				  r.offset)
			<< line;
		seen.insert(k);
	}
	EXPECT_EQ(seen.size(), size_t(USER_CFG_ITEM_NUM))
		<< "FORMAT.md must place every catalogue item";
}

} // namespace
