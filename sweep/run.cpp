#include "sweep/run.h"

#include "sweep/finding_json.h"
#include "sweep/variant.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace fixture {

using Json = nlohmann::json;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Tally, variants, operations, cuts, cases, boots, checked, compared, foretold,
                                   outcomes, holes, found, findings, processor_seconds)

namespace {

// The variants of a scenario, or where fewer cases are asked for than there are variants, so many of them.
std::vector<const Variant *> VariantsOf(const SweepPlan &plan, const Scenario &scenario) {
    std::vector<const Variant *> all, some;
    for (const Variant &variant : scenario.variants) all.push_back(&variant);
    if (plan.sample == 0 || plan.sample >= all.size()) return all;
    // By the plan's seed alone, so that a merge chooses what the parts chose.
    Random random(plan.seed);
    std::sample(all.begin(), all.end(), std::back_inserter(some), plan.sample, random);
    return some;
}

} // namespace

CutKinds SweepPlan::second_kinds() const {
    CutKinds both;
    // Those that come after the operation last, as snapshots are taken.
    for (const CutKind &kind : kinds)
        if (kind.moment > CutMoment::after) both.push_back(kind);
    both.insert(both.end(), kPlainCuts.begin(), kPlainCuts.end());
    return both;
}

void Tally::add(const Tally &other) {
    // Enough to see what is wrong; in a sweep that fails everywhere, all of them would bury the tables.
    constexpr std::size_t kMost = 40;
    variants += other.variants;
    operations += other.operations;
    cuts += other.cuts;
    cases += other.cases;
    boots += other.boots;
    checked += other.checked;
    compared += other.compared;
    foretold += other.foretold;
    found += other.found;
    processor_seconds += other.processor_seconds;
    for (const auto &[outcome, count] : other.outcomes) outcomes[outcome] += count;
    for (const auto &[hole, what] : other.holes)
        for (const auto &[outcome, count] : what) holes[hole][outcome] += count;
    for (const Finding &finding : other.findings)
        if (findings.size() < kMost) findings.push_back(finding);
}

// A fixed number of shares: each boots what it meets once, so the boots that are counted depend on how the cuts are
// shared out.
std::vector<SweepUnit> UnitsOf(const SweepPlan &plan) {
    constexpr unsigned kShares = 4;
    constexpr std::size_t kMany = 32; // variants that keep the workers busy one by one
    std::vector<SweepUnit> units;
    for (std::size_t n = 0; n < plan.scenarios.size(); ++n) {
        const std::vector<const Variant *> variants = VariantsOf(plan, plan.scenarios[n]);
        const unsigned shares = variants.size() < kMany ? kShares : 1;
        for (const Variant *variant : variants)
            for (unsigned share = 0; share < shares; ++share) units.push_back({n, variant, share, shares});
    }
    return units;
}

SweepResult Collect(const SweepPlan &plan, const std::vector<SweepUnit> &units, const std::vector<Tally> &tallies) {
    SweepResult result;
    result.scenarios.resize(plan.scenarios.size());
    // By the units' order, not by that in which they were done: the first findings are the same in every run.
    for (std::size_t n = 0; n < units.size(); ++n) result.scenarios.at(units[n].scenario).add(tallies.at(n));
    for (const Tally &tally : result.scenarios) result.all.add(tally);
    return result;
}

Tally DeathOf(const std::string &at, const std::string &reason) {
    Tally died;
    died.found = 1;
    died.findings.push_back({at, "", "the process that ran it died", reason});
    return died;
}

// One line without a line feed: workers hand it over through a pipe. Names of files need not be UTF-8.
std::string ToText(const Tally &tally) { return Json(tally).dump(-1, ' ', true, Json::error_handler_t::replace); }
Tally TallyFrom(const std::string &text) { return Json::parse(text).get<Tally>(); }

SweepResult RunSweep(const SweepPlan &plan, const SweepFirmware &firmware,
                     const std::function<void(const JobProgress &)> &progress) {
    const std::vector<SweepUnit> units = UnitsOf(plan);
    std::vector<Tally> tallies(units.size());
    RunJobs(
        {.count = units.size(),
         .workers = plan.jobs,
         .died = [](std::size_t, const std::string &at,
                    const std::string &reason) { return ToText(DeathOf(at, reason)); },
         .progress = progress},
        [&](std::size_t n, JobNotes &notes) { return ToText(SweepVariant(plan, units[n], firmware, notes)); },
        [&](std::size_t n, const std::string &text) { tallies.at(n) = TallyFrom(text); });
    return Collect(plan, units, tallies);
}

} // namespace fixture
