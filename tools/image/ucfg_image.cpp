// SPDX-License-Identifier: GPL-2.0
//
// ucfg-image: create, inspect, verify, read, write and repair the
// configuration area of a secure-flash image file.
//
// The file is read whole into memory. The part of it that holds the chosen
// device is handed to the store's code as that device's secure flash
// (image_flash.h), and every question about the format is answered by the
// store's functions: block validation, check codes, record limits, the item
// engine for get/set/clear and the head and slot repair. A command that
// changes the image writes a new file next to it and renames it over the
// old one, so an interrupted run leaves the old image or the new one, never
// a mix; the size of the file never changes.
#include "ucfg_image.h"

#include "image_flash.h"
#include "ucfg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

extern "C" {
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "store/store.h"
}

namespace ucfg_image {
namespace {

using Bytes = std::vector<std::uint8_t>;

enum class Layout { kDetect, kArea, kFlash };

struct Options {
	std::string command;
	std::string image;
	std::string name;
	std::string value;
	std::string out_file;
	bool json = false;
	bool verbose = false;
	bool init = false;
	bool force = false;
	bool raw = false;
	bool text = false;
	Layout layout = Layout::kDetect;
	std::uint64_t flash_size = kFlashDefault;
	std::uint32_t device = 0;
	std::uint32_t devices = 1;
};

// --- The device's part of the file -----------------------------------------

struct Part {
	Layout layout = Layout::kArea;
	std::uint64_t begin = 0; // in the file
	std::uint64_t size = 0;
};

const char *layout_name(Layout l)
{
	return l == Layout::kArea ? "area" : "flash";
}

std::optional<Part> choose_part(std::uint64_t file_size, const Options &o, std::string &error)
{
	if (o.devices == 0 || file_size % o.devices != 0) {
		error = std::to_string(file_size) + " bytes do not split into " +
			std::to_string(o.devices) + " equal devices";
		return std::nullopt;
	}
	if (o.device >= o.devices) {
		error = "device " + std::to_string(o.device) + " is not in an image of " +
			std::to_string(o.devices) + " device(s)";
		return std::nullopt;
	}
	Part p;
	p.size = file_size / o.devices;
	p.begin = p.size * o.device;
	// Detection by size: exactly 4 MiB is the area alone; anything that
	// reaches past the area's end at 0xA40000 + 4 MiB is a whole flash.
	p.layout = o.layout != Layout::kDetect ? o.layout
		   : p.size == kAreaSize	 ? Layout::kArea
					 : Layout::kFlash;
	bool fits = p.layout == Layout::kArea ? p.size == kAreaSize : p.size >= kFlashMin;
	if (!fits || p.size > 0xFFFFFFFFULL) {
		error = std::to_string(p.size) + " bytes per device: " +
			(p.layout == Layout::kArea
				 ? std::string("a configuration area is exactly 4194304 bytes")
				 : std::string("neither a 4194304-byte configuration area nor a "
					       "whole flash image of at least 14942208 bytes "
					       "(area at 0xA40000)"));
		return std::nullopt;
	}
	return p;
}

class Window : public FlashWindow {
public:
	Window(Bytes &file, const Part &part) : file_(file), part_(part) {}

	int read(std::uint32_t offset, std::uint8_t *buf, std::uint32_t len) override
	{
		std::uint8_t *at = locate(offset, len);
		if (!at)
			return -EINVAL;
		std::memcpy(buf, at, len);
		return 0;
	}
	int write(std::uint32_t offset, const std::uint8_t *buf, std::uint32_t len) override
	{
		std::uint8_t *at = locate(offset, len);
		if (!at)
			return -EINVAL;
		if (std::memcmp(at, buf, len) != 0) {
			std::memcpy(at, buf, len);
			written_.insert(offset / UCFG_BLK_SIZE);
		}
		return 0;
	}
	// Flash blocks (offset / 64 KiB) whose bytes changed.
	const std::set<std::uint32_t> &changed() const { return written_; }

private:
	std::uint8_t *locate(std::uint64_t offset, std::uint64_t len)
	{
		std::uint64_t base = part_.layout == Layout::kArea ? kAreaOffset : 0;
		if (offset < base || offset - base + len > part_.size)
			return nullptr;
		return file_.data() + part_.begin + (offset - base);
	}

