// SPDX-License-Identifier: GPL-2.0
//
// ucfg: reads, sets and clears the configuration items of /dev/user_config.
//
// The driver is strict about lengths: a static item is read and written with
// exactly its value length, and a dynamic item is read into a buffer large
// enough for any content, after which the driver leaves the content length in
// the record's buf_size. The tool checks every value before the ioctl so that
// a malformed value never reaches the flash and its message names the cause.
#include "ucfg.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "uapi/user_cfg.h"
#include "view.h"

namespace ucfg {
namespace {

// Lengths the driver enforces for the static items; any other name is a
// dynamic item.
constexpr StaticItem kStaticItems[] = {
    {"cpu_num_cfg", 16, Form::kCpuNum},   {"p2p_mem_cfg", 4, Form::kU32},
    {"ddr_ecc_enable", 1, Form::kSwitch}, {"ccpu_usr_cert_hash", 1024, Form::kHex},
    {"usershadow", 2048, Form::kSecret},  {"ssh_status", 1, Form::kSwitch},
};

bool starts_with(std::string_view s, std::string_view prefix)
{
	return s.substr(0, prefix.size()) == prefix;
}

int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	if (c >= 'a' && c <= 'f')
		return c - 'a' + 10;
	if (c >= 'A' && c <= 'F')
		return c - 'A' + 10;
	return -1;
}

// Hex digit pairs in order, the first pair being byte 0. Blanks and colons
// may separate bytes for readability ("0a:0b", "0a 0b").
std::optional<Bytes> parse_hex(std::string_view text, std::string &error)
{
	Bytes out;
	int high = -1;
	for (char c : text) {
		if (c == ' ' || c == ':' || c == '\t' || c == '\n') {
			if (high >= 0) {
				error = "hex bytes need two digits each";
				return std::nullopt;
			}
			continue;
		}
		int d = hex_digit(c);
		if (d < 0) {
			error = std::string("'") + c + "' is not a hex digit";
			return std::nullopt;
		}
		if (high < 0) {
			high = d;
		} else {
			out.push_back(static_cast<std::uint8_t>(high << 4 | d));
			high = -1;
		}
	}
	if (high >= 0) {
		error = "odd number of hex digits";
		return std::nullopt;
	}
	return out;
}

// A whole unsigned number, decimal or with 0x, no sign, no overflow.
std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t max)
{
	int base = 10;
	if (starts_with(text, "0x") || starts_with(text, "0X")) {
		text.remove_prefix(2);
		base = 16;
	}
	if (text.empty())
		return std::nullopt;
	std::uint64_t v = 0;
	auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
	if (ec != std::errc() || end != text.data() + text.size() || v > max)
		return std::nullopt;
	return v;
}

std::string_view trim(std::string_view s)
{
	while (!s.empty() && s.front() == ' ')
		s.remove_prefix(1);
	while (!s.empty() && s.back() == ' ')
		s.remove_suffix(1);
	return s;
}

std::optional<Bytes> decode_human(const StaticItem &item, std::string_view text, std::string &error)
{
	switch (item.form) {
	case Form::kSwitch:
		if (text == "on" || text == "1")
			return Bytes{1};
		if (text == "off" || text == "0")
			return Bytes{0};
		error = std::string(item.name) + " is on or off";
		return std::nullopt;
	case Form::kCpuNum: {
		// Bytes 3 to 15 carry nothing; they are stored as zeros.
		Bytes out(item.length, 0);
		std::size_t field = 0;
		while (true) {
			std::size_t comma = text.find(',');
			auto n = parse_number(trim(text.substr(0, comma)), 255);
			if (field >= 3 || !n) {
				error = "cpu_num_cfg is ctrl,data,ai: three numbers 0 to 255, "
					"e.g. 1,2,4";
				return std::nullopt;
			}
			out[field++] = static_cast<std::uint8_t>(*n);
			if (comma == std::string_view::npos)
				break;
			text.remove_prefix(comma + 1);
		}
		if (field != 3) {
			error = "cpu_num_cfg is ctrl,data,ai: three numbers 0 to 255, e.g. 1,2,4";
			return std::nullopt;
		}
		return out;
	}
	case Form::kU32: {
		auto n = parse_number(text, 0xffffffffu);
		if (!n) {
			error = std::string(item.name) + " is a number from 0 to 4294967295";
			return std::nullopt;
		}
		Bytes out(4);
		for (int i = 0; i < 4; i++)
			out[i] = static_cast<std::uint8_t>(*n >> (8 * i));
		return out;
	}
	case Form::kHex:
	case Form::kSecret:
		break;
	}
	error = std::string(item.name) + " takes hex:.., 0x.., text:.. or @FILE";
	return std::nullopt;
}

