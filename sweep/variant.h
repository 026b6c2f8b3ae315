// Sweeping one variant of a scenario: the part of its cuts that falls to one worker.
#pragma once

#include "sweep/run.h"

namespace fixture {

// Which part: number 0 to `of` - 1. Share 0 alone judges the uncut run and counts the variant and its operations.
struct Share {
    unsigned number = 0;
    unsigned of = 1;
};

// `at` is told every case before it runs, with the boots made so far. Nothing is thrown: a sweep that fails is a
// finding.
Tally SweepVariant(const SweepPlan &plan, const Scenario &scenario, const Variant &variant, Share share,
                   const SweepFirmware &firmware,
                   const std::function<void(const std::string &id, std::uint64_t boots)> &at);

} // namespace fixture
