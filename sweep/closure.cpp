#include "sweep/closure.h"

#include "sweep/chips_compare.h"
#include "sweep/finding_json.h"
#include "sweep/regions.h"
#include "sweep/state_sum.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>
#include <unordered_map>
#include <unordered_set>

namespace fixture {

using Json = nlohmann::json;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ClosureTally, states, cuts, boots, left, depths, longest_recovery, members, twins,
                                   checked, fingerprint, outcomes, holes, found, findings, edges, processor_seconds,
                                   peak_kilobytes)

namespace {

constexpr std::uint64_t kTwinOf = 4;  // one class of so many has a second member explored
constexpr std::uint64_t kReached = 8; // states of a variant that are reached again with the power really cut

// Chips that were not changed are the world's own.
struct KeptChips {
    EepromContents eeprom;
    std::optional<NandContents> nand;
    std::optional<At45Contents> dataflash;

    KeptChips(const Chips &chips, const World &world) : eeprom(chips.eeprom) {
        // What no update on this medium touches is compared in no time, since it shares every page.
        if (world.medium == Medium::nand || !(chips.nand == world.chips.nand)) nand = chips.nand;
        if (world.medium == Medium::dataflash || !(chips.dataflash == world.chips.dataflash))
            dataflash = chips.dataflash;
    }
    Chips restore(const World &world) const {
        return {eeprom, nand ? *nand : world.chips.nand, dataflash ? *dataflash : world.chips.dataflash};
    }
};

// A cut, and the operation that it struck.
struct Loss {
    Cut cut;
    ChipOperation operation;
};

// A class of states, or in an exact closure one state.
struct State {
    std::uint64_t key;
    std::uint64_t of_class;
    std::uint64_t cells; // of the member that was met first
    std::size_t parent;  // of the first: itself
    Loss loss;           // in the parent's power-up
    std::size_t losses;
    std::uint32_t letters;          // their number
    std::optional<KeptChips> chips; // until it has been explored
    std::optional<KeptChips> twin;  // another member, of some classes
    std::uint64_t steps = 0;        // differs where a cut of its power-up leads to another class
    Outcome outcome = Outcome::good;
    unsigned boots = 0;
};

// What one operation changes, as it was before it.
class Undo {
public:
    Undo(Chips &chips, const ChipOperation &operation) : chips_(chips) {
        const std::string_view chip = operation.chip;
        if (chip == "NAND") {
            block_ = chips.nand.keep(operation.address / kNandBlockBytes);
        } else if (chip == "DataFlash") {
            page_ = operation.address / chips.dataflash.part().page_bytes;
            bytes_ = chips.dataflash.page(page_);
        } else {
            eeprom_ = chips.eeprom;
        }
    }
    void restore() {
        if (block_) chips_.nand.put_back(*block_);
        if (bytes_) chips_.dataflash.set_page(page_, *bytes_);
        if (eeprom_) chips_.eeprom = *eeprom_;
    }

private:
    Chips &chips_;
    std::optional<NandContents::KeptBlock> block_;
    std::uint32_t page_ = 0;
    std::optional<At45Contents::Page> bytes_;
    std::optional<EepromContents> eeprom_;
};

// That a power-up programs data into no block that it has not erased. Then it cannot matter how often, and in which
// order, pages were programmed before, and the sums of states may leave that out.
class EraseWatch {
public:
    void make(const Chips &chips, const ChipOperation &operation, const std::function<void()> &whole) {
        if (std::string_view(operation.chip) != "NAND") return whole();
        const std::uint32_t row = operation.address / kNandPageBytes;
        const std::uint32_t block = operation.address / kNandBlockBytes;
        const unsigned before = DataPrograms(chips.nand, row);
        whole();
        const unsigned after = DataPrograms(chips.nand, row);
        if (std::string_view(operation.kind) == "erase" && after == 0 && chips.nand.erased(row)) erased_.insert(block);
        if (after > before && !erased_.contains(block)) block_not_erased = block;
    }

