// How the platform's flash layer learns which part of a flash device belongs to the file system.
//
// The flash layer calls User_GetFlashDeviceRanges while it creates its devices, before main: once when it counts
// them and again when it opens them. It may call at any time and before any dynamic initialiser has run.
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
// 24 bytes on the processor.

extern "C" {

// Provided by the bootloader. Stores the number of ranges (1) and returns the table.
const FlashDeviceRange *User_GetFlashDeviceRanges(int *count);

// Provided by the board support: the whole chip. Used by programs without a hook of their own.
const FlashDeviceRange *BSP_GetFlashDeviceRanges(int *count);

} // extern "C"
