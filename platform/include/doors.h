// Typed doors over <mmio.h>: 32-bit registers by access right, and the 8- and 16-bit doors of the NAND latches.
//
//   PIOB.CODR().write(0x20);                    one 32-bit store
//   std::uint32_t levels = PIOB.PDSR().read();  one 32-bit load
//   PIOB.CODR().read();                         does not compile: CODR is write-only
//
// A door is an address with an access width and an access right that are part of its type: a write-only register has
// no read(), a read-only one no write(), and nothing reads, modifies and writes in one step.
#pragma once

#include <cstdint>
#include <mmio.h>

struct ReadOnly {
    std::uint32_t address;
    std::uint32_t read() const { return mmio::Read32(address); }
};

struct WriteOnly {
    std::uint32_t address;
    void write(std::uint32_t value) const { mmio::Write32(address, value); }
};

struct ReadWrite {
    std::uint32_t address;
    std::uint32_t read() const { return mmio::Read32(address); }
    void write(std::uint32_t value) const { mmio::Write32(address, value); }
};

// A door onto a data bus that is 8 or 16 bits wide; the caller chooses the width of each access.
struct DataDoor {
    std::uint32_t address;
    std::uint8_t read8() const { return mmio::Read8(address); }
    std::uint16_t read16() const { return mmio::Read16(address); }
    void write8(std::uint8_t value) const { mmio::Write8(address, value); }
    void write16(std::uint16_t value) const { mmio::Write16(address, value); }
};

// A latch that takes one byte a write and cannot be read.
struct LatchDoor {
    std::uint32_t address;
    void write(std::uint8_t value) const { mmio::Write8(address, value); }
};
