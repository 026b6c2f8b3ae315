#include "platform.h"

#include <at91sam9263.h>
#include <kernel.h>

namespace {

// With the longest period, the period count and the counter below it make one 32-bit counter.
constexpr std::uint32_t kRunWithLongestPeriod = 1u << 24 | 0xFFFFF;
constexpr std::uint32_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::uint32_t kLongestPause = 60; // seconds; the counter wraps after more than 600

// Waits at least so many turns of the counter.
void WaitTicks(std::uint32_t ticks) {
    const std::uint32_t start = PIT.PIIR().read();
    while (PIT.PIIR().read() - start <= ticks) {
    }
}

} // namespace

void TIMER_Init() { PIT.MR().write(kRunWithLongestPeriod); }

int usleep(__useconds_t microseconds) {
    const std::uint32_t rate = GetMasterClock() / 16;
    for (std::uint32_t seconds = microseconds / kMicrosecondsPerSecond; seconds > 0;) {
        const std::uint32_t part = seconds < kLongestPause ? seconds : kLongestPause;
        WaitTicks(part * rate);
        seconds -= part;
    }
    const std::uint64_t rest = std::uint64_t{microseconds % kMicrosecondsPerSecond} * rate;
    WaitTicks(static_cast<std::uint32_t>((rest + kMicrosecondsPerSecond - 1) / kMicrosecondsPerSecond));
    return 0;
}
