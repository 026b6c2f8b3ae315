#include "speed.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

using namespace fixture;

namespace {

constexpr std::uint32_t kCycleSettings = 0xFFFFE438; // chip select 3
constexpr std::uint32_t kPages = kSpeedBytes / kNandPageBytes;
constexpr std::uint32_t kBlocks = kSpeedBytes / kNandBlockBytes;
constexpr unsigned kCommandCycles = 7; // of a page read or program: two commands, five address bytes

SpeedRow Measure(Bench &bench, const std::string &what, const char *routine, std::uint32_t memory, Picoseconds limit) {
    const Picoseconds start = bench.board().clock.now();
    const std::uint64_t instructions = bench.machine().instructions();
    bench.call(routine, 0u, memory, kSpeedBytes);
    return {what, bench.board().clock.now() - start, limit,
            static_cast<double>(bench.machine().instructions() - instructions) / kSpeedBytes};
}

void MeasurePart(const NandPart &part, std::vector<SpeedRow> &rows) {
    Chips chips;
    chips.nand = NandContents(&part);
    Bench bench(Processor::arm, chips, {});
    const std::uint32_t source = bench.scratch(kSpeedBytes), target = bench.scratch(kSpeedBytes);
    for (std::uint32_t n = 0; n < kSpeedBytes; n++) bench.at(source)[n] = static_cast<std::uint8_t>(n * 7 + n / 251);
    bench.call("NandFlash_if_Init");
    const std::uint32_t cycle = bench.board().bus.read(kCycleSettings, 4) & 0x7F;
    const unsigned accesses = kCommandCycles + kNandPageBytes / (part.wide ? 2 : 1);
    const Picoseconds page = accesses * cycle * bench.board().bus.cycle;
    const Nand::Times &chip = bench.board().nand.times;
    const Picoseconds read = kPages * (page + chip.read);
    const Picoseconds write = kPages * (page + chip.program) + kBlocks * chip.erase + read;
    const std::string name = fmt::format("NAND {}-bit", part.wide ? 16 : 8);
    rows.push_back(Measure(bench, name + " verified write", "NandFlash_if_Write", source, write));
    rows.push_back(Measure(bench, name + " read", "NandFlash_if_Read", target, read));
    if (!std::equal(bench.at(source), bench.at(source) + kSpeedBytes, bench.at(target)))
        throw std::runtime_error(fmt::format("the {} does not hold what was written", part.name));
}

} // namespace

std::vector<SpeedRow> NandSpeed() {
    std::vector<SpeedRow> rows;
    for (const char *part : {"K9F2G08U0M", "MT29F2G16AAB"}) MeasurePart(*FindNandPart(part), rows);
    return rows;
}
