#include "Watchdog.h"

#include <at91sam9263.h>

void kickWatchdog() {
    constexpr std::uint32_t kKey = 0xA5000000;
    constexpr std::uint32_t kRestart = 1;
    WDT.CR().write(kKey | kRestart);
}
