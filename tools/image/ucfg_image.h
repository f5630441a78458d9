// SPDX-License-Identifier: GPL-2.0
//
// ucfg-image: the configuration area of a secure-flash image, offline.
//
// Every decision about the format (what a valid head is, where an item
// lies, how an item is written, what is repaired) is made by the store's
// own C code, linked into this tool; this layer only opens the file,
// chooses the device's part of it, calls the store and shows the result.
#ifndef UCFG_TOOLS_IMAGE_UCFG_IMAGE_H
#define UCFG_TOOLS_IMAGE_UCFG_IMAGE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace ucfg_image {

// Process exit status. Scripts rely on these numbers: never renumber.
// 1 to 5 mean what they mean for ucfg.
enum Exit : int {
	kExitOk = 0,
	kExitUsage = 1,    // bad command line
	kExitBadImage = 2, // image cannot be read, written, or has no usable size
	kExitRefused = 3,  // the store refused or failed the request
	kExitNotSet = 4,   // the item is not stored
	kExitValue = 5,    // bad value, or a value file could not be read/written
	kExitDamaged = 6,  // verify/repair: a copy of something is not intact
};

// Bytes of the configuration area and where it lies in a whole flash image.
inline constexpr std::uint64_t kAreaSize = 0x400000;
inline constexpr std::uint64_t kAreaOffset = 0xA40000;
inline constexpr std::uint64_t kFlashMin = kAreaOffset + kAreaSize;
inline constexpr std::uint64_t kFlashDefault = 0x1000000;

// The whole program: args without argv[0].
int run(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

// inspect (json or text) and verify of one device in memory, for the fuzz
// target; bytes is the device's part (an area or a whole flash image). It
// is read, never written (it is not const only so that it need not be
// copied). Returns the exit status verify would.
int inspect_memory(std::vector<std::uint8_t> &bytes, bool json, std::ostream &out,
		   std::ostream &err);

} // namespace ucfg_image

#endif // UCFG_TOOLS_IMAGE_UCFG_IMAGE_H
