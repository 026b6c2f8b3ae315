// What a sweep or a closure found, for people, for programs, and for the document that states it.
#pragma once

#include "sweep/closure.h"
#include "sweep/run.h"

#include <string>
#include <variant>
#include <vector>

namespace fixture {

// The table on standard output, then the holes and the findings.
void PrintSweep(const SweepPlan &plan, const SweepResult &result);
void PrintClosure(const ClosurePlan &plan, const std::vector<ClosureTally> &tallies);

std::string SweepJson(const SweepPlan &plan, const SweepResult &result);
std::string ClosureJson(const ClosurePlan &plan, const std::vector<ClosureTally> &tallies);

// One table of a campaign.
struct Stage {
    std::string title;
    std::variant<SweepPlan, ClosurePlan> plan;
};
using TableResult = std::variant<SweepResult, std::vector<ClosureTally>>;

// The template's text with @COMMAND@, @CLOSURES@, @SWEEPS@ and @FIGURES@ filled in. Throws std::runtime_error where one
// of them is missing. Only lines with "processor seconds" differ from one run of a campaign to the next.
std::string FillDocument(std::string text, const std::string &command, const std::vector<Stage> &stages,
                         const std::vector<TableResult> &results);

} // namespace fixture
