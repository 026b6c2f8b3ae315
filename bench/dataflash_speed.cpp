#include "speed.h"

#include <algorithm>
#include <stdexcept>

using namespace fixture;

namespace {

constexpr std::uint32_t kControllerSettings = 0xFFFA4030; // chip-select register 0
constexpr std::uint32_t kPageBytes = 1056;
constexpr std::uint32_t kPages = (kSpeedBytes + kPageBytes - 1) / kPageBytes;
constexpr Picoseconds kWholePage = (15 + 3) * kMillisecond;                 // erase, then program
constexpr Picoseconds kPartOfPage = 200 * kMicrosecond + 17 * kMillisecond; // page to buffer, program with erase

// What one byte takes on the wire: 8 bits by the divider, and the programmed delay after it.
Picoseconds ByteTime(Board &board) {
    const std::uint32_t settings = board.bus.read(kControllerSettings, 4);
    return (8 * (settings >> 8 & 0xFF) + 32 * (settings >> 24)) * board.bus.cycle;
}

template <typename Call> SpeedRow Measure(Bench &bench, const char *what, Picoseconds limit, Call call) {
    const Picoseconds start = bench.board().clock.now();
    const std::uint64_t instructions = bench.machine().instructions();
    if (call() != 0) throw std::runtime_error(std::string(what) + " failed");
    return {what, bench.board().clock.now() - start, limit,
            static_cast<double>(bench.machine().instructions() - instructions) / kSpeedBytes};
}

} // namespace

std::vector<SpeedRow> DataflashSpeed() {
    Chips chips;
    Bench bench(Processor::arm, chips, {});
    const std::uint32_t source = bench.scratch(kSpeedBytes), target = bench.scratch(kSpeedBytes);
    for (std::uint32_t n = 0; n < kSpeedBytes; n++) bench.at(source)[n] = static_cast<std::uint8_t>(n * 7 + n / 251);
    bench.call("SDFlash_Init");
    const Picoseconds wire = kSpeedBytes * ByteTime(bench.board());
    std::vector<SpeedRow> rows;
    rows.push_back(Measure(bench, "DataFlash 1056 write", wire + (kPages - 1) * kWholePage + kPartOfPage,
                           [&] { return bench.call("SDFlash_Write", 0u, source, kSpeedBytes); }));
    rows.push_back(Measure(bench, "DataFlash 1056 read", wire,
                           [&] { return bench.call("SDFlash_Read", 0u, target, kSpeedBytes); }));
    if (!std::equal(bench.at(source), bench.at(source) + kSpeedBytes, bench.at(target)))
        throw std::runtime_error("the DataFlash does not hold what was written");
    return rows;
}
