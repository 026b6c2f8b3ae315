// Access to memory-mapped hardware. The doors of <doors.h> stand over it, and every register and latch access of the
// bootloader goes through those. Each call is exactly one bus access of the width in its name.
//
// Spin(turns) waits by counting so many turns down: two instructions each, 10 ns at full speed with the caches on.
//
// A build for another machine puts its own <mmio.h> with the same functions' meaning first on the include path.
#pragma once

#include <cstdint>

namespace mmio {

inline std::uint32_t Read32(std::uint32_t address) { return *reinterpret_cast<volatile std::uint32_t *>(address); }
inline void Write32(std::uint32_t address, std::uint32_t value) {
    *reinterpret_cast<volatile std::uint32_t *>(address) = value;
}
inline std::uint16_t Read16(std::uint32_t address) { return *reinterpret_cast<volatile std::uint16_t *>(address); }
inline void Write16(std::uint32_t address, std::uint16_t value) {
    *reinterpret_cast<volatile std::uint16_t *>(address) = value;
}
inline std::uint8_t Read8(std::uint32_t address) { return *reinterpret_cast<volatile std::uint8_t *>(address); }
inline void Write8(std::uint32_t address, std::uint8_t value) {
    *reinterpret_cast<volatile std::uint8_t *>(address) = value;
}

inline void Spin(std::uint32_t turns) {
    for (; turns != 0; --turns) asm volatile("" : "+r"(turns)); // else a loop without effect would be removed
}

} // namespace mmio
