#include "tools/replay.h"

#include <algorithm>

namespace fixture {

namespace {

CaseId Parse(const std::string &name) {
    if (const std::optional<CaseId> id = ParseCase(name)) return *id;
    throw Refusal(Fault::call, {"no-such-case", name, "no case", "SCENARIO/VARIANT:CUTS, as a sweep prints them"});
}

} // namespace

Replay::Replay(const std::string &name, std::optional<unsigned> power_up, ProcessorKind processor)
    : id_(Parse(name)), firmware_(FirmwareDirectory()), world_(WorldOf(id_, firmware_)),
      sweeper_(world_, processor, firmware_), power_up_(power_up.value_or(static_cast<unsigned>(id_.cuts.size()))) {
    // A power-up before the last cut has fewer cuts behind it than the case has.
    const std::size_t cuts = std::min<std::size_t>(power_up_, id_.cuts.size());
    chips = sweeper_.cut({id_.cuts.begin(), id_.cuts.begin() + static_cast<std::ptrdiff_t>(cuts)});
    // After the cuts every power-up is whole; the asked one finds what those before it left.
    for (std::size_t n = cuts; n < power_up_; ++n) sweeper_.boot(chips, static_cast<unsigned>(n));
}

RunReport Replay::run(Machine &machine) {
    const bool is_cut = power_up_ < id_.cuts.size();
    if (is_cut) machine.board().supply.plan(PlanOf(id_.cuts[power_up_], world_));
    return sweeper_.run(machine, is_cut ? sweeper_.to_cut(chips, power_up_) : power_up_);
}

} // namespace fixture
