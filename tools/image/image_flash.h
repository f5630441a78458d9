// SPDX-License-Identifier: GPL-2.0
//
// The secure flash of one device, as the offline image tool gives it to the
// store's code: a window onto part of an image file held in memory.
#ifndef UCFG_TOOLS_IMAGE_FLASH_H
#define UCFG_TOOLS_IMAGE_FLASH_H

#include <cstdint>
#include <string>

namespace ucfg_image {

class FlashWindow {
public:
	virtual ~FlashWindow() = default;
	// A transfer at flash byte offset of the device: 0 or a negative errno.
	virtual int read(std::uint32_t offset, std::uint8_t *buf, std::uint32_t len) = 0;
	virtual int write(std::uint32_t offset, const std::uint8_t *buf, std::uint32_t len) = 0;
};

// The device the store's code sees as device 0 (nullptr: no flash).
void attach_flash(FlashWindow *window);
// The store's messages since the last call, one per line.
std::string take_module_log();
// Copy the store's messages to stderr as they come (-v).
void echo_module_log(bool on);

} // namespace ucfg_image

// Words of the board registers the catalogue may read.
#define USER_CFG_REG_WORDS (0x10000 / 4)

#endif // UCFG_TOOLS_IMAGE_FLASH_H
