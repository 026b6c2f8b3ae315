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
    : id_(Parse(name)), limit_(name), firmware_(FirmwareDirectory()), world_(WorldOf(id_, firmware_)),
      sweeper_(world_, processor, firmware_),
      power_up_(power_up.value_or(id_.skipped ? 1 : static_cast<unsigned>(id_.cuts.size()))) {
    if (id_.skipped) {
        begin_astray(processor);
        return;
    }
    // A power-up before the last cut has fewer cuts behind it than the case has.
    const std::size_t cuts = std::min<std::size_t>(power_up_, id_.cuts.size());
    chips = sweeper_.cut({id_.cuts.begin(), id_.cuts.begin() + static_cast<std::ptrdiff_t>(cuts)});
    // After the cuts every power-up is whole; the asked one finds what those before it left.
    for (std::size_t n = cuts; n < power_up_; ++n) sweeper_.boot(chips, static_cast<unsigned>(n));
}

void Replay::begin_astray(ProcessorKind processor) {
    if (power_up_ == 0 && processor == ProcessorKind::host)
        throw Refusal(Fault::call, {"wrong-call", "--host", "has no instructions to leave out", "the ARM image"});
    arm_.emplace(world_, ProcessorKind::arm, firmware_);
    skips_.emplace(*arm_, world_);
    skip_ = skips_->find(*id_.skipped);
    chips = power_up_ == 0 ? world_.chips : skips_->leave_out(skip_);
    for (unsigned n = 1; n < power_up_; ++n) sweeper_.boot(chips, n);
}

Judgement Replay::judgement() {
    return id_.skipped ? sweeper_.judge_astray(skips_->leave_out(skip_)) : sweeper_.run(id_.cuts);
}

RunReport Replay::run(Machine &machine) {
    if (id_.skipped && power_up_ == 0) skips_->prepare(machine, skip_);
    const bool is_cut = power_up_ < id_.cuts.size();
    if (is_cut) machine.board().supply.plan(PlanOf(id_.cuts[power_up_], world_));
    return sweeper_.run(machine, is_cut ? sweeper_.to_cut(chips, power_up_) : power_up_);
}

} // namespace fixture
