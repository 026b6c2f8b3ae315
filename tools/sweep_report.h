// What a sweep found, for people, for programs, and as the document that states it.
#pragma once

#include "sweep_run.h"

#include <filesystem>
#include <functional>
#include <string>

void PrintSweep(const SweepPlan &plan, const SweepResult &result);
std::string SweepJson(const SweepPlan &plan, const SweepResult &result);

// Runs the campaign that the reliability document states, and writes the document. Gives the exit status: 0 where there
// is no finding. `most` bounds the cases of each scenario where time is short; 0: as planned.
int WriteReliability(const std::filesystem::path &file, unsigned jobs, std::uint64_t seed, std::size_t most,
                     const SweepFirmware &firmware, const std::function<void(const SweepProgress &)> &progress);
