// Pin set-up: configures a table of pins of the parallel I/O controllers in one call.
// Source of the registers: AT91SAM9263 datasheet, parallel input/output controller.
//
// The caller enables the controllers' peripheral clocks first: without its clock a controller takes the settings but
// does not follow its inputs.
#pragma once

#include <cstdint>

// What a pin becomes.
enum PinKind : std::uint32_t {
    PIN_PERIPHERAL_A = 0,
    PIN_PERIPHERAL_B = 1,
    PIN_INPUT = 2,
    PIN_OUTPUT = 3,
};

// Attribute bits of a pin.
inline constexpr std::uint32_t kPinPullUp = 0x1;       // not for outputs: theirs is always off
inline constexpr std::uint32_t kPinGlitchFilter = 0x2; // inputs
inline constexpr std::uint32_t kPinMultiDrive = 0x4;   // outputs: open drain

// One pin. A table ends with a record whose name is null.
struct PinRecord {
    const char *name;        // only tested for the table's end
    std::uint32_t pin;       // controller (A = 0) x 32 + bit: PA22 is 22, PD15 is 111
    std::uint32_t value;     // starting level of an output: 0 = low, else high
    std::uint32_t attribute; // kPin... bits
    std::uint32_t kind;      // a PinKind
};

extern "C" {

// Configures the pins of `table` in its order; an output has its level before it is driven.
//
// Returns the number of pins configured. 0 when `table` is null, or when a record has an unknown kind or a controller
// number of 160 or more: the walk ends there, and the pins before it stay configured.
std::int32_t pio_setup(const PinRecord *table);

} // extern "C"
