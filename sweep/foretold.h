// What PredictBoot says of a power-up, held against what the bootloader then does.
//
// Make a Foretold before the power-up, run it, then compare(): the text is empty if the two agree.
#pragma once

#include "machine/forecast.h"
#include "sweep/world.h"

#include <string>

namespace fixture {

class Foretold {
public:
    Foretold(const World &world, const Chips &chips, const KnownFirmware &known);

    // Whether there is anything to compare: a prediction knows nothing of chips that fail while the board runs.
    static bool possible(const World &world);

    const Prediction &prediction() const { return prediction_; }

    // The first difference in words: how the run ended, what was launched, the console text of every start, and what
    // the slots and the version record hold. Empty: there is none.
    std::string compare(const RunReport &report, const std::string &console, const Memory &memory,
                        const Chips &chips) const;

private:
    Medium medium_;
    Chips chips_; // as the board would leave them
    Prediction prediction_;
};

} // namespace fixture