    std::optional<std::uint32_t> block_not_erased;

private:
    std::set<std::uint32_t> erased_;
};

class Explorer {
public:
    Explorer(const ClosureLimits &limits, const Scenario &scenario, const Variant &variant, ProcessorKind processor,
             const SweepFirmware &firmware, JobNotes &notes)
        : limits_(limits), scenario_(scenario), variant_(variant), processor_(processor), notes_(notes),
          world_(MakeWorld(scenario.name, variant, limits.seed, firmware)), sweeper_(world_, processor, firmware) {
        sweeper_.remember = false; // no state is met twice
    }

    ClosureTally run() {
        const double begin = ProcessorSeconds();
        try {
            close();
        } catch (const std::exception &error) {
            found({}, "the closure itself failed", error.what());
        }
        tally_.boots = sweeper_.boots;
        tally_.processor_seconds = ProcessorSeconds() - begin;
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        tally_.peak_kilobytes = static_cast<std::uint64_t>(usage.ru_maxrss);
        return tally_;
    }

private:
    bool follows(const std::string &letters, std::size_t losses) const {
        return limits_.history.empty() || (losses < limits_.history.size() && limits_.history[losses] == letters);
    }

    void close() {
        if (!follows(RegionLetters(world_.chips, world_), 0)) return;
        meet(StateSum(world_, world_.chips), world_.chips, 0, {}, 0);
        for (std::size_t n = 0; n < states_.size(); ++n) {
            if (limits_.most_states != 0 && n >= limits_.most_states) break;
            const std::vector<Cut> cuts = history(n);
            notes_.at(NameOf(id(cuts)), sweeper_.boots);
            // States lie in the order in which they were met, so going through the list is breadth first.
            const Chips chips = states_[n].chips->restore(world_);
            // Explored, its chips are not needed again: memory goes with the border, not with all that was seen.
            states_[n].chips.reset();
            const bool is_last = limits_.history.size() == cuts.size() + 1;
            if (!is_last) explore(chips, n);
            if (limits_.history.empty() || is_last) judge(chips, n, cuts);
            check(chips, n, cuts);
            if (is_last && tally_.found > 0) break; // one case tells it all
        }
        for (State &state : states_)
            if (state.twin && state.steps != 0) compare_twin(state);
        count();
    }

    void count() {
        tally_.states = states_.size();
        tally_.members = members_.size();
        tally_.left =
            states_.size() - std::min(states_.size(), limits_.most_states ? limits_.most_states : states_.size());
        std::map<std::uint64_t, const State *> classes; // each with the member that the fewest losses lead to
        for (const State &state : states_) {
            tally_.depths.resize(std::max(tally_.depths.size(), state.losses + 1));
            ++tally_.depths[state.losses];
            const auto [first, is_new] = classes.try_emplace(state.of_class, &state);
            if (!is_new) compare(*first->second, state);
        }
        // Of the set of classes with their depths and ends, whatever the order: both processors, and an exact closure,
        // have to come to the same one.
        for (const auto &[key, state] : classes)
            tally_.fingerprint += key * (2 * state->losses + 1) + static_cast<std::uint64_t>(state->outcome);
    }

    CaseId id(const std::vector<Cut> &cuts) const { return {scenario_.name, variant_.label, cuts, limits_.seed}; }

    std::vector<Cut> history(std::size_t n) const {
        std::vector<Cut> cuts;
        // A case's name is its cuts, from the first power-up on; states keep the last one and where it came from.
        for (; states_[n].losses > 0; n = states_[n].parent) cuts.push_back(states_[n].loss.cut);
        std::reverse(cuts.begin(), cuts.end());
        return cuts;
    }

    // What the cuts of that history struck.
    std::vector<ChipOperation> struck(std::size_t n) const {
        std::vector<ChipOperation> operations;
        for (; states_[n].losses > 0; n = states_[n].parent) operations.push_back(states_[n].loss.operation);
        std::reverse(operations.begin(), operations.end());
        return operations;
    }

