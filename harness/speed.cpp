#include "harness/speed.h"

#include <algorithm>
#include <stdexcept>

namespace fixture {

SpeedRows MeasureTransfers(StartedBoard &started, const std::string &chip, const Transfer &write,
                           const Transfer &read) {
    const std::uint32_t source = started.scratch(kSpeedBytes), target = started.scratch(kSpeedBytes);
    // The pattern repeats at no power of two, so that pages in the wrong order would show.
    for (std::uint32_t n = 0; n < kSpeedBytes; ++n) started.at(source)[n] = static_cast<std::uint8_t>(n * 7 + n / 251);
    SpeedRows rows;
    // Written first: what is read is compared with it, so that a fast routine that does nothing is no record.
    for (const Transfer *transfer : {&write, &read}) {
        const Picoseconds start = started.board().clock.now();
        if (started.call(transfer->routine, 0u, transfer == &write ? source : target, kSpeedBytes) != 0)
            throw std::runtime_error(std::string(transfer->routine) + " failed");
        rows.push_back({chip + transfer->what, Milliseconds(started.board().clock.now() - start), "ms a MiB",
                        Milliseconds(transfer->limit), "bus cycles as programmed, chip's busy times"});
    }
    if (!std::equal(started.at(source), started.at(source) + kSpeedBytes, started.at(target)))
        throw std::runtime_error(chip + " does not hold what was written");
    return rows;
}

} // namespace fixture
