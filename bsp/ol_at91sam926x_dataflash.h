// Serial DataFlash (AT45DB161, 321, 642, 1282) on SPI controller 0: identification, continuous read, page-wise write.
//
// Call order: AT91SAM926X_InitializeDataflash first; without a chip every read and write fails. Addresses are linear
// byte offsets based at 0xC0000000. Polled; nothing is printed. Commands and addresses: AT45DB datasheets.
#pragma once

#include "ol_at91sam926x_spi.h"

#include <cstdint>

extern "C" {

// Where the DataFlash sits: the base that callers add to an offset, and its select line.
struct DataflashSelect {
    std::uint32_t base;
    std::uint32_t chip_select;
};
extern const DataflashSelect cs;

// Sets up the controller, reads the chip's status and looks its density up. Returns 0 when a known chip answers,
// else 1.
std::uint32_t AT91SAM926X_InitializeDataflash(void);

// Reads `length` bytes at a based address. Note the order of the arguments. What the buffer holds goes out on the wire
// meanwhile. Returns 0, or 1 where there is no chip, the range leaves the chip (nothing was sent then), or the chip
// does not become ready.
std::uint32_t AT91SAM926X_ReadDataflash(std::uint32_t address, std::uint32_t length, void *buffer);

// Writes `length` bytes at a based address; the rest of a page that is written in part keeps its contents. Nothing is
// verified, and a chip that does not become ready is not reported. Returns 0, or 1 where there is no chip or the range
// leaves it (nothing was sent then).
std::uint32_t AT91SAM926X_WriteDataflash(std::uint32_t address, const void *buffer, std::uint32_t length);

} // extern "C"
