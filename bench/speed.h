// Speed of the raw flash drivers in virtual time, each figure beside its limit: what the controllers' own timing
// registers and the chips' busy times leave possible.
#pragma once

#include "bench.h"

#include <string>
#include <vector>

struct SpeedRow {
    std::string what;
    fixture::Picoseconds time;
    fixture::Picoseconds limit;
    double instructions_per_byte; // on the emulated processor
    double ratio() const { return static_cast<double>(time) / static_cast<double>(limit); }
};

inline constexpr std::uint32_t kSpeedBytes = 1 << 20;

// Reads and writes kSpeedBytes on a DataFlash of 1056-byte pages. Throws std::runtime_error where the data are wrong.
std::vector<SpeedRow> DataflashSpeed();

// Reads and writes (with verification) kSpeedBytes on an 8-bit and on a 16-bit NAND chip; throws likewise.
std::vector<SpeedRow> NandSpeed();

// What drawing costs the emulated processor, beside a plain memset of the same memory.
struct PixelRow {
    std::string what;
    unsigned pixels;
    std::uint64_t instructions;
};
std::vector<PixelRow> PanelSpeed();