std::uint32_t le32(const Bytes &v)
{
	return static_cast<std::uint32_t>(v[0]) | static_cast<std::uint32_t>(v[1]) << 8 |
	       static_cast<std::uint32_t>(v[2]) << 16 | static_cast<std::uint32_t>(v[3]) << 24;
}

bool is_text(const Bytes &v)
{
	return std::all_of(v.begin(), v.end(), [](std::uint8_t b) {
		return (b >= 0x20 && b < 0x7f) || b == '\n' || b == '\t' || b == '\r';
	});
}

std::string format(const char *fmt, unsigned long a, unsigned long b = 0, unsigned long c = 0)
{
	char buf[128];
	std::snprintf(buf, sizeof(buf), fmt, a, b, c);
	return buf;
}

struct ErrnoText {
	int err;
	const char *symbol;
	const char *text;
};

// What the driver's results mean for a user of the tool. The driver passes
// its negative results through unchanged, so errno names the failing layer.
constexpr ErrnoText kRequestErrnos[] = {
    {EACCES, "EACCES",
     "permission refused: this item needs CAP_SYS_ADMIN (usershadow) or the caller "
     "must be a whitelisted daemon for set/clear"},
    {ENOENT, "ENOENT", "item never set (dynamic item not stored)"},
    {EINVAL, "EINVAL",
     "bad request: device number beyond the device count, wrong value length for a "
     "static item, control module not loaded (or reporting more than 2 devices), or "
     "unknown item or command"},
    {ENOSPC, "ENOSPC",
     "no space left in the store / item table full: clear dynamic items that are no "
     "longer needed"},
    {ENXIO, "ENXIO",
     "item content damaged in both copies, or buffer too small: set the item again"},
    {ENODEV, "ENODEV",
     "flash read/write failed or board id unreadable: check the secure-flash module "
     "and the kernel log"},
    {ENOMEM, "ENOMEM", "the driver ran out of memory (or could not map a register): retry"},
    {ENODATA, "ENODATA", "SHA-256 unavailable: the kernel needs its sha256 crypto support"},
    {EDOM, "EDOM",
     "check code mismatch in one flash copy: see the kernel log; the driver repairs "
     "such a copy from its twin"},
    {ENOTTY, "ENOTTY",
     "the node does not know this command: is it the user_config device, and is ucfg a "
     "64-bit program? (the driver has no 32-bit entry)"},
    {EFAULT, "EFAULT", "bad address: the request or its buffer is not readable/writable"},
};

// The request record for one item command; buf and buf_size as given.
user_cfg_para make_record(const Options &o, std::uint32_t cmd, Bytes *buf, std::uint32_t size)
{
	user_cfg_para rec;
	std::memset(&rec, 0, sizeof(rec));
	rec.device_id = o.device;
	rec.cmd = cmd;
	// A name of exactly 32 bytes travels without a terminating zero.
	std::memcpy(rec.name, o.name.data(), std::min(o.name.size(), sizeof(rec.name)));
	rec.buf_size = size;
	rec.buf = buf ? static_cast<__u64>(reinterpret_cast<std::uintptr_t>(buf->data())) : 0;
	return rec;
}

