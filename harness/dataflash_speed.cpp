#include "harness/speed.h"

namespace fixture {

namespace {

constexpr std::uint32_t kControllerSettings = 0xFFFA4030; // chip-select register 0
constexpr std::uint32_t kPageBytes = 1056;
constexpr std::uint32_t kDataflashPages = (kSpeedBytes + kPageBytes - 1) / kPageBytes;
constexpr Picoseconds kWholePage = (15 + 3) * kMillisecond;                 // erase, then program
constexpr Picoseconds kPartOfPage = 200 * kMicrosecond + 17 * kMillisecond; // page to buffer, program with erase

// What one byte takes on the wire: 8 bits by the divider, and the programmed delay after it.
Picoseconds ByteTime(Board &board) {
    const std::uint32_t settings = board.bus.read(kControllerSettings, 4);
    return (8 * (settings >> 8 & 0xFF) + 32 * (settings >> 24)) * board.bus.cycle;
}

} // namespace

SpeedRows DataflashSpeed() {
    Chips chips;
    StartedBoard started(Processor::arm, chips, {});
    started.call("SDFlash_Init");
    const Picoseconds wire = kSpeedBytes * ByteTime(started.board());
    return MeasureTransfers(started, "DataFlash 1056",
                            {" write", "SDFlash_Write", wire + (kDataflashPages - 1) * kWholePage + kPartOfPage},
                            {" read", "SDFlash_Read", wire});
}

} // namespace fixture
