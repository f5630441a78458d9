// SPDX-License-Identifier: GPL-2.0
//
// Parsing, JSON and text of the store's view (see view.h and the format
// at the top of the module's access/view.c).
#include "view.h"

#include <cstdio>
#include <map>
#include <sstream>

namespace ucfg {
namespace {

using Fields = std::map<std::string, std::string>;

// "k=v" words of a line; the name, last, may hold anything but spaces.
Fields fields(std::istringstream &in)
{
	Fields f;
	for (std::string w; in >> w;) {
		std::size_t eq = w.find('=');
		if (eq != std::string::npos)
			f[w.substr(0, eq)] = w.substr(eq + 1);
	}
	return f;
}

std::uint64_t num(const Fields &f, const char *key)
{
	auto it = f.find(key);
	if (it == f.end())
		throw std::runtime_error(std::string("no ") + key);
	return std::stoull(it->second);
}

bool valid_utf8(const std::string &s)
{
	for (std::size_t i = 0; i < s.size();) {
		unsigned char c = s[i];
		std::size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
		if (!n || i + n > s.size())
			return false;
		for (std::size_t k = 1; k < n; k++)
			if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2)
				return false;
		i += n;
	}
	return true;
}

std::string hex(const std::string &s)
{
	std::string out;
	char b[3];
	for (unsigned char c : s) {
		std::snprintf(b, sizeof(b), "%02x", c);
		out += b;
	}
	return out;
}

} // namespace

std::string escape_name(const std::string &name)
{
	std::string out;
	char b[5];
	for (unsigned char c : name) {
		if (c > ' ' && c < 0x7f && c != '\\') {
			out += static_cast<char>(c);
		} else {
			std::snprintf(b, sizeof(b), "\\x%02x", c);
			out += b;
		}
	}
	return out;
}

std::optional<std::string> unescape_name(const std::string &text)
{
	std::string out;
	for (std::size_t i = 0; i < text.size(); i++) {
		if (text[i] != '\\') {
			out += text[i];
			continue;
		}
		if (i + 3 >= text.size() + 0 || text[i + 1] != 'x' || !isxdigit(text[i + 2]) ||
		    !isxdigit(text[i + 3]))
			return std::nullopt;
		out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
		i += 3;
	}
	return out;
}

std::optional<StoreView> parse_view(const std::string &text, std::string &error)
{
	StoreView v;
	std::istringstream lines(text);
	std::size_t n = 0;
	try {
		for (std::string line; std::getline(lines, line);) {
			n++;
			std::istringstream in(line);
			std::string kind, a, b;
			in >> kind;
			if (kind == "device") {
				in >> v.device;
			} else if (kind == "head") {
				in >> a >> b;
				(a == "main" ? v.head_main : v.head_backup) = b;
			} else if (kind == "in_use") {
				in >> v.in_use;
			} else if (kind == "copies") {
				in >> a;
				v.copies_same = a == "same";
			} else if (kind == "static") {
				StoreView::Static s;
				in >> s.name >> a >> s.size;
				s.set = a == "set";
				v.statics.push_back(s);
			} else if (kind == "table") {
				Fields f = fields(in);
				if (f.count("head_len")) {
					v.table_error = static_cast<std::uint32_t>(num(f, "head_len"));
					continue;
				}
				v.records = num(f, "records");
				v.records_in_use = num(f, "in_use");
				v.records_free = num(f, "free");
				v.room = num(f, "room");
			} else if (kind == "item") {
				StoreView::Item it;
				in >> it.index >> a >> b;
				it.main_ok = a == "ok";
				it.backup_ok = b == "ok";
				Fields f = fields(in);
				it.size = num(f, "size");
				it.block = num(f, "block");
				it.offset = num(f, "offset");
				std::optional<std::string> name = unescape_name(f["name"]);
				if (!name)
					throw std::runtime_error("bad name");
				it.name = *name;
				v.items.push_back(it);
			} else if (kind == "record") {
				StoreView::Record r;
				in >> r.index >> r.state;
				v.other_records.push_back(r);
			} else if (kind == "block") {
				StoreView::Block bl;
				in >> bl.block;
				Fields f = fields(in);
				bl.in_use = num(f, "in_use") != 0;
				bl.used = num(f, "used");
				bl.live = num(f, "live");
				v.blocks.push_back(bl);
			} else if (kind == "space") {
				Fields f = fields(in);
				v.blocks_in_use = num(f, "blocks");
				v.live = num(f, "live");
				v.dead = num(f, "dead");
				v.free = num(f, "free");
				v.largest = f["largest"] == "none" ? -1 : std::stoll(f["largest"]);
			}
		}
	} catch (const std::exception &e) {
		error = "view line " + std::to_string(n) + ": " + e.what();
		return std::nullopt;
	}
	if (v.head_main.empty() || v.statics.size() != 6) {
		error = "not a store view";
		return std::nullopt;
	}
	return v;
}

