// SPDX-License-Identifier: GPL-2.0
//
// libFuzzer target: ucfg-image's inspect and verify on arbitrary images.
//
// An input is expanded deterministically into a 4 MiB configuration area
// that starts erased: its first byte chooses what follows, the first half
// of the rest becomes head_len and the item records of the main head, the
// second half (or the same bytes) those of the backup head, and the tail
// also lands at the start of content block 2 and its backup. The marker is set when the input asks for it,
// and the check code is made to match when it asks for that too, so the
// fuzzer reaches the record and slot checks behind a valid head instead of
// stopping at the check code.
#include "ucfg_image.h"

#define OPENSSL_SUPPRESS_DEPRECATED
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
	// The input lands on head_len and the item records behind it, where
	// the parsing is; the static area stays erased.
	std::size_t room = kCheckCode - kHeadLen;
	std::memcpy(head + kHeadLen, data, n < room ? n : room);
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
	// One area for every run: only the blocks an input touches are
	// erased again, which keeps a run cheap enough to reach deep.
	static std::vector<std::uint8_t> area(0x400000, 0xff);
	for (std::size_t blk : {0, 2, 32, 34})
		std::memset(area.data() + blk * kBlock, 0xff, kBlock);
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
