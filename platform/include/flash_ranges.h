// Which part of a flash device belongs to the file system, as the platform's flash layer is told it: one record a
// range. User_GetFlashDeviceRanges (<bootloader.h>) gives them out.
#pragma once

#include <cstdint>

struct FlashDeviceRange {
    std::uint32_t offset;       // byte address of the first block; the flash layer goes by the block numbers
    std::uint32_t first_block;  // erase blocks of 128 KiB
    std::uint32_t last_block;   // all ones: up to the device's last block
    std::uint32_t device_class; // 2 = NAND
    std::uint32_t instance;     // 0 = "WLFSDev0"
    const char *name;
};
static_assert(sizeof(void *) != 4 || sizeof(FlashDeviceRange) == 24, "six words on the board");
