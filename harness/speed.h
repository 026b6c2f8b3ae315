// Speed of the drivers on the emulated processor, in virtual time and in instructions. Both are exact: the same figures
// on every machine and in every run. Each time stands beside its limit: what the controllers' own timing registers and
// the chips' busy times leave possible.
#pragma once

#include "harness/started_board.h"

#include <string>
#include <vector>

namespace fixture {

struct SpeedRow {
    std::string what;
    Picoseconds time;
    Picoseconds limit;
    double instructions_per_byte; // on the emulated processor
    double ratio() const { return static_cast<double>(time) / static_cast<double>(limit); }
};

inline constexpr std::uint32_t kSpeedBytes = 1 << 20;

// Writes kSpeedBytes from address 0 on and reads them back. Throws std::runtime_error where that fails or the data are
// wrong.
struct Transfer {
    const char *what, *routine;
    Picoseconds limit;
};
std::vector<SpeedRow> MeasureTransfers(StartedBoard &started, const std::string &chip, const Transfer &write,
                                       const Transfer &read);

// Reads and writes on a DataFlash of 1056-byte pages; throws likewise.
std::vector<SpeedRow> DataflashSpeed();

// Reads and writes (with verification) on an 8-bit and on a 16-bit NAND chip; throws likewise.
std::vector<SpeedRow> NandSpeed();

// What drawing costs the emulated processor, beside a plain memset of the same memory.
struct PixelRow {
    std::string what;
    unsigned pixels;
    std::uint64_t instructions;
};
std::vector<PixelRow> PanelSpeed();

} // namespace fixture