std::vector<std::string> StoreView::problems() const
{
	std::vector<std::string> p;
	if (blank())
		return p;
	if (head_main != "valid")
		p.push_back("head block 0: " + head_main);
	if (head_backup != "valid")
		p.push_back("head block 32: " + head_backup);
	if (head_main == "valid" && head_backup == "valid" && !copies_same)
		p.push_back("head blocks 0 and 32 are both valid but differ");
	if (table_error)
		p.push_back("head_len " + std::to_string(*table_error) +
			    " is not a whole number of records within the table");
	for (const Item &it : items) {
		if (!it.main_ok)
			p.push_back("item " + escape_name(it.name) + ": main copy damaged");
		if (!it.backup_ok)
			p.push_back("item " + escape_name(it.name) + ": backup copy damaged");
	}
	for (const Record &r : other_records)
		if (r.state == "bad")
			p.push_back("record " + std::to_string(r.index) + ": out of bounds");
	for (const Block &b : blocks)
		if (b.live > b.used)
			p.push_back("block " + std::to_string(b.block) + ": live items beyond its used bytes");
	return p;
}

std::string StoreView::fits(std::uint32_t n) const
{
	if (in_use != "none" && room == 0)
		return "no room in the record table";
	if (in_use == "none" || static_cast<std::int64_t>(n) <= largest)
		return "fits without compacting";
	for (const Block &b : blocks)
		if (!b.in_use || n + 32 < 65536 - b.live)
			return "needs the content blocks compacted first";
	return "does not fit, not even after compacting";
}

nlohmann::ordered_json to_json(const StoreView &v)
{
	using json = nlohmann::ordered_json;
	json j;
	j["device"] = v.device;
	j["heads"] = {{"main", v.head_main}, {"backup", v.head_backup}, {"in_use", v.in_use},
		      {"copies_same", v.copies_same}};
	j["static"] = json::array();
	for (const auto &s : v.statics)
		j["static"].push_back({{"name", s.name}, {"set", s.set}, {"size", s.size}});
	j["items"] = json::array();
	for (const auto &it : v.items)
		j["items"].push_back({{"index", it.index},
				      {"name", valid_utf8(it.name) ? json(it.name) : json()},
				      {"name_hex", hex(it.name)}, {"size", it.size},
				      {"block", it.block}, {"offset", it.offset},
				      {"main", it.main_ok ? "ok" : "bad"},
				      {"backup", it.backup_ok ? "ok" : "bad"}});
	json other = json::array();
	for (const auto &r : v.other_records)
		other.push_back({{"index", r.index}, {"state", r.state}});
	j["records"] = {{"total", v.records}, {"in_use", v.records_in_use},
			{"free", v.records_free}, {"room", v.room}, {"other", other},
			{"head_len_error", v.table_error ? json(*v.table_error) : json()}};
	j["blocks"] = json::array();
	for (const auto &b : v.blocks)
		j["blocks"].push_back({{"block", b.block}, {"in_use", b.in_use},
				       {"used", b.used}, {"live", b.live}});
	j["space"] = {{"blocks_in_use", v.blocks_in_use}, {"live", v.live}, {"dead", v.dead},
		      {"free", v.free},
		      {"largest_without_rebuild", v.largest < 0 ? json() : json(v.largest)}};
	std::vector<std::string> p = v.problems();
	j["health"] = {{"blank", v.blank()}, {"intact", p.empty()}, {"problems", p}};
	return j;
}

void print_list(const StoreView &v, std::ostream &out)
{
	char line[160];
	out << "device " << v.device << ": static items\n";
	for (const auto &s : v.statics) {
		std::snprintf(line, sizeof(line), "  %-20s %-8s %5u bytes\n", s.name.c_str(),
			      s.set ? "set" : "default", s.size);
		out << line;
	}
	out << "named items: " << v.items.size() << "\n";
	if (!v.items.empty())
		out << "  name                              size  block  offset  main  backup\n";
	for (const auto &it : v.items) {
		std::snprintf(line, sizeof(line), "  %-32s %5u %6u %7u  %-4s  %s\n",
			      escape_name(it.name).c_str(), it.size, it.block, it.offset,
			      it.main_ok ? "ok" : "bad", it.backup_ok ? "ok" : "bad");
		out << line;
	}
}

void print_status(const StoreView &v, std::ostream &out)
{
	std::vector<std::string> p = v.problems();
	out << "device " << v.device << ": "
	    << (v.blank() ? "blank, nothing stored" : p.empty() ? "intact" : "damaged") << "\n";
	out << "head copies: main " << v.head_main << ", backup " << v.head_backup
	    << "; items read from " << v.in_use << (v.copies_same ? ", copies same\n"
							: ", copies differ\n");
	if (v.in_use == "none")
		return;
	out << "record table: " << v.records << " record(s), " << v.records_in_use << " in use, "
	    << v.records_free << " free; room for " << v.room << " more items\n";
	out << "content blocks: " << v.blocks_in_use << " in use; bytes live " << v.live
	    << ", dead " << v.dead << " (space a compaction reclaims), free " << v.free << "\n";
	out << "longest new named item without compacting: "
	    << (v.largest < 0 ? "none" : std::to_string(v.largest) + " bytes") << "\n";
	for (const std::string &s : p)
		out << "  " << s << "\n";
}

} // namespace ucfg
