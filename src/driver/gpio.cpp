#include "gpio.h"

#include <at91sam9263.h>

namespace {

constexpr std::uint32_t kPinsPerController = 32;
constexpr std::uint32_t kControllerStride = 0x200;

// Kept: the bound is the number of pins, not of controllers, so that controllers 5 to 159, which the chip does not
// have, are not refused. Their addresses wrap around in 32 bits.
constexpr std::uint32_t kControllerBound = 160;

Pio ControllerOf(const PinRecord &record) { return {PIOA.base + record.pin / kPinsPerController * kControllerStride}; }

std::uint32_t MaskOf(const PinRecord &record) { return std::uint32_t{1} << record.pin % kPinsPerController; }

void SetPullUp(const PinRecord &record) {
    const Pio pio = ControllerOf(record);
    (record.attribute & kPinPullUp ? pio.PUER() : pio.PUDR()).write(MaskOf(record));
}

void MakePeripheral(const PinRecord &record) {
    const Pio pio = ControllerOf(record);
    const std::uint32_t mask = MaskOf(record);
    pio.IDR().write(mask);
    SetPullUp(record);
    (record.kind == PIN_PERIPHERAL_A ? pio.ASR() : pio.BSR()).write(mask);
    pio.PDR().write(mask);
}

void MakeInput(const PinRecord &record) {
    const Pio pio = ControllerOf(record);
    const std::uint32_t mask = MaskOf(record);
    (record.attribute & kPinGlitchFilter ? pio.IFER() : pio.IFDR()).write(mask);
    pio.IDR().write(mask);
    SetPullUp(record);
    pio.ODR().write(mask);
    pio.PER().write(mask);
}

void MakeOutput(const PinRecord &record) {
    const Pio pio = ControllerOf(record);
    const std::uint32_t mask = MaskOf(record);
    (record.attribute & kPinMultiDrive ? pio.MDER() : pio.MDDR()).write(mask);
    pio.IDR().write(mask);
    pio.PUDR().write(mask);
    (record.value != 0 ? pio.SODR() : pio.CODR()).write(mask); // before the output is enabled: no glitch
    pio.OER().write(mask);
    pio.PER().write(mask);
}

using MakePin = void (*)(const PinRecord &);
constexpr MakePin kMakers[] = {MakePeripheral, MakePeripheral, MakeInput, MakeOutput}; // by kind
constexpr std::uint32_t kKinds = sizeof kMakers / sizeof kMakers[0];
static_assert(kKinds == PIN_OUTPUT + 1);

} // namespace

std::int32_t pio_setup(const PinRecord *table) {
    if (table == nullptr) return 0;
    std::int32_t count = 0;
    for (const PinRecord *record = table; record->name != nullptr; ++record, ++count) {
        if (record->pin / kPinsPerController >= kControllerBound || record->kind >= kKinds) return 0;
        kMakers[record->kind](*record);
    }
    return count;
}
