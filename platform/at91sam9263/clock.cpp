#include <at91sam9263.h>
#include <kernel.h>

namespace {

constexpr std::uint32_t kSlowClock = 32768;
constexpr std::uint32_t kBoardCrystal = 16'367'660;

// The main oscillator's frequency as the chip has counted it against the slow clock.
std::uint32_t MainClock() {
    constexpr std::uint32_t kMainReady = 1u << 16;
    const std::uint32_t counted = PMC.MCFR().read();
    return counted & kMainReady ? (counted & 0xFFFF) * (kSlowClock / 16) : kBoardCrystal;
}

std::uint32_t PllClock(std::uint32_t setting) {
    const std::uint32_t divider = setting & 0xFF;
    const std::uint32_t multiplier = setting >> 16 & 0x7FF;
    if (divider == 0 || multiplier == 0) return 0;
    // The product of a whole clock does not fit 32 bits; that of what the division leaves does.
    const std::uint32_t main_clock = MainClock();
    return main_clock / divider * (multiplier + 1) + main_clock % divider * (multiplier + 1) / divider;
}

std::uint32_t SourceClock(std::uint32_t selection) {
    switch (selection) {
    case 1: return MainClock();
    case 2: return PllClock(PMC.PLLAR().read());
    case 3: return PllClock(PMC.PLLBR().read());
    default: return kSlowClock;
    }
}

} // namespace

std::uint32_t GetMasterClock() {
    const std::uint32_t setting = PMC.MCKR().read();
    const std::uint32_t processor = SourceClock(setting & 3) >> (setting >> 2 & 7);
    return processor >> (setting >> 8 & 3);
}
