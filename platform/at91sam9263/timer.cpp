#include "platform.h"

#include <at91sam9263.h>
#include <kernel.h>

namespace {

// With the longest period, the period count and the counter below it make one 32-bit counter.
constexpr std::uint32_t kRunWithLongestPeriod = 1u << 24 | 0xFFFFF;
constexpr std::uint32_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::uint32_t kFractionBits = 24;

// Turns of the counter in a microsecond, in units of 2^-24, rounded up. Divided once: a division takes as long as the
// shortest pause. Good for master clocks up to 4 GHz.
std::uint32_t g_turns;

std::uint32_t TurnsPerMicrosecond(std::uint32_t rate) {
    std::uint32_t turns = rate / kMicrosecondsPerSecond;
    std::uint32_t rest = rate % kMicrosecondsPerSecond;
    for (std::uint32_t bit = 0; bit < kFractionBits; ++bit) {
        rest *= 2;
        turns *= 2;
        if (rest >= kMicrosecondsPerSecond) {
            rest -= kMicrosecondsPerSecond;
            ++turns;
        }
    }
    return turns + 1;
}

void Wait(std::uint32_t microseconds) {
    const std::uint32_t start = PIT.PIIR().read();
    const auto turns = static_cast<std::uint32_t>(std::uint64_t{microseconds} * g_turns >> kFractionBits);
    while (PIT.PIIR().read() - start <= turns + 1) {
    }
}

} // namespace

void TIMER_Init() {
    PIT.MR().write(kRunWithLongestPeriod);
    g_turns = TurnsPerMicrosecond(GetMasterClock() / 16);
}

int usleep(__useconds_t microseconds) {
    constexpr std::uint32_t kLongest = 60 * kMicrosecondsPerSecond; // the counter wraps after more than 600 s
    for (; microseconds > kLongest; microseconds -= kLongest) Wait(kLongest);
    Wait(microseconds);
    return 0;
}
