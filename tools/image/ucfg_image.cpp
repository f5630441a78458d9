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
#include "view.h"

#include <fcntl.h>
#include <getopt.h>
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
using ucfg::StoreView;
using ucfg::escape_name;
using ucfg::parse_view;
using ucfg::print_list;
using ucfg::print_status;
using ucfg::to_json;

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

// The module's own view of the device in the image: the same text a board
// shows in debugfs, so the image and the board are read alike.
StoreView view_of_image()
{
	std::string text(UCFG_VIEW_SIZE, '\0'), error;
	int n = devdrv_config_view(0, text.data(), UCFG_VIEW_SIZE);
	text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
	std::optional<StoreView> v = parse_view(text, error);
	if (!v) {
		v = StoreView();
		v->head_main = v->head_backup = "unreadable";
	}
	return *v;
}

void print_text(const StoreView &v, const std::string &image, const Part &p,
		std::uint32_t device, std::ostream &out)
{
	out << image << ": " << (p.layout == Layout::kArea ? "configuration area" : "whole flash")
	    << ", device " << device << "\n";
	print_status(v, out);
	print_list(v, out);
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
	StoreView v = view_of_image();
	std::vector<std::string> problems = v.problems();
	if (o.json)
		out << to_json(v).dump(2) << "\n";
	else if (!verify)
		print_text(v, o.image, s.part, o.device, out);
	else
		out << o.image << ": "
		    << (v.blank() ? "blank: nothing stored" : problems.empty() ? "intact" : "damaged")
		    << "\n";
	if (verify && !o.json)
		for (const std::string &p : problems)
			out << "  " << p << "\n";
	return !verify || problems.empty() ? kExitOk : kExitDamaged;
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
	StoreView before = view_of_image();
	{
		Locked lock;
		Bytes head(UCFG_BLK_SIZE);
		u32 state = 0, id = 0;
		int ret = devdrv_config_get_valid_block(0, head.data(), &state, &id);
		if (ret != 0)
			return refused(err, "repair of the head copies", ret);
	}
	for (const StoreView::Item &d : before.items) {
		if (d.main_ok || devdrv_get_config_index_by_name(d.name.c_str()) != -1)
			continue;
		Bytes buf(ucfg::kDynamicMax);
		int ret = item_request(USER_CFG_CMD_GET, d.name, buf);
		if (ret != 0)
			err << "ucfg-image: " << escape_name(d.name) << ": cannot be read back ("
			    << std::strerror(-ret) << ")\n";
	}
	StoreView after = view_of_image();
	out << o.image << ": ";
	if (s.window->changed().empty()) {
		out << "nothing to repair\n";
	} else {
		out << "rewrote block";
		for (std::uint32_t flash_blk : s.window->changed())
			out << " " << (flash_blk - UCFG_FLASH_BASE_BLK);
		out << "\n";
	}
	std::vector<std::string> still = after.problems();
	for (const std::string &p : still)
		out << "  still: " << p << "\n";
	rc = save_if_changed(o, s, err);
	if (rc != kExitOk)
		return rc;
	return still.empty() ? kExitOk : kExitDamaged;
}

// --- Command line ---------------------------------------------------------------

