// SPDX-License-Identifier: GPL-2.0
//
// libFuzzer target: ucfg-image's inspect and verify on arbitrary images.
//
// An input is expanded deterministically into a 4 MiB configuration area
// that starts erased: the first bytes become the start of the main head
// (marker, static area, head_len, item records), the next ones the same
// places of the backup head, and the rest land at the start of content
// block 2 and its backup. The marker is set when the input asks for it,
// and the check code is made to match when it asks for that too, so the
// fuzzer reaches the record and slot checks behind a valid head instead of
// stopping at the check code.
#include "ucfg_image.h"

#include <openssl/sha.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

constexpr std::size_t kBlock = 0x10000;
constexpr std::size_t kHeadLen = 8192;     // head_len field
constexpr std::size_t kCheckCode = 65500;  // check code
constexpr std::size_t kValidFlag = 65532;  // marker
constexpr std::uint32_t kMarker = 0x8a7b6c5d;

void put_head(std::vector<std::uint8_t> &area, std::size_t blk, const std::uint8_t *data,
	      std::size_t n, std::uint8_t flags)
{
	std::uint8_t *head = area.data() + blk * kBlock;
	// The first 4 KiB of input go to the format word and static area, the
	// rest to head_len and the records behind it.
	std::size_t first = n < 4096 ? n : 4096;
	std::memcpy(head, data, first);
	if (n > first)
		std::memcpy(head + kHeadLen, data + first,
			    n - first < kCheckCode - kHeadLen ? n - first : kCheckCode - kHeadLen);
	if (flags & 1)
		std::memcpy(head + kValidFlag, &kMarker, sizeof(kMarker));
	if (flags & 2)
		SHA256(head, kCheckCode, head + kCheckCode);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size < 1)
		return 0;
	std::uint8_t flags = data[0];
	data++;
	size--;
	std::vector<std::uint8_t> area(0x400000, 0xff);
	std::size_t half = size / 2;
	put_head(area, 0, data, half, flags);
	put_head(area, 32, (flags & 4) ? data : data + half, (flags & 4) ? half : size - half,
		 (std::uint8_t)(flags >> 3));
	// Content: the tail of the input at the start of block 2 and 34.
	std::size_t tail = size > 256 ? 256 : size;
	std::memcpy(area.data() + 2 * kBlock, data + size - tail, tail);
	std::memcpy(area.data() + 34 * kBlock, data + size - tail, tail);

	std::ostringstream out, err;
	ucfg_image::inspect_memory(area, (flags & 0x40) != 0, out, err);
	return 0;
}
