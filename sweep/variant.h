// Sweeping one variant of a scenario: the part of its cuts that falls to one worker.
#pragma once

#include "sweep/run.h"

namespace fixture {

// Share 0 alone judges the uncut run and counts the variant and its operations. `notes` are told every case before it
// runs. Nothing is thrown: a sweep that fails is a finding.
Tally SweepVariant(const SweepPlan &plan, const SweepUnit &unit, const SweepFirmware &firmware, JobNotes &notes);

} // namespace fixture