	Bytes &file_;
	Part part_;
	std::set<std::uint32_t> written_;
};

// Attaches a window for the lifetime of one command.
class Attached {
public:
	explicit Attached(Window &w) { attach_flash(&w); }
	~Attached() { attach_flash(nullptr); }
	Attached(const Attached &) = delete;
	Attached &operator=(const Attached &) = delete;
};

// The store's device lock, as the ioctl entry takes it around a request.
class Locked {
public:
	Locked() { devdrv_config_mutex_lock(0); }
	~Locked() { devdrv_config_mutex_unlock(0); }
	Locked(const Locked &) = delete;
	Locked &operator=(const Locked &) = delete;
};

// --- Files -----------------------------------------------------------------

bool load_file(const std::string &path, Bytes &data, std::string &error)
{
	std::FILE *f = std::fopen(path.c_str(), "rb");
	if (!f) {
		error = "cannot open " + path + ": " + std::strerror(errno);
		return false;
	}
	data.clear();
	std::uint8_t chunk[1 << 16];
	std::size_t n;
	while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) {
		if (data.size() + n > (std::uint64_t)1 << 31) {
			std::fclose(f);
			error = path + " is larger than any secure-flash image";
			return false;
		}
		data.insert(data.end(), chunk, chunk + n);
	}
	bool failed = std::ferror(f);
	int saved = errno;
	std::fclose(f);
	if (failed) {
		error = "cannot read " + path + ": " + std::strerror(saved);
		return false;
	}
	return true;
}

// Writes data as PATH: a temporary file in the same directory, flushed to
// the disk, then renamed over PATH, so PATH is always either the old image
// or the new one. The mode of an existing PATH is kept.
bool save_file(const std::string &path, const Bytes &data, bool keep_mode, std::string &error)
{
	std::string tmp = path + ".XXXXXX";
	std::vector<char> name(tmp.begin(), tmp.end());
	name.push_back('\0');
	int fd = mkstemp(name.data());
	if (fd < 0) {
		error = "cannot create a file next to " + path + ": " + std::strerror(errno);
		return false;
	}
	struct stat st;
	mode_t mode = 0644;
	if (keep_mode && stat(path.c_str(), &st) == 0)
		mode = st.st_mode & 07777;
	bool ok = fchmod(fd, mode) == 0;
	std::size_t done = 0;
	while (ok && done < data.size()) {
		ssize_t n = ::write(fd, data.data() + done, data.size() - done);
		if (n < 0 && errno == EINTR)
			continue;
		ok = n > 0;
		if (ok)
			done += (std::size_t)n;
	}
	int saved = errno;
	if (ok && fsync(fd) != 0) {
		ok = false;
		saved = errno;
	}
	if (close(fd) != 0 && ok) {
		ok = false;
		saved = errno;
	}
	if (ok && rename(name.data(), path.c_str()) != 0) {
		ok = false;
		saved = errno;
	}
	if (!ok) {
		unlink(name.data());
		error = "cannot write " + path + ": " + std::strerror(saved);
	}
	return ok;
}

// --- What the image holds ---------------------------------------------------

enum class Slot { kOk, kBad, kUnchecked };

const char *slot_name(Slot s)
{
	return s == Slot::kOk ? "ok" : s == Slot::kBad ? "bad" : "unchecked";
}

struct HeadCopy {
	std::uint32_t block = 0;
	bool readable = false;
	bool erased = false;
	bool marker = false;
	bool check_code = false; // meaningful when marker is set
	bool valid = false;
};

struct StaticEntry {
	const char *name;
	bool stored = false;
	bool have_value = false; // stored, or a default exists offline
	Bytes value;
};

struct DynamicEntry {
	std::uint32_t index = 0;
	std::string name;
	std::uint32_t block = 0, offset = 0, size = 0;
	std::string record_error; // empty when the record is usable
	Slot main = Slot::kUnchecked, backup = Slot::kUnchecked;
};

struct UsageEntry {
	std::uint32_t block = 0;
	std::uint32_t blk_id = 0, use = 0, used = 0, live = 0;
};

struct Report {
	HeadCopy heads[2];
	std::uint32_t blk_state = UCFG_BLK_STATE_NONE;
	int head_used = -1; // block the device reads the items from
	bool heads_equal = false;
	bool blank = false;
	std::uint32_t head_len = 0;
	std::string head_len_error;
	std::vector<StaticEntry> statics;
	std::vector<DynamicEntry> dynamics;
	std::vector<UsageEntry> usage;
	std::uint64_t free_bytes = 0, dead_bytes = 0;
	std::vector<std::string> problems;
	bool intact() const { return !blank && problems.empty(); }
};

std::string record_name(const char *raw)
{
	return std::string(raw, strnlen(raw, UCFG_ITEM_NAME_LEN));
}

bool block_erased(const Bytes &b)
{
	for (std::uint8_t c : b)
		if (c != 0xff)
			return false;
	return true;
}

bool slot_intact(const Bytes &blk, const struct user_cfg_item_head &rec)
{
	u8 code[UCFG_SHA256_LEN];
	const u8 *slot = blk.data() + rec.item_offset;

	if (devdrv_calculate_block_sha256(slot, rec.item_bytes, code) != 0)
		return false;
	return std::memcmp(code, slot + rec.item_bytes, UCFG_SHA256_LEN) == 0;
}

// Reads and judges everything through the store's own functions. Nothing
// is written: the caller's window records no change.
Report analyse()
{
	Report r;
	Bytes copies[2] = {Bytes(UCFG_BLK_SIZE), Bytes(UCFG_BLK_SIZE)};
	const std::uint32_t blocks[2] = {UCFG_HEAD_MAIN_BLK, UCFG_HEAD_BK_BLK};

	for (int i = 0; i < 2; i++) {
		HeadCopy &h = r.heads[i];
		u32 valid = 0;
		h.block = blocks[i];
		h.readable = devdrv_config_check_blk_validity(0, blocks[i], copies[i].data(),
							      &valid) == 0;
		if (!h.readable) {
			r.problems.push_back("head block " + std::to_string(h.block) +
					     " cannot be read");
			continue;
		}
		h.valid = valid == 1;
		h.erased = block_erased(copies[i]);
		h.marker = ucfg_head(copies[i].data())->valid_flag == UCFG_VALID_FLAG;
		h.check_code = h.valid;
	}
	r.blk_state = (r.heads[0].valid ? UCFG_BLK_STATE_MAIN : 0) |
		      (r.heads[1].valid ? UCFG_BLK_STATE_BACKUP : 0);
	r.heads_equal = copies[0] == copies[1];
	r.blank = r.heads[0].erased && r.heads[1].erased;
	if (r.blank)
		r.problems.clear();
	for (const HeadCopy &h : r.heads)
		if (!r.blank && h.readable && !h.valid)
			r.problems.push_back("head block " + std::to_string(h.block) +
					     (h.marker ? ": check code does not match"
						       : ": no valid marker"));
	if (r.heads[0].valid && r.heads[1].valid && !r.heads_equal)
		r.problems.push_back("head blocks 0 and 32 are both valid but differ");

	// The device reads from the main head when it is valid, else from
	// the backup head.
	const u8 *head = nullptr;
	if (r.heads[0].valid) {
		r.head_used = 0;
		head = copies[0].data();
	} else if (r.heads[1].valid) {
		r.head_used = 32;
		head = copies[1].data();
	}

	for (int i = 0; i < USER_CFG_ITEM_NUM; i++) {
		const struct user_cfg_item_desc *row = &user_cfg_version_1[i];
		StaticEntry e;
		e.name = row->name;
		if (head) {
			const u8 *rec = ucfg_head((u8 *)head)->static_area + row->offset;
			e.stored = rec[0] == 1;
			if (e.stored)
				e.value.assign(rec + 1, rec + row->size);
		}
		if (!e.stored) {
			Bytes buf(row->size + 64);
			u32 len = (u32)buf.size();
			if (devdrv_config_get_default(row, buf.data(), &len) == 0 &&
			    len <= buf.size()) {
				buf.resize(len);
				e.value = buf;
			}
		}
		e.have_value = e.stored || !e.value.empty();
		r.statics.push_back(e);
	}
	if (!head)
		return r;

	const struct user_cfg_head_blk *hb = ucfg_head((u8 *)head);
	r.head_len = hb->head_len;
	std::uint32_t count = r.head_len / UCFG_ITEM_HEAD_SIZE;
	if (r.head_len % UCFG_ITEM_HEAD_SIZE != 0 || count > UCFG_ITEM_HEAD_MAX) {
		r.head_len_error = "head_len " + std::to_string(r.head_len) +
				   " is not a whole number of records within the table";
		r.problems.push_back(r.head_len_error);
		count = std::min<std::uint32_t>(count, UCFG_ITEM_HEAD_MAX);
	}

	std::map<std::uint32_t, Bytes> blocks_read;
	auto block = [&](std::uint32_t b) -> const Bytes * {
		auto it = blocks_read.find(b);
		if (it == blocks_read.end()) {
			Bytes img(UCFG_BLK_SIZE);
			if (devdrv_config_read_block(0, b, img.data()) != 0)
				return nullptr;
			it = blocks_read.emplace(b, std::move(img)).first;
		}
		return &it->second;
	};

	std::uint64_t live[UCFG_MAIN_BLK_NUM] = {};
	for (std::uint32_t i = 0; i < count; i++) {
		const struct user_cfg_item_head &rec = hb->item_head[i];
		DynamicEntry d;
		d.index = i;
		d.name = record_name(rec.name);
		d.block = rec.blk_offset;
		d.offset = rec.item_offset;
		d.size = rec.item_bytes;
		if (devdrv_user_cfg_head_check(&rec) != 0)
			d.record_error = "record out of bounds or not in use";
		else if (rec.blk_offset < UCFG_CONTENT_FIRST_BLK)
			d.record_error = "record points into a head block";
		if (d.record_error.empty()) {
			const Bytes *m = block(rec.blk_offset);
			const Bytes *b = block(rec.blk_offset + UCFG_MAIN_BLK_NUM);
			d.main = m && slot_intact(*m, rec) ? Slot::kOk : Slot::kBad;
			d.backup = b && slot_intact(*b, rec) ? Slot::kOk : Slot::kBad;
			live[rec.blk_offset] += rec.item_bytes + UCFG_SHA256_LEN;
			if (d.main != Slot::kOk)
				r.problems.push_back("item " + d.name + ": main copy damaged");
			if (d.backup != Slot::kOk)
				r.problems.push_back("item " + d.name + ": backup copy damaged");
		} else {
			r.problems.push_back("record " + std::to_string(i) + ": " +
					     d.record_error);
		}
		r.dynamics.push_back(d);
	}

	for (std::uint32_t b = UCFG_CONTENT_FIRST_BLK; b <= UCFG_CONTENT_LAST_BLK; b++) {
		const struct user_cfg_blk_usage &u = hb->usage[b];
		UsageEntry e;
		e.block = b;
		e.blk_id = u.blk_id;
		e.use = u.use_flg;
		e.used = u.used_bytes;
		e.live = (std::uint32_t)live[b];
		if (e.used <= UCFG_SLOT_END_MAX)
			r.free_bytes += UCFG_SLOT_END_MAX - e.used;
		if (e.used >= e.live)
			r.dead_bytes += e.used - e.live;
		else
			r.problems.push_back("block " + std::to_string(b) + ": " +
					     std::to_string(e.live) +
					     " bytes of live items above its used_bytes " +
					     std::to_string(e.used));
		r.usage.push_back(e);
	}
	return r;
}

// analyse() under the device lock, as every request of the store runs.
Report analyse_locked()
{
	Locked lock;
	return analyse();
}

// --- Output ------------------------------------------------------------------

std::string json_string(const std::string &s)
{
	std::string o = "\"";
	for (unsigned char c : s) {
		if (c == '"' || c == '\\') {
			o += '\\';
			o += (char)c;
		} else if (c < 0x20 || c >= 0x7f) {
			char e[8];
			std::snprintf(e, sizeof(e), "\\u%04x", c);
			o += e;
		} else {
			o += (char)c;
		}
	}
	return o + "\"";
}

const char *b(bool v)
{
	return v ? "true" : "false";
}

void print_json(const Report &r, const std::string &image, const Part &p, std::uint32_t device,
		std::ostream &out)
{
	out << "{\n  \"image\": " << json_string(image) << ",\n  \"layout\": \""
	    << layout_name(p.layout) << "\",\n  \"device\": " << device
	    << ",\n  \"blank\": " << b(r.blank) << ",\n  \"intact\": " << b(r.intact())
	    << ",\n  \"heads\": [";
	for (int i = 0; i < 2; i++) {
		const HeadCopy &h = r.heads[i];
		out << (i ? ", " : "") << "{\"block\": " << h.block << ", \"readable\": "
		    << b(h.readable) << ", \"erased\": " << b(h.erased) << ", \"marker\": "
		    << b(h.marker) << ", \"check_code\": " << b(h.check_code)
		    << ", \"valid\": " << b(h.valid) << "}";
	}
	out << "],\n  \"blk_state\": " << r.blk_state << ",\n  \"head_used\": " << r.head_used
	    << ",\n  \"heads_equal\": " << b(r.heads_equal) << ",\n  \"static\": [";
	for (std::size_t i = 0; i < r.statics.size(); i++) {
		const StaticEntry &s = r.statics[i];
		out << (i ? ",\n    " : "\n    ") << "{\"name\": " << json_string(s.name)
		    << ", \"stored\": " << b(s.stored) << ", \"value\": "
		    << (s.have_value ? json_string(ucfg::hex_string(s.value)) : "null") << "}";
	}
	out << "\n  ],\n  \"head_len\": " << r.head_len << ",\n  \"dynamic\": [";
	for (std::size_t i = 0; i < r.dynamics.size(); i++) {
		const DynamicEntry &d = r.dynamics[i];
		out << (i ? ",\n    " : "\n    ") << "{\"index\": " << d.index
		    << ", \"name\": " << json_string(d.name) << ", \"block\": " << d.block
		    << ", \"offset\": " << d.offset << ", \"size\": " << d.size
		    << ", \"record_ok\": " << b(d.record_error.empty()) << ", \"main\": \""
		    << slot_name(d.main) << "\", \"backup\": \"" << slot_name(d.backup) << "\"}";
	}
	out << (r.dynamics.empty() ? "" : "\n  ") << "],\n  \"usage\": [";
	for (std::size_t i = 0; i < r.usage.size(); i++) {
		const UsageEntry &u = r.usage[i];
		out << (i ? ",\n    " : "\n    ") << "{\"block\": " << u.block
		    << ", \"blk_id\": " << u.blk_id << ", \"use\": " << u.use
		    << ", \"used_bytes\": " << u.used << ", \"live_bytes\": " << u.live << "}";
	}
	out << (r.usage.empty() ? "" : "\n  ") << "],\n  \"free_bytes\": " << r.free_bytes
	    << ",\n  \"dead_bytes\": " << r.dead_bytes << ",\n  \"problems\": [";
	for (std::size_t i = 0; i < r.problems.size(); i++)
		out << (i ? ", " : "") << json_string(r.problems[i]);
	out << "]\n}\n";
}

void print_text(const Report &r, const std::string &image, const Part &p, std::uint32_t device,
		std::ostream &out)
{
	out << image << ": " << (p.layout == Layout::kArea ? "configuration area" : "whole flash")
	    << ", device " << device << "\n";
	for (const HeadCopy &h : r.heads) {
		out << "head block " << h.block << (h.block ? " (backup): " : " (main):   ");
		if (!h.readable)
			out << "unreadable\n";
		else if (h.erased)
			out << "erased\n";
		else
			out << "marker " << (h.marker ? "ok" : "missing") << ", check code "
			    << (!h.marker ? "not checked" : h.check_code ? "ok" : "bad") << "\n";
	}
	out << "blk_state " << r.blk_state << ", items read from head block "
	    << (r.head_used < 0 ? std::string("none") : std::to_string(r.head_used))
	    << (r.heads_equal ? ", copies identical" : ", copies differ") << "\n\nstatic items:\n";
	for (const StaticEntry &s : r.statics) {
		char line[64];
		std::snprintf(line, sizeof(line), "  %-20s %-8s ", s.name,
			      s.stored ? "stored" : "default");
		out << line;
		if (!s.have_value) {
			out << "(no default offline)\n";
			continue;
		}
		ucfg::Rendered v = ucfg::render_value(s.name, s.value, ucfg::Show::kHuman);
		std::string text = v.out.empty() ? "(hidden)\n" : v.out;
		if (std::count(text.begin(), text.end(), '\n') > 1)
			text = ucfg::hex_string(s.value).substr(0, 64) +
			       (s.value.size() > 32 ? "...\n" : "\n");
		out << text;
	}
	out << "\ndynamic items: " << r.dynamics.size() << " (head_len " << r.head_len << ")\n";
	if (!r.head_len_error.empty())
		out << "  " << r.head_len_error << "\n";
	if (!r.dynamics.empty())
		out << "  index name                             block offset  size   main backup\n";
	for (const DynamicEntry &d : r.dynamics) {
		char line[160];
		std::snprintf(line, sizeof(line), "  %5u %-32s %5u %6u %5u   %-4s %s%s%s\n",
			      d.index, json_string(d.name).c_str(), d.block, d.offset, d.size,
			      slot_name(d.main), slot_name(d.backup),
			      d.record_error.empty() ? "" : "  ", d.record_error.c_str());
		out << line;
	}
	if (r.head_used >= 0) {
		out << "\nblock usage (content blocks in use):\n";
		for (const UsageEntry &u : r.usage)
			if (u.use || u.used)
				out << "  block " << u.block << ": used " << u.used
				    << " bytes, live " << u.live << "\n";
		out << "free " << r.free_bytes << " bytes, dead " << r.dead_bytes << " bytes\n";
	}
	out << "\n" << (r.blank ? "blank: nothing stored" : r.intact() ? "intact" : "damaged")
	    << "\n";
	for (const std::string &s : r.problems)
		out << "  " << s << "\n";
}

// --- Item requests through the item engine ------------------------------------

// One request as the ioctl entry makes it, without its permission checks:
// the item index from the catalogue, the device lock, the engine.
int item_request(int cmd, const std::string &name, Bytes &buf)
{
	struct user_cfg_para para;
	std::memset(&para, 0, sizeof(para));
	// A 32-byte name fills the field without a NUL, as the ioctl allows.
	std::memcpy(para.name, name.data(), std::min(name.size(), sizeof(para.name)));
	para.device_id = 0;
	para.cmd = (u32)cmd;
	para.cfg_index = devdrv_get_config_index_by_name(para.name);
	if (para.cfg_index < -1)
		return para.cfg_index;
	// A static item is read and written whole: the engine wants its exact
	// length, as the ioctl entry does.
	if (para.cfg_index >= 0 && cmd == USER_CFG_CMD_GET)
		buf.resize(user_cfg_version_1[para.cfg_index].size - 1);
	para.buf_size = (u32)buf.size();
	para.buf = (u64)(std::uintptr_t)buf.data();
	int ret;
	{
		Locked lock;
		ret = devdrv_user_config_op(&para, cmd, &para);
	}
	if (ret == 0 && cmd == USER_CFG_CMD_GET)
		buf.resize(std::min<std::size_t>(para.buf_size, buf.size()));
	return ret;
}

int refused(std::ostream &err, const std::string &what, int ret)
{
	err << "ucfg-image: " << what << ": " << std::strerror(-ret) << " (" << ret << ")\n";
	return ucfg::exit_code_for_errno(-ret);
}

// --- Commands -----------------------------------------------------------------

struct Session {
	Bytes file;
	Part part;
	std::unique_ptr<Window> window;
};

int open_session(const Options &o, Session &s, std::ostream &err)
{
	std::string error;
	if (!load_file(o.image, s.file, error)) {
		err << "ucfg-image: " << error << "\n";
		return kExitBadImage;
	}
	std::optional<Part> p = choose_part(s.file.size(), o, error);
	if (!p) {
		err << "ucfg-image: " << o.image << ": " << error << "\n";
		return kExitBadImage;
	}
	s.part = *p;
	s.window = std::make_unique<Window>(s.file, s.part);
	return kExitOk;
}

int save_if_changed(const Options &o, Session &s, std::ostream &err)
{
	if (s.window->changed().empty())
		return kExitOk;
	std::string error;
	if (!save_file(o.image, s.file, true, error)) {
		err << "ucfg-image: " << error << "\n";
		return kExitBadImage;
	}
	return kExitOk;
}

int cmd_create(const Options &o, std::ostream &out, std::ostream &err)
{
	struct stat st;
	if (!o.force && stat(o.image.c_str(), &st) == 0) {
		err << "ucfg-image: " << o.image << " exists (--force replaces it)\n";
		return kExitUsage;
	}
	Layout layout = o.layout == Layout::kFlash ? Layout::kFlash : Layout::kArea;
	std::uint64_t part = layout == Layout::kArea ? kAreaSize : o.flash_size;
	if (layout == Layout::kFlash && (part < kFlashMin || part > 0xFFFFFFFFULL)) {
		err << "ucfg-image: --flash-size must be at least 14942208 bytes (area at "
		       "0xA40000) and below 4 GiB\n";
		return kExitUsage;
	}
	// Fresh flash reads as erased bytes.
	Bytes file(part * o.devices, 0xff);
	if (o.init) {
		// What the store writes before its first value: an initialised
		// head with its check code, in both copies.
		for (std::uint32_t d = 0; d < o.devices; d++) {
			Part p{layout, part * d, part};
			Window w(file, p);
			Attached a(w);
			Bytes head(UCFG_BLK_SIZE);
			int ret;
			{
				Locked lock;
				ret = devdrv_config_init_block(head.data());
				if (ret == 0)
					ret = devdrv_config_set_check_code(head.data());
				if (ret == 0)
					ret = devdrv_config_write_blk_ops(0, UCFG_HEAD_MAIN_BLK,
									  head.data(), UCFG_WR_BOTH);
			}
			if (ret != 0)
				return refused(err, "initialise device " + std::to_string(d), ret);
		}
	}
	std::string error;
	if (!save_file(o.image, file, false, error)) {
		err << "ucfg-image: " << error << "\n";
		return kExitBadImage;
	}
	out << o.image << ": " << file.size() << " bytes, " << o.devices << " device(s), "
	    << (o.init ? "heads initialised" : "blank") << "\n";
	return kExitOk;
}

int cmd_inspect(const Options &o, std::ostream &out, std::ostream &err, bool verify)
{
	Session s;
	int rc = open_session(o, s, err);
	if (rc != kExitOk)
		return rc;
	Attached a(*s.window);
	Report r = analyse_locked();
	if (o.json)
		print_json(r, o.image, s.part, o.device, out);
	else if (verify)
		out << o.image << ": "
		    << (r.blank ? "blank: nothing stored" : r.intact() ? "intact" : "damaged")
		    << "\n";
	else
		print_text(r, o.image, s.part, o.device, out);
	if (verify && !o.json)
		for (const std::string &p : r.problems)
			out << "  " << p << "\n";
	if (!verify)
		return kExitOk;
	return r.blank || r.intact() ? kExitOk : kExitDamaged;
}

int cmd_get(const Options &o, std::ostream &out, std::ostream &err)
{
	Session s;
	int rc = open_session(o, s, err);
	if (rc != kExitOk)
		return rc;
	Attached a(*s.window);
	Bytes buf(ucfg::kDynamicMax);
	int ret = item_request(USER_CFG_CMD_GET, o.name, buf);
	// A get never changes the file: what the read would repair on a
	// device stays as it is until `repair` is asked for.
	if (ret != 0)
		return refused(err, "get " + o.name, ret);
	std::string error;
	if (!o.out_file.empty()) {
		if (!ucfg::write_value_file(o.out_file, buf, error)) {
			err << "ucfg-image: " << error << "\n";
			return kExitValue;
		}
		return kExitOk;
	}
	ucfg::Rendered r = ucfg::render_value(
		o.name, buf, o.raw ? ucfg::Show::kRaw : o.text ? ucfg::Show::kText : ucfg::Show::kHuman);
	out << r.out;
	if (!r.note.empty())
		err << "ucfg-image: " << r.note << "\n";
	return kExitOk;
}

int cmd_set_clear(const Options &o, std::ostream &err, bool set)
{
	std::string error;
	Bytes value;
	if (set) {
		std::optional<Bytes> v = !o.value.empty() && o.value[0] == '@'
						 ? ucfg::read_value_file(o.value.substr(1), error)
						 : ucfg::decode_value(o.name, o.value, error);
		if (!v || !ucfg::check_value_length(o.name, v->size(), error)) {
			err << "ucfg-image: " << error << "\n";
			return kExitValue;
		}
		value = *v;
	}
	Session s;
	int rc = open_session(o, s, err);
	if (rc != kExitOk)
		return rc;
	Attached a(*s.window);
	int ret = item_request(set ? USER_CFG_CMD_SET : USER_CFG_CMD_CLEAR, o.name, value);
	if (ret != 0)
		return refused(err, (set ? "set " : "clear ") + o.name, ret);
	return save_if_changed(o, s, err);
}

// What the device would repair on its next accesses: the head copies (any
// request validates them) and the main copy of every item from its backup
// (a read of the item). A damaged backup slot is only rewritten by the
// next write into its block, so repair leaves it and says so.
int cmd_repair(const Options &o, std::ostream &out, std::ostream &err)
{
	Session s;
	int rc = open_session(o, s, err);
	if (rc != kExitOk)
		return rc;
	Attached a(*s.window);
	Report before;
	{
		Locked lock;
		before = analyse();
		Bytes head(UCFG_BLK_SIZE);
		u32 state = 0, id = 0;
		int ret = devdrv_config_get_valid_block(0, head.data(), &state, &id);
		if (ret != 0)
			return refused(err, "repair of the head copies", ret);
	}
	for (const DynamicEntry &d : before.dynamics) {
		if (!d.record_error.empty() || d.main == Slot::kOk ||
		    devdrv_get_config_index_by_name(d.name.c_str()) != -1)
			continue;
		Bytes buf(ucfg::kDynamicMax);
		int ret = item_request(USER_CFG_CMD_GET, d.name, buf);
		if (ret != 0)
			err << "ucfg-image: " << d.name << ": cannot be read back ("
			    << std::strerror(-ret) << ")\n";
	}
	Report after = analyse_locked();
	out << o.image << ": ";
	if (s.window->changed().empty()) {
		out << "nothing to repair\n";
	} else {
		out << "rewrote block";
		for (std::uint32_t flash_blk : s.window->changed())
			out << " " << (flash_blk - UCFG_FLASH_BASE_BLK);
		out << "\n";
	}
	for (const std::string &p : after.problems)
		out << "  still: " << p << "\n";
	rc = save_if_changed(o, s, err);
	if (rc != kExitOk)
		return rc;
	return after.blank || after.intact() ? kExitOk : kExitDamaged;
}

// --- Command line ---------------------------------------------------------------

const char kUsage[] =
	"usage: ucfg-image [OPTIONS] COMMAND IMAGE [NAME [VALUE]]\n"
	"\n"
	"commands:\n"
	"  create IMAGE            a blank image (--init: with initialised heads)\n"
	"  inspect IMAGE           heads, items, slots and block usage\n"
	"  verify IMAGE            exit 0 only if both copies of everything are intact\n"
	"  get IMAGE NAME          the value of an item, as ucfg shows it\n"
	"  set IMAGE NAME VALUE    store a value (hex:.., 0x.., text:.., a number, @FILE)\n"
	"  clear IMAGE NAME        remove a named item, or a static item's value\n"
	"  repair IMAGE            what the device repairs on its next accesses\n"
	"\n"
	"options:\n"
	"  --json                  inspect/verify: machine-readable output\n"
	"  -d, --device N          the device's part of a file of several (default 0)\n"
	"  --devices K             the file holds K devices of equal size (default 1)\n"
	"  --layout area|flash     4 MiB area alone, or a whole flash with the area at\n"
	"                          0xA40000 (default: area if exactly 4 MiB per device)\n"
	"  --flash-size BYTES      create --layout flash: bytes per device (16 MiB)\n"
	"  --init                  create: write initialised head copies\n"
	"  --force                 create: replace an existing file\n"
	"  --raw, --text, -o FILE  get: hex bytes, text, or the bytes into FILE\n"
	"  -v, --verbose           show the store's messages\n"
	"\n"
	"exit: 0 ok, 1 usage, 2 bad or unreadable image, 3 refused, 4 not set,\n"
	"      5 bad value, 6 damaged (verify, repair)\n";

std::optional<std::uint64_t> number(const std::string &s)
{
	if (s.empty() || s[0] == '-')
		return std::nullopt;
	errno = 0;
	char *end = nullptr;
	unsigned long long v = std::strtoull(s.c_str(), &end, 0);
	if (errno || *end)
		return std::nullopt;
	return v;
}

std::optional<Options> parse(const std::vector<std::string> &args, std::string &error)
{
	Options o;
	std::vector<std::string> pos;
	for (std::size_t i = 0; i < args.size(); i++) {
		const std::string &a = args[i];
		auto next = [&](std::string &v) {
			if (i + 1 >= args.size()) {
				error = a + " needs a value";
				return false;
			}
			v = args[++i];
			return true;
		};
		std::string v;
		if (a == "--json") {
			o.json = true;
		} else if (a == "-v" || a == "--verbose") {
			o.verbose = true;
		} else if (a == "--init") {
			o.init = true;
		} else if (a == "--force") {
			o.force = true;
		} else if (a == "--raw") {
			o.raw = true;
		} else if (a == "--text") {
			o.text = true;
		} else if (a == "-o") {
			if (!next(o.out_file))
				return std::nullopt;
		} else if (a == "-d" || a == "--device" || a == "--devices" ||
			   a == "--flash-size") {
			if (!next(v))
				return std::nullopt;
			std::optional<std::uint64_t> n = number(v);
			if (!n || (a != "--flash-size" && *n > 64)) {
				error = "bad number for " + a + ": " + v;
				return std::nullopt;
			}
			if (a == "--flash-size")
				o.flash_size = *n;
			else if (a == "--devices")
				o.devices = (std::uint32_t)*n;
			else
				o.device = (std::uint32_t)*n;
		} else if (a == "--layout") {
			if (!next(v))
				return std::nullopt;
			if (v != "area" && v != "flash") {
				error = "--layout is area or flash";
				return std::nullopt;
			}
			o.layout = v == "area" ? Layout::kArea : Layout::kFlash;
		} else if (a == "--") {
			pos.insert(pos.end(), args.begin() + (long)i + 1, args.end());
			break;
		} else if (a.size() > 1 && a[0] == '-' && pos.size() < 3) {
			error = "unknown option " + a;
			return std::nullopt;
		} else {
			pos.push_back(a);
		}
	}
	if (pos.empty()) {
		error = "no command";
		return std::nullopt;
	}
	o.command = pos[0];
	static const std::map<std::string, std::size_t> arity = {
		{"create", 2}, {"inspect", 2}, {"verify", 2}, {"repair", 2},
		{"get", 3},    {"clear", 3},   {"set", 4},
	};
	auto it = arity.find(o.command);
	if (it == arity.end()) {
		error = "unknown command " + o.command;
		return std::nullopt;
	}
	if (pos.size() != it->second) {
		error = o.command + " takes " + std::to_string(it->second - 1) + " argument(s)";
		return std::nullopt;
	}
	o.image = pos[1];
	if (pos.size() > 2)
		o.name = pos[2];
	if (pos.size() > 3)
		o.value = pos[3];
	if (o.devices == 0) {
		error = "--devices must be at least 1";
		return std::nullopt;
	}
	if (o.name.size() > ucfg::kNameMax || (pos.size() > 2 && o.name.empty())) {
		error = "an item name is 1 to 32 bytes";
		return std::nullopt;
	}
	return o;
}

} // namespace

