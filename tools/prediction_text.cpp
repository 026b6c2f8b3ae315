#include "tools/prediction_text.h"

#include "tools/call_report.h"

#include <fmt/format.h>

namespace fixture {

void PrintPrediction(const Prediction &told) {
    unsigned start = 0;
    for (const BootStep &step : told.steps) {
        // A heading where the start changes: the same steps come again after each reset, and would read as a
        // repetition.
        if (step.start != start)
            fmt::print("{}\n", step.start == 1 ? "at power-up" : fmt::format("after reset {}", step.start - 1));
        start = step.start;
        fmt::print("  {}{}{}\n", Printable(step.place), step.place.empty() ? "" : ": ", Printable(step.text));
    }
    fmt::print("verdict: {}\n", Printable(told.reason));
}

nlohmann::ordered_json PredictionJson(const Prediction &told) {
    nlohmann::ordered_json json{{"end", NameOf(told.end)},
                                {"reason", TextJson(told.reason)},
                                // null where the first stage starts nothing; 0 would be a slot.
                                {"slot", told.slot ? nlohmann::ordered_json(*told.slot) : nlohmann::ordered_json()},
                                {"version", TextJson(told.version)},
                                {"launched", TextJson(told.launched)},
                                {"size", told.launched_bytes},
                                {"resets", told.resets},
                                {"steps", nlohmann::ordered_json::array()}};
    for (const BootStep &step : told.steps)
        json["steps"].push_back({{"start", step.start},
                                 {"id", step.id},
                                 {"where", TextJson(step.place)},
                                 {"text", TextJson(step.text)},
                                 {"console", TextJson(step.console)}});
    return json;
}

} // namespace fixture
