#include "harness/speed.h"

#include <algorithm>
#include <stdexcept>

namespace fixture {

std::vector<SpeedRow> MeasureTransfers(StartedBoard &started, const std::string &chip, const Transfer &write,
                                       const Transfer &read) {
    const std::uint32_t source = started.scratch(kSpeedBytes), target = started.scratch(kSpeedBytes);
    for (std::uint32_t n = 0; n < kSpeedBytes; ++n) started.at(source)[n] = static_cast<std::uint8_t>(n * 7 + n / 251);
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