int run(const std::vector<std::string> &args, std::ostream &out, std::ostream &err)
{
	if (args.size() == 1 && (args[0] == "-h" || args[0] == "--help" || args[0] == "help")) {
		out << kUsage;
		return kExitOk;
	}
	std::string error;
	std::optional<Options> o = parse(args, error);
	if (!o) {
		err << "ucfg-image: " << error << "\n" << kUsage;
		return kExitUsage;
	}
	echo_module_log(o->verbose);
	int rc;
	if (o->command == "create")
		rc = cmd_create(*o, out, err);
	else if (o->command == "inspect" || o->command == "verify")
		rc = cmd_inspect(*o, out, err, o->command == "verify");
	else if (o->command == "get")
		rc = cmd_get(*o, out, err);
	else if (o->command == "set" || o->command == "clear")
		rc = cmd_set_clear(*o, err, o->command == "set");
	else
		rc = cmd_repair(*o, out, err);
	take_module_log();
	return rc;
}

int inspect_memory(std::vector<std::uint8_t> &bytes, bool json, std::ostream &out,
		   std::ostream &err)
{
	Options o;
	std::string error;
	std::optional<Part> p = choose_part(bytes.size(), o, error);
	if (!p) {
		err << "ucfg-image: " << error << "\n";
		return kExitBadImage;
	}
	Window w(bytes, *p);
	Attached a(w);
	Report r = analyse_locked();
	if (json)
		print_json(r, "memory", *p, 0, out);
	else
		print_text(r, "memory", *p, 0, out);
	take_module_log();
	return r.blank || r.intact() ? kExitOk : kExitDamaged;
}

} // namespace ucfg_image
