// make bench: speed on the emulated processor, in virtual time and in instructions. Both are exact: the same figures on
// every machine and every run.
#include "bench/speed.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

std::vector<SpeedRow> MeasureTransfers(StartedBoard &started, const std::string &chip, const Transfer &write,
                                       const Transfer &read) {
    const std::uint32_t source = started.scratch(kSpeedBytes), target = started.scratch(kSpeedBytes);
    for (std::uint32_t n = 0; n < kSpeedBytes; n++) started.at(source)[n] = static_cast<std::uint8_t>(n * 7 + n / 251);
    std::vector<SpeedRow> rows;
    for (const Transfer *transfer : {&write, &read}) {
        const Picoseconds start = started.board().clock.now();
        const std::uint64_t instructions = started.machine().instructions();
        if (started.call(transfer->routine, 0u, transfer == &write ? source : target, kSpeedBytes) != 0)
            throw std::runtime_error(std::string(transfer->routine) + " failed");
        rows.push_back({chip + transfer->what, started.board().clock.now() - start, transfer->limit,
                        static_cast<double>(started.machine().instructions() - instructions) / kSpeedBytes});
    }
    if (!std::equal(started.at(source), started.at(source) + kSpeedBytes, started.at(target)))
        throw std::runtime_error(chip + " does not hold what was written");
    return rows;
}

} // namespace fixture

using namespace fixture;

int main() {
    fmt::print("{:28} {:>12} {:>12} {:>8} {:>18}\n", "1 MiB", "virtual ms", "limit ms", "ratio", "instructions/byte");
    for (const std::vector<SpeedRow> &rows : {NandSpeed(), DataflashSpeed()})
        for (const SpeedRow &row : rows)
            fmt::print("{:28} {:12.3f} {:12.3f} {:8.4f} {:18.2f}\n", row.what,
                       static_cast<double>(row.time) / static_cast<double>(kMillisecond),
                       static_cast<double>(row.limit) / static_cast<double>(kMillisecond), row.ratio(),
                       row.instructions_per_byte);
    fmt::print("\n{:28} {:>12} {:>12} {:>20}\n", "panel", "pixels", "instructions", "instructions/pixel");
    for (const PixelRow &row : PanelSpeed())
        fmt::print("{:28} {:12} {:12} {:20.3f}\n", row.what, row.pixels, row.instructions,
                   static_cast<double>(row.instructions) / row.pixels);
}
