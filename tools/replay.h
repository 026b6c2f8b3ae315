// A case of a sweep once more, one of its power-ups with everything open to view.
//
//   Replay replay("nand-update/running-erased:12t", {}, ProcessorKind::arm);
//   Machine machine(replay.chips, replay.options());
//   replay.run(machine);
#pragma once

#include "sweep/scenarios.h"
#include "sweep/skips.h"
#include "sweep/workers.h"

#include <optional>
#include <string>

namespace fixture {

class Replay {
public:
    // Everything up to power-up number `power_up` happens at once; left out, that is the first one after the cuts.
    // Throws Refusal where there is no such case, or a cut of it does not come. From here on the process has so long
    // as a case has in a sweep (CaseLimit).
    Replay(const std::string &name, std::optional<unsigned> power_up, ProcessorKind processor);

    Chips chips; // as that power-up finds them
    RunOptions options() const { return sweeper_.options(chips, power_up_); }
    // Runs that power-up, with its cut where it has one.
    RunReport run(Machine &machine);
    // What becomes of the whole case.
    Judgement judgement();

private:
    void begin_astray(ProcessorKind processor);

    CaseId id_;
    CaseLimit limit_;
    SweepFirmware firmware_;
    World world_;
    Sweeper sweeper_;
    unsigned power_up_;
    std::optional<Sweeper> arm_; // these where an instruction is left out
    std::optional<Skips> skips_;
    Skip skip_{};
};

} // namespace fixture
