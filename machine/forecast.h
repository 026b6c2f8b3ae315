// What a power-up will do, foretold from the chips and files that it starts with.
//
//   Chips copy = chips;                                       the prediction changes them as the board would
//   const Prediction told = Forecast(copy, run_options);
//   std::puts(told.reason.c_str());
#pragma once

#include "formats/boot_prediction.h"
#include "machine/machine.h"

#include <string>

namespace fixture {

// "1.9.0", as the bootloader formats its version.
std::string VersionText(const Firmware &build);

// Whether there is anything to foretell a run from: its first stage chooses from the slots, and nothing of the board is
// made to fail.
bool CanForecast(const Chips &chips, const RunOptions &options);

// Of the options, straps, volume and known builds count. `known` must be there.
Prediction Forecast(Chips &chips, const RunOptions &options);

} // namespace fixture
