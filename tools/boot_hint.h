// Why a board launched nothing, where the reason lies in the call or its files, and what to try.
#pragma once

#include "machine/forecast.h"

#include <string>

namespace fixture {

struct HintCall {
    std::string volume;
    std::string nand, dataflash; // files; empty: not named
    bool host = false;
    const Prediction *foretold = nullptr; // where it was possible
};
// One line; empty where the report says all there is to say. `board` as the run has left it.
std::string HintOf(const HintCall &call, const RunReport &report, const Board &board, const Chips &chips,
                   const KnownFirmware &known);

// The verdict as the identifier of a problem.
std::string IdOf(Verdict verdict);

} // namespace fixture
