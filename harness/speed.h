// Speed of the shipped image on the emulated processor: in virtual time and in instructions, both exact. Each figure
// stands beside its limit, which is computed, not measured.
#pragma once

#include "harness/started_board.h"

#include <string>
#include <vector>

namespace fixture {

// One figure; less is better.
struct SpeedRow {
    std::string what;
    double value;
    std::string unit;
    double limit;
    std::string limit_is; // how the limit comes about
    double ratio() const { return value / limit; }
};
using SpeedRows = std::vector<SpeedRow>;

inline constexpr std::uint32_t kSpeedBytes = 1 << 20;

// Writes kSpeedBytes from address 0 on and reads them back. Throws std::runtime_error where that fails or the data are
// wrong.
struct Transfer {
    const char *what, *routine;
    Picoseconds limit;
};
SpeedRows MeasureTransfers(StartedBoard &started, const std::string &chip, const Transfer &write, const Transfer &read);

// Reads and writes on a DataFlash of 1056-byte pages; throws likewise.
SpeedRows DataflashSpeed();

// Reads and writes (with verification) on an 8-bit and on a 16-bit NAND chip; throws likewise.
SpeedRows NandSpeed();

// What each byte of an image costs where it is checked, and the shortest pause; throws likewise.
SpeedRows PathSpeed();

// What drawing costs.
SpeedRows PanelSpeed();

} // namespace fixture
