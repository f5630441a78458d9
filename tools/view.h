// SPDX-License-Identifier: GPL-2.0
//
// The view of a device's store: what the module's view text says (the
// debugfs file user_config/devN of a running board, or the same text that
// ucfg-image renders for an image with the module's own code), parsed into
// one structure, and that structure as JSON (one schema for `ucfg list`,
// `ucfg status` and `ucfg-image inspect`; docs/VIEW.md) and as text.
#ifndef UCFG_TOOLS_VIEW_H
#define UCFG_TOOLS_VIEW_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace ucfg {

struct StoreView {
	struct Static {
		std::string name;
		bool set = false;
		std::uint32_t size = 0;
	};
	struct Item {
		std::uint32_t index = 0, size = 0, block = 0, offset = 0;
		bool main_ok = false, backup_ok = false;
		std::string name;	// the stored bytes, up to the first NUL
	};
	struct Record {
		std::uint32_t index = 0;
		std::string state;	// "free" or "bad"
	};
	struct Block {
		std::uint32_t block = 0, used = 0, live = 0;
		bool in_use = false;
	};

	std::uint32_t device = 0;
	std::string head_main, head_backup;	// valid, erased, no-marker, ...
	std::string in_use = "none";		// main, backup or none
	bool copies_same = false;
	std::vector<Static> statics;
	std::optional<std::uint32_t> table_error;	// the head_len that is wrong
	std::uint32_t records = 0, records_in_use = 0, records_free = 0, room = 0;
	std::vector<Item> items;
	std::vector<Record> other_records;
	std::vector<Block> blocks;
	std::uint32_t blocks_in_use = 0;
	std::uint64_t live = 0, dead = 0, free = 0;
	std::int64_t largest = -1;	// longest new item without a rebuild; -1 none

	bool blank() const { return head_main == "erased" && head_backup == "erased"; }
	// What is not as it should be; empty when both copies of everything
	// are intact (or nothing is stored).
	std::vector<std::string> problems() const;
	// Whether a new item of n bytes fits as the blocks are, after
	// compacting them, or not at all.
	std::string fits(std::uint32_t n) const;
};

std::optional<StoreView> parse_view(const std::string &text, std::string &error);
nlohmann::ordered_json to_json(const StoreView &v);
// `ucfg list`: every item with its size and health.
void print_list(const StoreView &v, std::ostream &out);
// `ucfg status`: the heads, the table, the space, the health.
void print_status(const StoreView &v, std::ostream &out);

// Names as the view writes them: printable ASCII as it is, every other
// byte (and space and backslash) as \xHH; and back.
std::string escape_name(const std::string &name);
std::optional<std::string> unescape_name(const std::string &text);

} // namespace ucfg

#endif // UCFG_TOOLS_VIEW_H