// Exit status for one ioctl result, with the explanation on err.
int report(const IoctlResult &r, const std::string &what, std::ostream &err)
{
	if (r.ret == 0)
		return kExitOk;
	if (r.ret > 0) {
		// A short copy between user and kernel space is reported by the
		// driver as the positive count of bytes it could not copy; ioctl(2)
		// returns that count as it is and errno stays untouched.
		err << "ucfg: " << what << ": the driver could not copy " << r.ret
		    << " bytes of the request: check the buffer addresses\n";
		return kExitRefused;
	}
	if (r.ret == -1) {
		err << "ucfg: " << what << ": " << explain_request_errno(r.err) << "\n";
		return exit_code_for_errno(r.err);
	}
	err << "ucfg: " << what << ": unexpected result " << r.ret << " from the driver\n";
	return kExitRefused;
}

std::string describe(const Options &o)
{
	const char *verb = o.command == Command::kGet   ? "get"
			   : o.command == Command::kSet ? "set"
							: "clear";
	return std::string(verb) + " " + o.name + " (device " + std::to_string(o.device) + ")";
}


int do_get(const Options &o, Transport &t, std::ostream &out, std::ostream &err)
{
	const StaticItem *item = find_static_item(o.name);
	// The driver refuses a static read whose buffer is not exactly the
	// value's length, larger ones included.
	Bytes buf(item ? item->length : kDynamicMax);
	user_cfg_para rec =
	    make_record(o, USER_CFG_CMD_GET, &buf, static_cast<std::uint32_t>(buf.size()));
	int rc = report(t.ioctl(USER_CFG_IOC_ITEM, &rec), describe(o), err);
	if (rc != kExitOk)
		return rc;
	if (!item) {
		if (rec.buf_size > kDynamicMax) {
			err << "ucfg: " << describe(o) << ": the driver reported " << rec.buf_size
			    << " bytes of content in a " << kDynamicMax << "-byte buffer\n";
			return kExitRefused;
		}
		buf.resize(rec.buf_size);
	}
	if (!o.out_file.empty()) {
		std::string error;
		if (!write_value_file(o.out_file, buf, error)) {
			err << "ucfg: " << error << "\n";
			return kExitValue;
		}
		return kExitOk;
	}
	Show show = o.raw ? Show::kRaw : o.text ? Show::kText : Show::kHuman;
	Rendered r = render_value(o.name, buf, show);
	out << r.out;
	if (!r.note.empty())
		err << "ucfg: " << r.note << "\n";
	return kExitOk;
}

int do_item(const Options &o, Bytes *value, Transport &t, std::ostream &out, std::ostream &err)
{
	if (o.command == Command::kGet)
		return do_get(o, t, out, err);
	user_cfg_para rec =
	    o.command == Command::kSet
		? make_record(o, USER_CFG_CMD_SET, value, static_cast<std::uint32_t>(value->size()))
		: make_record(o, USER_CFG_CMD_CLEAR, nullptr, 0);
	return report(t.ioctl(USER_CFG_IOC_ITEM, &rec), describe(o), err);
}

// list and status: the driver's view of the device's store, parsed.
int do_view(const Options &o, Transport &t, std::ostream &out, std::ostream &err)
{
	std::string path = o.view_dir + "/dev" + std::to_string(o.device), text, error;
	if (int e = t.read_view(path, text)) {
		err << "ucfg: cannot read " << path << ": " << std::strerror(e)
		    << (e == ENOENT ? " (is debugfs mounted, and the driver loaded?)"
			: e == EACCES || e == EPERM ? " (the view is for root only)" : "")
		    << "\n";
		return kExitNoDevice;
	}
	std::optional<StoreView> v = parse_view(text, error);
	if (!v) {
		err << "ucfg: " << path << ": " << error << "\n";
		return kExitRefused;
	}
	if (o.json) {
		nlohmann::ordered_json j = to_json(*v);
		if (o.command == Command::kStatus && o.size)
			j["fits"] = {{"size", o.size}, {"result", v->fits(o.size)}};
		out << j.dump(2) << "\n";
	} else if (o.command == Command::kList) {
		print_list(*v, out);
	} else {
		print_status(*v, out);
		if (o.size)
			out << "a new named item of " << o.size << " bytes: " << v->fits(o.size) << "\n";
	}
	return kExitOk;
}