const char kUsage[] =
	"Usage: ucfg-image [OPTIONS] COMMAND IMAGE [NAME [VALUE]]\n"
	"\n"
	"Reads and changes the configuration area of a secure-flash image file with\n"
	"the drv_user_cfg driver's own store code.\n"
	"\n"
	"Commands:\n"
	"  create IMAGE            a blank image (--init: with initialised heads)\n"
	"  inspect IMAGE           heads, items, slots and space, as ucfg status and\n"
	"                          ucfg list show a board\n"
	"  verify IMAGE            exit 0 only if both copies of everything are intact\n"
	"  get IMAGE NAME          the value of an item, as ucfg shows it\n"
	"  set IMAGE NAME VALUE    store a value (hex:.., 0x.., text:.., a number, @FILE)\n"
	"  clear IMAGE NAME        remove a named item, or a static item's value\n"
	"  repair IMAGE            what the device repairs on its next accesses\n"
	"\n"
	"NAME is 1 to 32 bytes; \\xHH for a byte that is not printable.\n"
	"\n"
	"Options:\n"
	"      --json              inspect, verify: machine-readable output (the\n"
	"                          schema of ucfg list --json)\n"
	"  -d, --device N          the device's part of a file of several (default 0)\n"
	"      --devices K         the file holds K devices of equal size (default 1)\n"
	"      --layout area|flash 4 MiB area alone, or a whole flash with the area at\n"
	"                          0xA40000 (default: area if exactly 4 MiB per device)\n"
	"      --flash-size BYTES  create --layout flash: bytes per device (16 MiB)\n"
	"      --init              create: write initialised head copies\n"
	"      --force             create: replace an existing file\n"
	"      --raw, --text       get: hex bytes, or text\n"
	"  -o, --output FILE       get: the bytes into FILE\n"
	"  -v, --verbose           show the store's messages\n"
	"  -h, --help              print this help and exit\n"
	"      --version           print the version and exit\n"
	"\n"
	"Exit status:\n"
	"  0  success\n"
	"  1  usage error\n"
	"  2  bad or unreadable image\n"
	"  3  the store refused the request\n"
	"  4  the item is not set\n"
	"  5  bad value\n"
	"  6  damaged (verify, repair)\n";

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
	enum { kJson = 256, kDevices, kLayout, kFlashSize, kInit, kForce, kRaw, kText, kVersion };
	static const struct option longs[] = {
		{"json", no_argument, nullptr, kJson},
		{"device", required_argument, nullptr, 'd'},
		{"devices", required_argument, nullptr, kDevices},
		{"layout", required_argument, nullptr, kLayout},
		{"flash-size", required_argument, nullptr, kFlashSize},
		{"init", no_argument, nullptr, kInit},
		{"force", no_argument, nullptr, kForce},
		{"raw", no_argument, nullptr, kRaw},
		{"text", no_argument, nullptr, kText},
		{"output", required_argument, nullptr, 'o'},
		{"verbose", no_argument, nullptr, 'v'},
		{"help", no_argument, nullptr, 'h'},
		{"version", no_argument, nullptr, kVersion},
		{nullptr, 0, nullptr, 0},
	};
	Options o;
	std::vector<std::string> argv_s{"ucfg-image"};
	argv_s.insert(argv_s.end(), args.begin(), args.end());
	std::vector<char *> argv;
	for (std::string &a : argv_s)
		argv.push_back(a.data());
	argv.push_back(nullptr);
	optind = 0;
	opterr = 0;
	for (int c; (c = getopt_long(static_cast<int>(argv_s.size()), argv.data(), ":d:o:vh",
				     longs, nullptr)) != -1;) {
		std::string v = optarg ? optarg : "";
		std::optional<std::uint64_t> n = number(v);
		switch (c) {
		case kJson:
			o.json = true;
			break;
		case 'v':
			o.verbose = true;
			break;
		case kInit:
			o.init = true;
			break;
		case kForce:
			o.force = true;
			break;
		case kRaw:
			o.raw = true;
			break;
		case kText:
			o.text = true;
			break;
		case 'h':
			o.command = "help";
			return o;
		case kVersion:
			o.command = "version";
			return o;
		case 'o':
			o.out_file = v;
			break;
		case 'd':
		case kDevices:
		case kFlashSize:
			if (!n || (c != kFlashSize && (*n > 64 || (c == kDevices && *n == 0)))) {
				error = "bad number for " + std::string(argv[optind - 1]) + ": " + v;
				return std::nullopt;
			}
			if (c == kFlashSize)
				o.flash_size = *n;
			else
				(c == kDevices ? o.devices : o.device) = (std::uint32_t)*n;
			break;
		case kLayout:
			if (v != "area" && v != "flash") {
				error = "--layout is area or flash";
				return std::nullopt;
			}
			o.layout = v == "area" ? Layout::kArea : Layout::kFlash;
			break;
		case ':':
			error = std::string(argv[optind - 1]) + " needs a value";
			return std::nullopt;
		default:
			error = "unknown option " + std::string(argv[optind - 1]);
			return std::nullopt;
		}
	}
	std::vector<std::string> pos(argv.begin() + optind, argv.end() - 1);
	if (pos.empty()) {
		error = "no command given";
		return std::nullopt;
	}
	o.command = pos[0];
	static const std::map<std::string, std::size_t> arity = {
		{"create", 2}, {"inspect", 2}, {"verify", 2}, {"repair", 2},
		{"get", 3},    {"clear", 3},   {"set", 4},    {"help", 1},
	};
	auto it = arity.find(o.command);
	if (it == arity.end()) {
		error = "unknown command '" + o.command + "'";
		return std::nullopt;
	}
	if (pos.size() != it->second) {
		error = o.command + " takes " + std::to_string(it->second - 1) + " argument(s)";
		return std::nullopt;
	}
	if (pos.size() > 1)
		o.image = pos[1];
	if (pos.size() > 2) {
		std::optional<std::string> name = ucfg::unescape_name(pos[2]);
		if (!name || name->empty() || name->size() > ucfg::kNameMax) {
			error = "an item name is 1 to 32 bytes (\\xHH for one byte)";
			return std::nullopt;
		}
		o.name = *name;
	}
	if (pos.size() > 3)
		o.value = pos[3];
	return o;
}

} // namespace

int run(const std::vector<std::string> &args, std::ostream &out, std::ostream &err)
{
	std::string error;
	std::optional<Options> o = parse(args, error);
	if (!o) {
		err << "ucfg-image: " << error << "\nTry 'ucfg-image --help'.\n";
		return kExitUsage;
	}
	if (o->command == "help" || o->command == "version") {
		out << (o->command == "help" ? std::string(kUsage)
					     : std::string("ucfg-image ") + ucfg::kVersion + "\n");
		return kExitOk;
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
	StoreView v = view_of_image();
	if (json)
		out << to_json(v).dump(2) << "\n";
	else
		print_text(v, "memory", *p, 0, out);
	take_module_log();
	return v.problems().empty() ? kExitOk : kExitDamaged;
}

} // namespace ucfg_image
