// SPDX-License-Identifier: GPL-2.0
//
// What the tests know of the store without asking the module: the item
// catalogue and the on-flash format as the documentation gives them, and
// the two entry points (the ioctl of the device file and the kernel API)
// as a user calls them. Shared by the campaign and the table tests.
#ifndef UCFG_TEST_ORACLE_H
#define UCFG_TEST_ORACLE_H

#include <optional>
#include <string>

#include "bed.h"

namespace ucfg {

using tb::Bytes;
using tb::u32;
using tb::u8;

// The catalogue: name, value length, default value. cpu_num_cfg defaults
// to the device tree's numbers, which the tests set to kDts.
struct Static {
	const char *name;
	u32 len;
	Bytes dflt;
	u32 offset;	// of its record in the static area
};
constexpr u32 kDts[3] = {3, 5, 9};
const Static *find_static(const std::string &name);
extern const Static kStatic[6];

// The head block and its records.
struct Record {
	char name[32];
	u32 blk, offset, bytes, authority, valid;
};
struct Usage {
	u8 blk, used;
	std::uint16_t bytes;
};
struct Head {
	u32 format;
	u8 statics[8188];
	u32 head_len;
	Record rec[1099];
	u8 reserved[28];
	Usage usage[32];
	u8 check[32];
	u32 valid_flag;
};
static_assert(sizeof(Head) == 65536, "the head is one block");
// The head copy of dev in use (main, else backup), or none when neither
// copy carries the marker and a matching check code.
const Head *head(u32 dev);
Bytes sha256(const u8 *p, std::size_t n);

enum class Via { Ioctl, Kernel };
struct Res {
	int rc = 0;
	Bytes data;
	bool operator==(const Res &o) const { return rc == o.rc && data == o.data; }
};
Res get(u32 dev, const std::string &name, u32 size, Via via = Via::Ioctl);
int set(u32 dev, const std::string &name, const Bytes &v, Via via = Via::Ioctl);
int clear(u32 dev, const std::string &name, Via via = Via::Ioctl);
// A request through the ioctl entry with every field chosen by the caller.
int ioctl(u32 dev, u32 cmd, const std::string &name, u8 *buf, u32 *size);

// The module's view of the device's store (its debugfs text).
std::string view_text(u32 dev);

Bytes pattern(u32 n, u32 seed);
std::string show(const Res &r);

} // namespace ucfg

#endif // UCFG_TEST_ORACLE_H