int do_boot_cfg(Transport &t, std::ostream &out, std::ostream &err)
{
	std::uint32_t bit = 0;
	int rc = report(t.ioctl(USER_CFG_IOC_BOOT_CFG, &bit), "boot-cfg", err);
	if (rc != kExitOk)
		return rc;
	// The driver keeps bit 5 in place: the answer is 0 or 32.
	if (bit == 32)
		out << "set: bit 5 of the boot configuration register is 1 (the driver reports 32)\n";
	else if (bit == 0)
		out << "clear: bit 5 of the boot configuration register is 0\n";
	else
		out << bit << " (unexpected: the driver reports 0 or 32)\n";
	return kExitOk;
}

int do_dts_cpu(Transport &t, std::ostream &out, std::ostream &err)
{
	// Twelve bytes come back although the command's size field says 4.
	std::uint32_t cpus[3] = {0, 0, 0};
	int rc = report(t.ioctl(USER_CFG_IOC_DTS_CPU, cpus), "dts-cpu", err);
	if (rc != kExitOk)
		return rc;
	out << format("control %lu, data %lu, AI %lu\n", cpus[0], cpus[1], cpus[2]);
	return kExitOk;
}

} // namespace

// Reads FILE whole; values longer than a dynamic item can hold are refused
// without reading further.
std::optional<Bytes> read_value_file(const std::string &path, std::string &error)
{
	std::FILE *f = std::fopen(path.c_str(), "rb");
	if (!f) {
		error = "cannot open " + path + ": " + std::strerror(errno);
		return std::nullopt;
	}
	Bytes data(kDynamicMax + 1);
	std::size_t n = std::fread(data.data(), 1, data.size(), f);
	bool failed = std::ferror(f);
	int saved = errno;
	std::fclose(f);
	if (failed) {
		error = "cannot read " + path + ": " + std::strerror(saved);
		return std::nullopt;
	}
	if (n > kDynamicMax) {
		error = path + " holds more than " + std::to_string(kDynamicMax) +
			" bytes, the longest value an item can hold";
		return std::nullopt;
	}
	data.resize(n);
	return data;
}

bool write_value_file(const std::string &path, const Bytes &v, std::string &error)
{
	std::FILE *f = std::fopen(path.c_str(), "wb");
	if (!f) {
		error = "cannot create " + path + ": " + std::strerror(errno);
		return false;
	}
	bool ok = std::fwrite(v.data(), 1, v.size(), f) == v.size();
	int saved = errno;
	if (std::fclose(f) != 0 && ok) {
		ok = false;
		saved = errno;
	}
	if (!ok)
		error = "cannot write " + path + ": " + std::strerror(saved);
	return ok;
}

const StaticItem *find_static_item(std::string_view name)
{
	for (const StaticItem &item : kStaticItems)
		if (name == item.name)
			return &item;
	return nullptr;
}

std::optional<Bytes> decode_value(std::string_view name, std::string_view text, std::string &error)
{
	const StaticItem *item = find_static_item(name);
	if (starts_with(text, "hex:"))
		return parse_hex(text.substr(4), error);
	if (starts_with(text, "text:")) {
		text.remove_prefix(5);
		return Bytes(text.begin(), text.end());
	}
	if (starts_with(text, "0x") || starts_with(text, "0X")) {
		// get prints p2p_mem_cfg as a number with its hex form: 0x.. reads
		// back as that number, not as bytes in flash order.
		if (item && item->form == Form::kU32)
			return decode_human(*item, text, error);
		return parse_hex(text.substr(2), error);
	}
	if (item)
		return decode_human(*item, text, error);
	error = "a value is hex:.., 0x.., text:.. or @FILE";
	return std::nullopt;
}

