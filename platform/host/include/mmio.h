// The hardware doors of a host process: every access goes to the bus of the virtual fixture.
// Found before the processor's <mmio.h> on the include path of native builds; same names, same meaning.
#pragma once

#include <cstdint>

extern "C" {
std::uint32_t host_bus_read(std::uint32_t address, unsigned bytes);
void host_bus_write(std::uint32_t address, unsigned bytes, std::uint32_t value);
void host_spin(std::uint32_t turns); // moves the virtual clock on by what the turns cost the board's processor
}

namespace mmio {

inline std::uint32_t Read32(std::uint32_t address) { return host_bus_read(address, 4); }
inline void Write32(std::uint32_t address, std::uint32_t value) { host_bus_write(address, 4, value); }
inline std::uint16_t Read16(std::uint32_t address) { return static_cast<std::uint16_t>(host_bus_read(address, 2)); }
inline void Write16(std::uint32_t address, std::uint16_t value) { host_bus_write(address, 2, value); }
inline std::uint8_t Read8(std::uint32_t address) { return static_cast<std::uint8_t>(host_bus_read(address, 1)); }
inline void Write8(std::uint32_t address, std::uint8_t value) { host_bus_write(address, 1, value); }
inline void Spin(std::uint32_t turns) { host_spin(turns); }

} // namespace mmio