    // A state is known by its sum. Chips are kept for new ones alone.
    std::uint32_t meet(const StateSum &sum, const Chips &chips, std::size_t parent, const Loss &loss,
                       std::size_t losses) {
        const std::uint64_t chances = ChancesSum(chips);
        const std::uint64_t cells = sum.cells() + chances;
        const std::uint64_t of_class = sum.of_class() + chances;
        const std::uint64_t key = limits_.exact ? cells : of_class;
        const bool is_new_member = members_.insert(cells).second;
        const auto [known, is_new] = known_.try_emplace(key, states_.size());
        if (!is_new) {
            State &state = states_[known->second];
            // Any of the others, not just the one that is met next and may differ least.
            const bool is_asked = key % kTwinOf == 0 && limits_.history.empty();
            if (is_asked && is_new_member && (!state.twin || cells % 8 == 0)) state.twin.emplace(chips, world_);
            return state.letters;
        }
        const std::string letters = RegionLetters(chips, world_);
        const std::uint32_t number = number_of(letters);
        // Not on the history that is asked for: forgotten, since another path may meet it where it is.
        if (!follows(letters, losses)) {
            known_.erase(known);
            return number;
        }
        State state{key, of_class, cells, parent, loss, losses, number, {}, {}};
        state.chips.emplace(chips, world_);
        states_.push_back(std::move(state));
        return number;
    }

    void add_edge(const char *how, std::uint32_t from, std::uint32_t to) {
        const bool is_cut = how[0] == 'c';
        // As numbers first: the same few edges are met by the thousand, and texts cost more than the sums.
        if (!edges_.insert(std::uint64_t{is_cut} << 63 | std::uint64_t{from} << 32 | to).second) return;
        const auto text = [&](std::uint32_t number) -> const std::string & {
            return std::find_if(letters_.begin(), letters_.end(), [=](const auto &l) { return l.second == number; })
                ->first;
        };
        tally_.edges.insert(fmt::format("{} {} {}", how, text(from), text(to)));
    }

    void explore(const Chips &chips, std::size_t n) {
        const std::uint32_t from = states_[n].letters;
        const std::size_t losses = states_[n].losses;
        const std::uint64_t steps =
            walk(chips, losses > 0, [&](const Loss &loss, const StateSum &sum, const Chips &left) {
                ++tally_.cuts;
                add_edge("cut", from, meet(sum, left, n, loss, losses + 1));
            });
        states_[n].steps = steps;
        add_edge("run", from, end_);
    }

    // One power-up from these chips, cut at each of its moments. What comes of it is a number that differs where a cut
    // leads to another class; it is never 0.
    std::uint64_t walk(Chips chips, unsigned number,
                       const std::function<void(const Loss &, const StateSum &, const Chips &)> &visit) {
        // The first power-up differs (a commit is made by a running system); all later ones are alike.
        const std::vector<bool> wanted = limits_.near == 0 ? std::vector<bool>{} : near_changes(chips, number);
        StateSum sum(world_, chips);
        const std::uint64_t begins_with = sum.cells();
        const std::uint32_t from = number_of(RegionLetters(chips, world_));
        EraseWatch erases;
        std::uint64_t step = 1;
        const auto cut = [&](const Loss &loss, const StateSum &now) {
            step = NoiseSource(step, now.of_class() + ChancesSum(chips))();
            visit(loss, now, chips);
        };
        sweeper_.watch(chips, number,
                       [&](std::uint64_t index, const ChipOperation &operation, const std::function<void()> &whole,
                           const std::function<void(Random &)> &torn) {
                           const bool is_cut = wanted.empty() || wanted.at(index);
                           if (is_cut) cut({{index, CutMoment::before}, operation}, sum);
                           // Taken out before the operation and put in after it: a cut costs the pages that it touches,
                           // not the chips.
                           sum.take_out(chips, operation);
                           for (unsigned way = 1; is_cut && way <= limits_.ways; ++way) {
                               Undo undo(chips, operation);
                               Random random = TearingOf(operation, world_.board.seed, way);
                               torn(random);
                               StateSum now = sum;
                               now.put_in(chips, operation);
                               cut({{index, CutMoment::torn, way}, operation}, now);
                               undo.restore();
                           }
                           erases.make(chips, operation, whole);
                           sum.put_in(chips, operation);
                           if (is_cut) cut({{index, CutMoment::after}, operation}, sum);
                       });
        // The sums leave out how often pages were programmed. If that ever mattered, states would be taken for one
        // another.
        if (erases.block_not_erased)
            throw std::runtime_error(
                fmt::format("block {} is programmed and was not erased by this power-up", *erases.block_not_erased));
        // The sum by steps against the sum over all: a model that changes a page beside the one it names is found here.
        const StateSum whole(world_, chips);
        if (sum.cells() != whole.cells() || sum.of_class() != whole.of_class())
            throw std::runtime_error("the sum of what the chips hold went astray");
        end_ = sum.cells() == begins_with ? from : number_of(RegionLetters(chips, world_));
        return step | 1;
    }