bool check_value_length(std::string_view name, std::size_t n, std::string &error)
{
	if (const StaticItem *item = find_static_item(name)) {
		if (n == item->length)
			return true;
		error = std::string(item->name) + " takes exactly " + std::to_string(item->length) +
			" bytes, the value has " + std::to_string(n);
		if (item->form == Form::kCpuNum)
			error += " (ctrl,data,ai is padded with zeros for you)";
		return false;
	}
	if (n >= 1 && n <= kDynamicMax)
		return true;
	error = "a dynamic item holds 1 to " + std::to_string(kDynamicMax) +
		" bytes, the value has " + std::to_string(n);
	return false;
}

std::string hex_string(const Bytes &value)
{
	static const char digits[] = "0123456789abcdef";
	std::string s;
	s.reserve(value.size() * 2);
	for (std::uint8_t b : value) {
		s += digits[b >> 4];
		s += digits[b & 15];
	}
	return s;
}

std::string hex_dump(const Bytes &value)
{
	std::string s;
	bool skipping = false;
	for (std::size_t off = 0; off < value.size(); off += 16) {
		std::size_t n = std::min<std::size_t>(16, value.size() - off);
		if (off >= 16 && n == 16 &&
		    std::equal(value.begin() + off, value.begin() + off + 16,
			       value.begin() + off - 16)) {
			if (!skipping)
				s += "*\n";
			skipping = true;
			continue;
		}
		skipping = false;
		char line[96];
		int len = std::snprintf(line, sizeof(line), "%08zx ", off);
		for (std::size_t i = 0; i < 16; i++) {
			if (i == 8)
				line[len++] = ' ';
			if (i < n)
				len += std::snprintf(line + len, sizeof(line) - len, " %02x",
						     value[off + i]);
			else
				len += std::snprintf(line + len, sizeof(line) - len, "   ");
		}
		s.append(line, len);
		s += "  |";
		for (std::size_t i = 0; i < n; i++) {
			std::uint8_t b = value[off + i];
			s += (b >= 0x20 && b < 0x7f) ? static_cast<char>(b) : '.';
		}
		s += "|\n";
	}
	s += format("%08lx\n", value.size());
	return s;
}

Rendered render_value(std::string_view name, const Bytes &value, Show show)
{
	const StaticItem *item = find_static_item(name);
	if (show == Show::kRaw)
		return {hex_string(value) + "\n", ""};
	if (!item) {
		if (show == Show::kText) {
			if (is_text(value)) {
				std::string s(value.begin(), value.end());
				if (!s.empty() && s.back() != '\n')
					s += '\n';
				return {s, ""};
			}
			return {hex_dump(value), "the content is not printable text; shown in hex"};
		}
		return {hex_dump(value), ""};
	}
	if (value.size() != item->length)
		return {hex_dump(value), std::string(item->name) + " came back with " +
					     std::to_string(value.size()) + " bytes instead of " +
					     std::to_string(item->length)};
	switch (item->form) {
	case Form::kCpuNum: {
		Rendered r{format("control %lu, data %lu, AI %lu\n", value[0], value[1], value[2]),
			   ""};
		Bytes rest(value.begin() + 3, value.end());
		if (std::any_of(rest.begin(), rest.end(), [](std::uint8_t b) { return b; }))
			r.note = "bytes 3 to 15 are not zero: " + hex_string(rest);
		return r;
	}
	case Form::kU32:
		return {format("%lu (0x%08lx)\n", le32(value), le32(value)), ""};
	case Form::kSwitch:
		if (value[0] <= 1)
			return {value[0] ? "on (1)\n" : "off (0)\n", ""};
		// The driver stores static values without checking them.
		return {std::to_string(value[0]) + "\n", std::string(item->name) + " holds " +
							     std::to_string(value[0]) +
							     ", neither off (0) nor on (1)"};
	case Form::kHex:
		return {hex_dump(value), ""};
	case Form::kSecret: {
		auto set = std::count_if(value.begin(), value.end(),
					 [](std::uint8_t b) { return b != 0; });
		return {format("%lu of %lu bytes set (secret: --raw prints them in hex)\n",
			       static_cast<unsigned long>(set), value.size()),
			""};
	}
	}
	return {hex_dump(value), ""};
}

