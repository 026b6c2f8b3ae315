// Sweeping one variant of a scenario: the part of its cuts that falls to one worker.
#pragma once

#include "sweep_run.h"

struct Share {
    unsigned number = 0;
    unsigned of = 1;
};

// `at` is told every case before it runs, with the boots made so far.
Tally SweepVariant(const SweepPlan &plan, const Scenario &scenario, const Variant &variant, Share share,
                   const SweepFirmware &firmware,
                   const std::function<void(const std::string &id, std::uint64_t boots)> &at);
