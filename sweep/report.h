// What a sweep found, for people, for programs, and as the document that states it.
#pragma once

#include "sweep/run.h"

#include <filesystem>
#include <functional>
#include <string>

namespace fixture {

// The table on standard output, then the holes and the findings.
void PrintSweep(const SweepPlan &plan, const SweepResult &result);
std::string SweepJson(const SweepPlan &plan, const SweepResult &result);

// Runs the campaign that the reliability document states: first the plain row for its speed, then sweep after sweep.
// Each prints its table on standard output and writes the document anew, which says how much of it is still missing.
// Gives the exit status: 0, or 1 where there is a finding. `most` bounds the cases of each scenario where time is
// short; 0: as planned. Throws std::runtime_error where the file cannot be written.
int WriteReliability(const std::filesystem::path &file, unsigned jobs, std::uint64_t seed, std::size_t most,
                     const SweepFirmware &firmware, const std::function<void(const SweepProgress &)> &progress);

} // namespace fixture