std::string explain_request_errno(int err)
{
	for (const ErrnoText &e : kRequestErrnos)
		if (e.err == err)
			return std::string(e.text) + " (" + e.symbol + ")";
	return std::string(std::strerror(err)) + " (errno " + std::to_string(err) +
	       "): see the kernel log for the driver's messages";
}

std::string explain_open_errno(int err, const std::string &node)
{
	switch (err) {
	case ENOENT:
		return "cannot open " + node +
		       ": no such node: is the drv_user_cfg module loaded? (--device-node "
		       "names another node)";
	case EACCES:
	case EPERM:
		return "cannot open " + node +
		       ": permission denied: the node is mode 0600, run "
		       "as root";
	case ENXIO:
	case ENODEV:
		return "cannot open " + node +
		       ": no driver behind the node: the drv_user_cfg module is not loaded";
	default:
		return "cannot open " + node + ": " + std::strerror(err);
	}
}

int exit_code_for_errno(int err)
{
	return err == ENOENT ? kExitNotSet : kExitRefused;
}

std::string usage()
{
	return "Usage: ucfg [OPTIONS] COMMAND [ARGS]\n"
	       "\n"
	       "Reads and changes the configuration items kept by the drv_user_cfg driver.\n"
	       "\n"
	       "Commands:\n"
	       "  get [--raw | --text] [-o FILE] NAME   print an item (or write it to FILE)\n"
	       "  set NAME VALUE                        store an item\n"
	       "  clear NAME                            remove a dynamic item, or return a\n"
	       "                                        static item to its default\n"
	       "  list [--json]                         every item with its size and health\n"
	       "  status [--json] [--size N]            the store's health and space; with\n"
	       "                                        --size, whether N more bytes fit\n"
	       "  boot-cfg                              print the boot configuration bit\n"
	       "  dts-cpu                               print the device tree's CPU numbers\n"
	       "\n"
	       "Static items: cpu_num_cfg (16 bytes), p2p_mem_cfg (4), ddr_ecc_enable (1),\n"
	       "ccpu_usr_cert_hash (1024), usershadow (2048), ssh_status (1). Any other NAME\n"
	       "(1 to 32 bytes; \\xHH for a byte that is not printable, as list shows it)\n"
	       "is a dynamic item of 1 to 32768 bytes.\n"
	       "\n"
	       "VALUE: hex:0a0b (bytes), 0x0a0b (bytes; a number for p2p_mem_cfg),\n"
	       "text:STRING, @FILE (the file's bytes), or a human form: on/off for\n"
	       "ssh_status and ddr_ecc_enable, ctrl,data,ai (e.g. 1,2,4) for cpu_num_cfg,\n"
	       "a number for p2p_mem_cfg.\n"
	       "\n"
	       "Options:\n"
	       "  -d, --device N          device number (default 0)\n"
	       "      --device-node PATH  device node (default /dev/user_config)\n"
	       "      --view-dir DIR      list, status: the view files (default\n"
	       "                          /sys/kernel/debug/user_config; root only)\n"
	       "      --raw               get: print the value as one hex string\n"
	       "      --text              get: print a dynamic item as text when printable\n"
	       "  -o, --output FILE       get: write the value's bytes to FILE\n"
	       "      --json              list, status: machine-readable output\n"
	       "  -h, --help              print this help and exit\n"
	       "      --version           print the version and exit\n"
	       "\n"
	       "Exit status:\n"
	       "  0  success\n"
	       "  1  usage error\n"
	       "  2  the device node (or the view) cannot be opened\n"
	       "  3  the driver refused or failed the request\n"
	       "  4  the item is not set (ENOENT)\n"
	       "  5  bad value, or a value file could not be read or written\n";
}

