// What a board will do, as the subcommands that foretell it print it and put it into their reports.
#pragma once

#include "formats/boot_prediction.h"

#include <nlohmann/json.hpp>

namespace fixture {

// Step by step, then the verdict. The hazards are warnings of the call, and printed with these.
void PrintPrediction(const Prediction &told);
// "end", "reason", "slot", "version", "launched", "size", "resets" and "steps".
nlohmann::ordered_json PredictionJson(const Prediction &told);

} // namespace fixture
