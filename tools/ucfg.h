// SPDX-License-Identifier: GPL-2.0
//
// ucfg: command-line client of /dev/user_config.
//
// Everything but main() lives here so that it can be tested without a
// device: value parsing and formatting, the errno explanations, the command
// line, and the commands themselves, which talk to the driver through a
// Transport that a test replaces with a fake.
#ifndef UCFG_TOOLS_UCFG_H
#define UCFG_TOOLS_UCFG_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace ucfg {

using Bytes = std::vector<std::uint8_t>;

#ifndef UCFG_VERSION
#define UCFG_VERSION "unknown"
#endif
// The version of the file VERSION, as the module's and the packages'.
inline constexpr const char *kVersion = UCFG_VERSION;
inline constexpr const char *kDefaultNode = "/dev/user_config";
// Room offered for a dynamic item, and the longest value the driver stores.
inline constexpr std::size_t kDynamicMax = 32768;
// Item names are compared over at most this many bytes.
inline constexpr std::size_t kNameMax = 32;

// Process exit status. Scripts rely on these numbers: never renumber.
enum Exit : int {
	kExitOk = 0,
	kExitUsage = 1,    // bad command line
	kExitNoDevice = 2, // device node cannot be opened
	kExitRefused = 3,  // the driver refused or failed the request
	kExitNotSet = 4,   // the item is not stored (ENOENT)
	kExitValue = 5,    // bad value, or a file of ours could not be read/written
};

// How a static item's value is shown and accepted in human form.
enum class Form {
	kCpuNum, // control, data, AI CPU numbers in bytes 0..2
	kU32,    // little-endian unsigned 32-bit number
	kSwitch, // one byte, 0 off / 1 on
	kHex,    // opaque bytes
	kSecret, // opaque bytes that are not printed unless asked for
};

struct StaticItem {
	const char *name;
	std::uint32_t length; // value bytes; the driver wants exactly this many
	Form form;
};

// The six static items, or nullptr: every other name is a dynamic item.
const StaticItem *find_static_item(std::string_view name);

// --- Values ----------------------------------------------------------------

// Bytes of VALUE for item NAME from "hex:..", "0x..", "text:.." or a human
// form; "@FILE" is not handled here (see read_value_file). nullopt with a
// message in error when the text is not a value.
std::optional<Bytes> decode_value(std::string_view name, std::string_view text, std::string &error);
// A value from FILE ("@FILE" on the command line): at most kDynamicMax
// bytes. nullopt with a message in error otherwise.
std::optional<Bytes> read_value_file(const std::string &path, std::string &error);
// Writes a value to FILE (get -o FILE); false with a message in error.
bool write_value_file(const std::string &path, const Bytes &v, std::string &error);
// Whether n bytes are an acceptable value of NAME, before asking the driver.
bool check_value_length(std::string_view name, std::size_t n, std::string &error);

enum class Show { kHuman, kRaw, kText };

struct Rendered {
	std::string out;  // for stdout, ends with a line end unless empty
	std::string note; // for stderr, may be empty
};

// How `get` shows the value of NAME.
Rendered render_value(std::string_view name, const Bytes &value, Show show);

std::string hex_string(const Bytes &value);
// Offset, 16 bytes in hex and their printable characters per line; runs of
// identical lines collapse into "*"; the last line is the total length.
std::string hex_dump(const Bytes &value);

// --- Errors ----------------------------------------------------------------

// What an errno from the item, boot-cfg or dts-cpu command means and what to
// check, in one or two lines without a line end at the close.
std::string explain_request_errno(int err);
std::string explain_open_errno(int err, const std::string &node);
int exit_code_for_errno(int err);

// --- Command line ----------------------------------------------------------

enum class Command { kGet, kSet, kClear, kList, kStatus, kBootCfg, kDtsCpu, kHelp, kVersion };

struct Options {
	Command command = Command::kHelp;
	std::string node = kDefaultNode;
	std::uint32_t device = 0;
	bool raw = false;
	bool text = false;
	std::string out_file; // empty: stdout
	std::string name;
	std::string value;
	bool json = false;
	std::uint32_t size = 0; // status --size
	std::string view_dir = "/sys/kernel/debug/user_config";
};

std::optional<Options> parse_args(const std::vector<std::string> &args, std::string &error);
std::string usage();

// --- Driver access ---------------------------------------------------------

struct IoctlResult {
	long ret = 0; // what ioctl(2) returned
	int err = 0;  // errno when ret is -1
};

class Transport {
public:
	virtual ~Transport() = default;
	// 0, or the errno of the failed open.
	virtual int open(const std::string &node) = 0;
	virtual IoctlResult ioctl(unsigned long request, void *arg) = 0;
	// The text of a view file, or the errno of the failed read.
	virtual int read_view(const std::string &path, std::string &text) = 0;
};

// The real device node.
class DeviceTransport : public Transport {
public:
	DeviceTransport() = default;
	DeviceTransport(const DeviceTransport &) = delete;
	DeviceTransport &operator=(const DeviceTransport &) = delete;
	~DeviceTransport() override;
	int open(const std::string &node) override;
	IoctlResult ioctl(unsigned long request, void *arg) override;
	int read_view(const std::string &path, std::string &text) override;

private:
	int fd_ = -1;
};

// The whole program: args without argv[0]; returns the exit status.
int run(const std::vector<std::string> &args, Transport &transport, std::ostream &out,
	std::ostream &err);

} // namespace ucfg

#endif // UCFG_TOOLS_UCFG_H