std::optional<Options> parse_args(const std::vector<std::string> &args, std::string &error)
{
	enum { kNode = 256, kRaw, kText, kJson, kSize, kViewDir, kVersionOpt };
	static const struct option longs[] = {
		{"device", required_argument, nullptr, 'd'},
		{"device-node", required_argument, nullptr, kNode},
		{"output", required_argument, nullptr, 'o'},
		{"raw", no_argument, nullptr, kRaw},
		{"text", no_argument, nullptr, kText},
		{"json", no_argument, nullptr, kJson},
		{"size", required_argument, nullptr, kSize},
		{"view-dir", required_argument, nullptr, kViewDir},
		{"help", no_argument, nullptr, 'h'},
		{"version", no_argument, nullptr, kVersionOpt},
		{nullptr, 0, nullptr, 0},
	};
	Options o;
	std::vector<std::string> argv_s{"ucfg"};
	argv_s.insert(argv_s.end(), args.begin(), args.end());
	std::vector<char *> argv;
	for (std::string &a : argv_s)
		argv.push_back(a.data());
	argv.push_back(nullptr);
	bool help = false, version = false, device_given = false;
	optind = 0;	// a fresh scan, also for a second call
	opterr = 0;
	for (int c; (c = getopt_long(static_cast<int>(argv_s.size()), argv.data(), ":d:o:h",
				     longs, nullptr)) != -1;) {
		std::string arg = optarg ? optarg : "";
		std::optional<std::uint64_t> n;
		switch (c) {
		case 'd':
			n = parse_number(arg, 0xffffffffu);
			if (!n) {
				error = "device number '" + arg + "' is not a number";
				return std::nullopt;
			}
			o.device = static_cast<std::uint32_t>(*n);
			device_given = true;
			break;
		case kSize:
			n = parse_number(arg, kDynamicMax);
			if (!n) {
				error = "--size takes a length of 0 to 32768 bytes";
				return std::nullopt;
			}
			o.size = static_cast<std::uint32_t>(*n);
			break;
		case kNode:
		case kViewDir:
		case 'o':
			if (arg.empty()) {
				error = std::string(argv[optind - 1]) + " needs a value";
				return std::nullopt;
			}
			(c == kNode ? o.node : c == kViewDir ? o.view_dir : o.out_file) = arg;
			break;
		case kRaw:
			o.raw = true;
			break;
		case kText:
			o.text = true;
			break;
		case kJson:
			o.json = true;
			break;
		case 'h':
			help = true;
			break;
		case kVersionOpt:
			version = true;
			break;
		case ':':
			error = std::string(argv[optind - 1]) + " needs a value";
			return std::nullopt;
		default:
			error = "unknown option " + std::string(argv[optind - 1]);
			return std::nullopt;
		}
	}
	if (help || version) {
		o.command = help ? Command::kHelp : Command::kVersion;
		return o;
	}
	// getopt_long has moved the operands behind the options.
	std::vector<std::string> pos(argv.begin() + optind, argv.end() - 1);
	if (pos.empty()) {
		error = "no command given";
		return std::nullopt;
	}
	struct Verb {
		const char *word;
		Command command;
		std::size_t args;
	};
	static const Verb verbs[] = {
		{"get", Command::kGet, 1},        {"set", Command::kSet, 2},
		{"clear", Command::kClear, 1},    {"list", Command::kList, 0},
		{"status", Command::kStatus, 0},  {"boot-cfg", Command::kBootCfg, 0},
		{"dts-cpu", Command::kDtsCpu, 0}, {"help", Command::kHelp, 0},
	};
	const Verb *verb = nullptr;
	for (const Verb &v : verbs)
		if (pos[0] == v.word)
			verb = &v;
	if (!verb) {
		error = "unknown command '" + pos[0] + "'";
		return std::nullopt;
	}
	o.command = verb->command;
	if (pos.size() - 1 != verb->args) {
		error = std::string(verb->word) + " takes " +
			(verb->args == 0   ? "no arguments"
			 : verb->args == 1 ? "one argument, NAME"
					   : "two arguments, NAME and VALUE");
		return std::nullopt;
	}
	if (verb->args > 0) {
		std::optional<std::string> name = unescape_name(pos[1]);
		if (!name || name->empty() || name->size() > kNameMax) {
			error = "an item name is 1 to " + std::to_string(kNameMax) +
				" bytes (\\xHH for one byte)";
			return std::nullopt;
		}
		o.name = *name;
	}
	if (verb->args == 2)
		o.value = pos[2];
	bool per_device = verb->args > 0 || o.command == Command::kList ||
			  o.command == Command::kStatus;
	if (!per_device && device_given) {
		error = std::string(verb->word) + " is not per device: drop -d";
		return std::nullopt;
	}
	if (o.command != Command::kGet && (o.raw || o.text || !o.out_file.empty())) {
		error = "--raw, --text and -o apply to get only";
		return std::nullopt;
	}
	if (o.raw + o.text + !o.out_file.empty() > 1) {
		error = "choose one of --raw, --text and -o";
		return std::nullopt;
	}
	if (o.text && find_static_item(o.name)) {
		error = "--text applies to dynamic items; " + o.name + " is a static item";
		return std::nullopt;
	}
	if (o.json && o.command != Command::kList && o.command != Command::kStatus) {
		error = "--json applies to list and status";
		return std::nullopt;
	}
	if (o.size && o.command != Command::kStatus) {
		error = "--size applies to status";
		return std::nullopt;
	}
	return o;
}

