// The serial DataFlash as the rest of the bootloader sees it: plain byte offsets from 0.
//
// SDFlash_Init comes once, before the other two. A failed read or write prints one line with the driver's result:
//   "\tAT91SAM926X_ReadDataflash : Failed with Error=%i\n", "\tAT91SAM926X_WriteDataflash : Failed with Error=%i\n"
#pragma once

#include <cstdint>

extern "C" {

// Drives PB0 and PB1 high and identifies the chip. Returns 0, or -1 where no known chip answers.
int SDFlash_Init(void);

// Reads `length` bytes at a byte offset into `buffer`. Returns 0 or -1.
int SDFlash_Read(std::uint32_t address, void *buffer, std::uint32_t length);

// Writes `length` bytes at a byte offset; other bytes keep their contents. Returns 0 or -1.
int SDFlash_Write(std::uint32_t address, const void *buffer, std::uint32_t length);

} // extern "C"
