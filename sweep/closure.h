// The closure of one variant: every state of the chips that any number of losses of power can lead to.
//
// Breadth first over states. From each state the power-up that follows is watched, and every operation in it is cut
// before it, torn in several ways, and after it; what that leaves is a state, too. Where nothing new appears, there is
// nothing that any number of losses could lead to that was not looked at. Every state is judged as a sweep judges what
// a cut leaves.
//
// CloseVariant({.ways = 3}, scenario, variant, ProcessorKind::host, firmware, notes) gives the tally.
//
// Holds for what the chips' models can do: an operation torn in `ways` ways of all there are.
#pragma once

#include "sweep/run.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fixture {

struct ClosureLimits {
    unsigned ways = 3;           // of tearing an operation
    std::size_t most_states = 0; // to explore; the others are left, and nothing is closed. 0: all
    unsigned near = 0;           // cut only so many operations on each side of where the kind of operation or the block
                                 // changes. 0: all
    bool exact = false;          // every byte makes a state of its own; otherwise states go by classes (state_sum.h)
    std::uint64_t seed = 1;
    // What the regions hold before the first loss and after each one, as letters: nothing else is followed, and only
    // what stands at the end is judged. Empty: everything.
    std::vector<std::string> history = {};
};

struct ClosureTally {
    std::uint64_t states = 0;  // or classes of them
    std::uint64_t members = 0; // states by every byte, as far as they were met
    std::uint64_t twins = 0;   // of these, explored beside the first member of their class, and held against it
    std::uint64_t cuts = 0;
    std::uint64_t boots = 0;            // power-ups of every kind
    std::uint64_t left = 0;             // states that were found and not explored
    std::vector<std::uint64_t> depths;  // states by the fewest losses that lead to them
    std::uint64_t longest_recovery = 0; // cold boots until all is as it shall be, in the worst state
    std::uint64_t checked = 0;          // states that were reached again by cutting the power
    std::uint64_t fingerprint = 0;      // the same where the states are the same
    std::map<std::string, std::uint64_t> outcomes;
    std::map<std::string, std::map<std::string, std::uint64_t>> holes;
    std::uint64_t found = 0;
    std::vector<Finding> findings; // each the shortest history of losses
    std::set<std::string> edges;   // "cut FROM TO" and "run FROM TO", as the letters of regions.h
    double processor_seconds = 0;
    std::uint64_t peak_kilobytes = 0; // of the process, all its units
    bool closed() const { return left == 0 && states > 0; }
};

// `notes` are told every state before it is explored. Nothing is thrown: a closure that fails is a finding.
ClosureTally CloseVariant(const ClosureLimits &limits, const Scenario &scenario, const Variant &variant,
                          ProcessorKind processor, const SweepFirmware &firmware, JobNotes &notes);

// What is closed: scenarios, each variant on each of the processors, and compared.
struct ClosurePlan {
    std::vector<Scenario> scenarios;
    bool on_host = true;
    bool on_arm = false; // both: the states have to be the same
    ClosureLimits limits = {};
    bool also_exact = false; // every variant by classes and by every byte: the classes have to be the same
};

struct ClosureUnit {
    std::size_t scenario;
    const Variant *variant; // of the plan
    ProcessorKind processor;
    bool exact;
};
std::vector<ClosureUnit> UnitsOf(const ClosurePlan &plan);
ClosureTally RunUnit(const ClosurePlan &plan, const ClosureUnit &unit, const SweepFirmware &firmware, JobNotes &notes);
// What is told of a unit whose process died at a state.
ClosureTally ClosureDeathOf(const std::string &at, const std::string &reason);

std::string ToText(const ClosureTally &tally); // one line of JSON
ClosureTally ClosureTallyFrom(const std::string &text);

// Finds what differs between units of one variant, which are neighbours, and adds it to the tally of the later one.
void CompareUnits(const std::vector<ClosureUnit> &units, std::vector<ClosureTally> &tallies);

// All of it, with so many worker processes.
std::vector<ClosureTally> RunClosure(const ClosurePlan &plan, unsigned jobs, const SweepFirmware &firmware,
                                     const std::function<void(const JobProgress &)> &progress);

} // namespace fixture