DeviceTransport::~DeviceTransport()
{
	if (fd_ >= 0)
		::close(fd_);
}

int DeviceTransport::open(const std::string &node)
{
	if (fd_ >= 0)
		::close(fd_);
	// The commands only read through ioctl; the node needs no write access.
	fd_ = ::open(node.c_str(), O_RDONLY | O_CLOEXEC);
	return fd_ < 0 ? errno : 0;
}

int DeviceTransport::read_view(const std::string &path, std::string &text)
{
	std::ifstream f(path, std::ios::binary);
	if (!f)
		return errno ? errno : EIO;
	std::ostringstream o;
	o << f.rdbuf();
	text = o.str();
	return 0;
}

IoctlResult DeviceTransport::ioctl(unsigned long request, void *arg)
{
	IoctlResult r;
	r.ret = ::ioctl(fd_, request, arg);
	r.err = r.ret == -1 ? errno : 0;
	return r;
}

int run(const std::vector<std::string> &args, Transport &transport, std::ostream &out,
	std::ostream &err)
{
	std::string error;
	std::optional<Options> o = parse_args(args, error);
	if (!o) {
		err << "ucfg: " << error << "\nTry 'ucfg --help'.\n";
		return kExitUsage;
	}
	if (o->command == Command::kHelp) {
		out << usage();
		return kExitOk;
	}
	if (o->command == Command::kVersion) {
		out << "ucfg " << kVersion << "\n";
		return kExitOk;
	}
	if (o->command == Command::kList || o->command == Command::kStatus)
		return do_view(*o, transport, out, err);

	// The value is settled before the node is touched: a bad value is the
	// same mistake whether or not the driver is there.
	Bytes value;
	if (o->command == Command::kSet) {
		std::optional<Bytes> v = o->value.size() > 1 && o->value[0] == '@'
					     ? read_value_file(o->value.substr(1), error)
					     : decode_value(o->name, o->value, error);
		if (!v || !check_value_length(o->name, v->size(), error)) {
			err << "ucfg: set " << o->name << ": " << error << "\n";
			return kExitValue;
		}
		value = std::move(*v);
	}

	if (int e = transport.open(o->node)) {
		err << "ucfg: " << explain_open_errno(e, o->node) << "\n";
		return kExitNoDevice;
	}
	switch (o->command) {
	case Command::kBootCfg:
		return do_boot_cfg(transport, out, err);
	case Command::kDtsCpu:
		return do_dts_cpu(transport, out, err);
	default:
		return do_item(*o, &value, transport, out, err);
	}
}

} // namespace ucfg
