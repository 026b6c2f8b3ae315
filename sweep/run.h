// Sweeping: every cut of every variant of the scenarios asked for, shared out among worker processes, and counted.
#pragma once

#include "sweep/scenarios.h"
#include "sweep/workers.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fixture {

struct SweepPlan {
    std::vector<Scenario> scenarios;
    bool on_host = true;
    bool on_arm = false; // both: every case on both, and compared
    unsigned losses = 1;
    CutKinds kinds = kPlainCuts; // what is tried at each operation
    bool skips = false;          // no losses: instructions of the ARM image are left out; needs both processors
    unsigned jobs = 1;           // worker processes: nothing of the result depends on their number
    std::size_t sample = 0;      // about so many cases of each scenario; 0: all there are
    std::uint64_t seed = 1;
    bool foretells = false; // every boot without a cut is foretold as well, and compared

    // A second loss is one of the plain ways too, whatever the first one was.
    CutKinds second_kinds() const;
};

// A table names at most as many of its findings; it counts all.
inline constexpr std::size_t kMostFindings = 20;

struct Finding {
    std::string id;
    std::string processor;
    std::string outcome;
    std::string detail;
};

// What came of one scenario, or of all.
struct Tally {
    std::uint64_t variants = 0;
    std::uint64_t operations = 0; // of the uncut runs
    std::uint64_t cuts = 0;       // single cuts that were visited, of three times as many as operations
    std::uint64_t cases = 0;      // judged: the uncut run, single cuts, or pairs of cuts
    std::uint64_t boots = 0;      // cold boots, every one counted
    std::uint64_t checked = 0;    // cuts that were made again by cutting the power, with the same chips left
    std::uint64_t compared = 0;   // cases with the same console text and chips on both processors
    std::uint64_t foretold = 0;   // boots that went as PredictBoot said
    std::map<std::string, std::uint64_t> outcomes;
    std::map<std::string, std::map<std::string, std::uint64_t>> holes; // by name: what came of it, how often
    std::uint64_t found = 0;                                           // findings in all
    std::vector<Finding> findings;                                     // the first ones
    double processor_seconds = 0;
    void add(const Tally &other);
};

struct SweepResult {
    std::vector<Tally> scenarios; // as planned
    Tally all;
};

// What one worker does at a time: a variant, or a share of its cuts.
struct SweepUnit {
    std::size_t scenario;
    const Variant *variant; // of the plan
    unsigned share = 0;
    unsigned shares = 1;
};
std::vector<SweepUnit> UnitsOf(const SweepPlan &plan);
// The tallies of all units, in their order.
SweepResult Collect(const SweepPlan &plan, const std::vector<SweepUnit> &units, const std::vector<Tally> &tallies);
// What is told of a unit whose process died at a case.
Tally DeathOf(const std::string &at, const std::string &reason);

std::string ToText(const Tally &tally); // one line of JSON
Tally TallyFrom(const std::string &text);

// All of it. Throws std::runtime_error where no worker can be started.
SweepResult RunSweep(const SweepPlan &plan, const SweepFirmware &firmware,
                     const std::function<void(const JobProgress &)> &progress);

} // namespace fixture
