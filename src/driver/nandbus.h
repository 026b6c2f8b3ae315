// The NAND chip's data register, and the memory on the other side of it: what the driver does for every byte of a page.
//
// The chip sees single accesses of its bus width, one after another, and has been told before what they are for.
// Memory may lie at any address; the fast ways are those from and to word addresses.
#pragma once

#include <cstdint>

extern "C" {

// Read `count` bytes from a chip with an 8-bit or a 16-bit bus. On 16 bits an odd last byte is left out.
void NandBus_Take8(std::uint8_t *to, std::uint32_t count);
void NandBus_Take16(std::uint8_t *to, std::uint32_t count);

// Write `count` bytes; likewise.
void NandBus_Give8(const std::uint8_t *from, std::uint32_t count);
void NandBus_Give16(const std::uint8_t *from, std::uint32_t count);

// 1 if `count` bytes are the same, else 0.
int NandBus_Same(const std::uint8_t *one, const std::uint8_t *other, std::uint32_t count);

// Copies `count` bytes between places that do not overlap.
void NandBus_Copy(std::uint8_t *to, const std::uint8_t *from, std::uint32_t count);

} // extern "C"
