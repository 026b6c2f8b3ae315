#include "harness/speed.h"

#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::uint32_t kCycleSettings = 0xFFFFE438; // chip select 3
constexpr std::uint32_t kNandPages = kSpeedBytes / kNandPageBytes;
constexpr std::uint32_t kBlocks = kSpeedBytes / kNandBlockBytes;
constexpr unsigned kCommandCycles = 7; // of a page read or program: two commands, five address bytes

SpeedRows MeasurePart(const NandPart &part) {
    Chips chips;
    chips.nand = NandContents(&part);
    StartedBoard started(Processor::arm, chips, {});
    started.call("NandFlash_if_Init");
    const std::uint32_t cycle = started.board().bus.read(kCycleSettings, 4) & 0x7F;
    // Commands, address and data all take the programmed cycle.
    const unsigned accesses = kCommandCycles + kNandPageBytes / (part.wide ? 2 : 1);
    const Picoseconds page = accesses * cycle * started.board().bus.cycle;
    const Nand::Times &chip = started.board().nand.times;
    const Picoseconds read = kNandPages * (page + chip.read);
    // The driver reads every page back, so a write holds a read.
    const Picoseconds write = kNandPages * (page + chip.program) + kBlocks * chip.erase + read;
    return MeasureTransfers(started, fmt::format("NAND {}-bit", part.wide ? 16 : 8),
                            {" verified write", "NandFlash_if_Write", write}, {" read", "NandFlash_if_Read", read});
}

} // namespace

SpeedRows NandSpeed() {
    SpeedRows rows = MeasurePart(*FindNandPart("K9F2G08U0M"));
    for (const SpeedRow &row : MeasurePart(*FindNandPart("MT29F2G16AAB"))) rows.push_back(row);
    return rows;
}

} // namespace fixture
