// Raw NAND flash as the rest of the bootloader sees it: three calls with byte addresses. They pass everything through
// to the driver (driver/nandflash.h), so that nobody else depends on one driver.
//
// Addresses count data bytes only. Block size is 128 KiB and page size 2,048 bytes on every supported chip. Bad blocks
// are skipped on both sides; failures appear on the console only.
#pragma once

#include <cstdint>

extern "C" {

// Identifies the chip; comes before the other two. Returns 1 when a supported chip was found, else 0: reads then give
// 0xFF and writes do nothing.
int NandFlash_if_Init(void);

// Reads `length` bytes to `buffer`, always from the start of the block that holds `address`. Bytes that the chip
// cannot deliver (its end, no chip) are 0xFF. Returns 0.
int NandFlash_if_Read(std::uint32_t address, void *buffer, std::uint32_t length);

// Writes `length` bytes from `source` and verifies them, block by block; every block touched is erased first, whole.
//
//   source    readable up to the next 2,048-byte page boundary: whole pages are programmed
//   length    bytes; 0 or less writes and erases nothing
//
// Returns 0, also when every block in the range is bad.
int NandFlash_if_Write(std::uint32_t address, const void *source, std::int32_t length);

} // extern "C"