    // That a second member of a class goes the way of the first: in a closure by classes one that is explored for this
    // alone, in an exact one every member.
    void compare_twin(const State &state) {
        const Chips chips = state.twin->restore(world_);
        State twin{};
        twin.key = state.key;
        twin.steps = walk(chips, state.losses > 0, [](const Loss &, const StateSum &, const Chips &) {});
        const Judgement judgement = sweeper_.judge_watched(chips, state.losses > 0);
        twin.outcome = judgement.outcome;
        twin.boots = judgement.boots;
        compare(state, twin);
    }

    void compare(const State &first, const State &other) {
        if (first.steps == 0 || other.steps == 0) return; // not explored
        ++tally_.twins;
        if (first.steps == other.steps && first.outcome == other.outcome && first.boots == other.boots) return;
        found(history(known_.at(other.key)), "another way than the first member of its class goes", "");
    }

    std::uint32_t number_of(const std::string &letters) {
        return letters_.try_emplace(letters, static_cast<std::uint32_t>(letters_.size())).first->second;
    }

    // Which operations lie at most `near` from one of another kind or block, or from the first or the last one.
    std::vector<bool> near_changes(Chips chips, unsigned number) {
        struct Place {
            std::string_view kind;
            std::uint32_t block;
            bool operator==(const Place &) const = default;
        };
        std::vector<Place> places;
        sweeper_.watch(chips, number,
                       [&](std::uint64_t, const ChipOperation &operation, const std::function<void()> &whole,
                           const std::function<void(Random &)> &) {
                           places.push_back({operation.kind, operation.address / kNandBlockBytes});
                           whole();
                       });
        std::vector<bool> wanted(places.size());
        for (std::size_t n = 0; n < places.size(); ++n) {
            if (n > 0 && places[n] == places[n - 1] && n + 1 < places.size()) continue;
            const std::size_t begin = n - std::min<std::size_t>(n, limits_.near);
            const std::size_t end = std::min(n + limits_.near, places.size());
            for (std::size_t i = begin; i < std::max(end, n + 1); ++i) wanted[i] = true;
        }
        return wanted;
    }

    // That the power really cut leaves what the state holds, and that boots by themselves end as was judged.
    void check(const Chips &chips, std::size_t n, const std::vector<Cut> &cuts) {
        // A sample by the states' own sums, so that it is the same in every run and spread over all depths.
        if (cuts.empty() || states_[n].cells % 64 >= 8 || tally_.checked >= kReached) return;
        ++tally_.checked;
        const Chips really = sweeper_.cut(cuts);
        if (StateSum(world_, really).cells() != StateSum(world_, chips).cells())
            found(cuts, "another state than the cuts themselves leave", "");
        const Judgement judgement = sweeper_.judge(really, 1);
        const bool was_judged = limits_.history.empty() || states_[n].boots > 0;
        if (was_judged && (judgement.outcome != states_[n].outcome || judgement.boots != states_[n].boots))
            found(cuts, "another end than the watched power-up leads to", judgement.detail);
    }

    void judge(const Chips &chips, std::size_t n, const std::vector<Cut> &cuts) {
        // Judged as after a cut, however many losses there were: the board knows of none.
        const unsigned number = cuts.empty() ? 0 : 1;
        // Explored just before, it has had its first boot, cut at every moment and put right again. What ends a
        // history is not explored.
        const Judgement judgement =
            limits_.history.empty() ? sweeper_.judge_watched(chips, number) : sweeper_.judge(chips, number);
        states_[n].outcome = judgement.outcome;
        states_[n].boots = judgement.boots;
        ++tally_.outcomes[NameOf(judgement.outcome)];
        if (judgement.outcome == Outcome::good)
            tally_.longest_recovery = std::max<std::uint64_t>(tally_.longest_recovery, judgement.boots);
        const char *hole = HoleOf(variant_, judgement, {cuts.empty(), struck(n)});
        if (hole)
            ++tally_.holes[hole][NameOf(judgement.outcome)];
        else if (judgement.outcome != Outcome::good)
            found(cuts, NameOf(judgement.outcome), judgement.detail);
    }

    void found(const std::vector<Cut> &cuts, const std::string &outcome, const std::string &detail) {
        ++tally_.found;
        if (tally_.findings.size() < kMostFindings)
            tally_.findings.push_back(
                {NameOf(id(cuts)), processor_ == ProcessorKind::host ? "host" : "arm", outcome, detail});
    }

    const ClosureLimits &limits_;
    const Scenario &scenario_;
    const Variant &variant_;
    const ProcessorKind processor_;
    JobNotes &notes_;
    const World world_;
    Sweeper sweeper_;
    std::vector<State> states_;
    std::unordered_map<std::uint64_t, std::size_t> known_;
    std::unordered_set<std::uint64_t> members_;
    std::uint32_t end_ = 0; // the letters with which the last walk ended
    std::map<std::string, std::uint32_t> letters_;
    std::set<std::uint64_t> edges_;
    ClosureTally tally_;
};

} // namespace

ClosureTally CloseVariant(const ClosureLimits &limits, const Scenario &scenario, const Variant &variant,
                          ProcessorKind processor, const SweepFirmware &firmware, JobNotes &notes) {
    return Explorer(limits, scenario, variant, processor, firmware, notes).run();
}

std::vector<ClosureUnit> UnitsOf(const ClosurePlan &plan) {
    std::vector<ClosureUnit> units;
    for (std::size_t n = 0; n < plan.scenarios.size(); ++n)
        for (const Variant &variant : plan.scenarios[n].variants) {
            for (const bool exact : {false, true}) {
                if (exact && !plan.also_exact) continue;
                if (plan.on_host) units.push_back({n, &variant, ProcessorKind::host, exact});
                if (plan.on_arm) units.push_back({n, &variant, ProcessorKind::arm, exact});
            }
        }
    return units;
}

ClosureTally RunUnit(const ClosurePlan &plan, const ClosureUnit &unit, const SweepFirmware &firmware, JobNotes &notes) {
    ClosureLimits limits = plan.limits;
    limits.exact = unit.exact;
    return CloseVariant(limits, plan.scenarios.at(unit.scenario), *unit.variant, unit.processor, firmware, notes);
}

ClosureTally ClosureDeathOf(const std::string &at, const std::string &reason) {
    ClosureTally died;
    died.found = 1;
    died.findings.push_back({at, "", "the process that ran it died", reason});
    return died;
}

std::string ToText(const ClosureTally &tally) {
    return Json(tally).dump(-1, ' ', true, Json::error_handler_t::replace);
}
ClosureTally ClosureTallyFrom(const std::string &text) { return Json::parse(text).get<ClosureTally>(); }

void CompareUnits(const std::vector<ClosureUnit> &units, std::vector<ClosureTally> &tallies) {
    for (std::size_t n = 1; n < units.size(); ++n) {
        const ClosureTally &one = tallies.at(n - 1);
        ClosureTally &other = tallies.at(n);
        if (units[n].variant != units[n - 1].variant || one.fingerprint == other.fingerprint) continue;
        ++other.found;
        const char *what = units[n].exact == units[n - 1].exact ? "other states on the other processor"
                                                                : "other classes where every byte counts";
        other.findings.push_back(
            {units[n].variant->label, "both", what, fmt::format("{} and {} states", one.states, other.states)});
    }
}

std::vector<ClosureTally> RunClosure(const ClosurePlan &plan, unsigned jobs, const SweepFirmware &firmware,
                                     const std::function<void(const JobProgress &)> &progress) {
    const std::vector<ClosureUnit> units = UnitsOf(plan);
    std::vector<ClosureTally> tallies(units.size());
    RunJobs(
        {.count = units.size(),
         .workers = jobs,
         .died = [](std::size_t, const std::string &at,
                    const std::string &reason) { return ToText(ClosureDeathOf(at, reason)); },
         .progress = progress},
        [&](std::size_t n, JobNotes &notes) { return ToText(RunUnit(plan, units[n], firmware, notes)); },
        [&](std::size_t n, const std::string &text) { tallies.at(n) = ClosureTallyFrom(text); });
    CompareUnits(units, tallies);
    return tallies;
}

} // namespace fixture
