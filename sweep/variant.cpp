#include "sweep/variant.h"

#include "machine/symbols.h"
#include "sweep/skips.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace fixture {

namespace {

// Of one variant: a mistake that shows everywhere must not drown the others.
constexpr std::size_t kChecks = 4; // one cut in so many of a share, and at most as many, is made again in earnest

std::uint64_t HashOf(std::string_view text, std::uint64_t seed) {
    for (const char c : text) seed = (seed ^ static_cast<unsigned char>(c)) * 0x100000001B3u;
    return seed;
}

// All the cuts of a power-up, or a sample of them, in order; where it is asked for with those of its first and its last
// two operations, since what lies beside an image is touched there: by its first page, by its last one, and where the
// header of the other one is cleared.
std::vector<Cut> ChooseCuts(std::uint64_t operations, const CutKinds &kinds, std::size_t most, std::uint64_t seed,
                            bool with_ends) {
    std::vector<Cut> cuts;
    for (std::uint64_t n = 0; n < operations; ++n)
        for (const CutKind &kind : kinds) cuts.push_back({n, kind.moment, kind.way});
    if (most == 0 || most >= cuts.size()) return cuts;
    std::vector<Cut> chosen;
    Random random(seed);
    std::sample(cuts.begin(), cuts.end(), std::back_inserter(chosen), most, random);
    std::erase_if(cuts, [&](const Cut &cut) {
        const bool is_end = with_ends && (cut.operation == 0 || cut.operation + 2 >= operations);
        return !is_end && std::find(chosen.begin(), chosen.end(), cut) == chosen.end();
    });
    return cuts;
}

class VariantSweep {
public:
    VariantSweep(const SweepPlan &plan, const SweepUnit &unit, const SweepFirmware &firmware, JobNotes &notes)
        : plan_(plan), scenario_(plan.scenarios.at(unit.scenario)), variant_(*unit.variant), unit_(unit), notes_(notes),
          world_(MakeWorld(scenario_.name, variant_, plan.seed, firmware)),
          // A sample depends on names, not on the order of variants or workers: a table can be counted again.
          seed_(HashOf(scenario_.name + variant_.label, plan.seed)), symbols_(&firmware.version(0)) {
        assert((plan.on_host || plan.on_arm) && "first() needs a processor");
        if (plan.on_host) host_.emplace(world_, ProcessorKind::host, firmware);
        if (plan.on_arm) arm_.emplace(world_, ProcessorKind::arm, firmware);
        for (std::optional<Sweeper> *sweeper : {&host_, &arm_})
            if (*sweeper) (*sweeper)->foretells = plan.foretells;
    }

    Tally run() {
        const double begin = ProcessorSeconds();
        try {
            sweep();
        } catch (const std::exception &error) {
            found(NameOf(id({})), "the sweep itself failed", error.what());
        }
        tally_.boots = boots();
        tally_.foretold = (host_ ? host_->foretold_boots : 0) + (arm_ ? arm_->foretold_boots : 0);
        tally_.processor_seconds = ProcessorSeconds() - begin;
        return tally_;
    }

private:
    Sweeper &first() { return host_ ? *host_ : *arm_; }
    std::uint64_t boots() const { return (host_ ? host_->boots : 0) + (arm_ ? arm_->boots : 0); }
    CaseId id(const std::vector<Cut> &cuts) const { return {scenario_.name, variant_.label, cuts, plan_.seed}; }

    std::size_t most() const {
        // A sample is of a scenario; its variants share it, rounded up so that each has a cut.
        const std::size_t wanted =
            plan_.sample == 0 ? 0 : (plan_.sample + scenario_.variants.size() - 1) / scenario_.variants.size();
        if (wanted == 0 || variant_.most_cuts == 0) return std::max(wanted, variant_.most_cuts);
        return std::min(wanted, variant_.most_cuts);
    }

    void sweep() {
        notes_.preparing(NameOf(id({})));
        if (plan_.skips) return sweep_skips();
        const std::uint64_t operations = first().operations();
        // The shares of one variant have its uncut run in common: one of them counts it.
        if (unit_.share == 0) {
            ++tally_.variants;
            tally_.operations += operations;
            tally(world_.chips, {}, {});
        }
        const std::size_t most = this->most();
        const bool pairs = plan_.losses == 2;
        // Pairs: as many first cuts as second cuts for each of them.
        const auto level = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(most))));
        const std::vector<Cut> cuts =
            share_of(ChooseCuts(operations, plan_.kinds, pairs ? level : most, seed_, plan_.sample == 0));
        const std::vector<Snapshot> snapshots = take_snapshots(world_.chips, 0, cuts);
        tally_.cuts += snapshots.size();
        check(snapshots);
        for (const Snapshot &snapshot : snapshots) {
            if (pairs && snapshot.cut.moment != CutMoment::brownout)
                sweep_second(snapshot, most == 0 ? 0 : (most + level - 1) / level);
            else
                tally(snapshot.chips, {snapshot.cut}, struck_by({snapshot}));
        }
    }

    // Each instruction left out on the ARM image; what that leaves is judged on this machine's processor, which comes
    // to the same.
    void sweep_skips() {
        Skips skips(*arm_, world_);
        tally_.variants += unit_.share == 0;
        std::vector<Skip> chosen = skips.choose(most(), seed_), mine;
        for (std::size_t n = unit_.share; n < chosen.size(); n += unit_.shares) mine.push_back(chosen[n]);
        const auto judged = [&](const Skip &, const Chips &left) {
            const std::uint64_t before = host_->boots;
            const Judgement judgement = host_->judge_astray(left);
            return fmt::format("{} {} {} {}", host_->digest(left), static_cast<unsigned>(judgement.outcome),
                               host_->boots - before, judgement.detail);
        };
        std::map<std::uint64_t, std::uint64_t> digests; // by the instruction's number
        const auto take = [&](const Skip &skip, const std::string &text, const std::string &death) {
            notes_.at(name_of(skip), boots());
            ++tally_.cases;
            ++arm_->boots;
            std::istringstream words(text);
            unsigned outcome = 0;
            std::uint64_t made = 0;
            Judgement judgement;
            std::uint64_t &digest = digests[skip.number];
            if (!(words >> digest >> outcome >> made) || !death.empty())
                return found(name_of(skip), "the process that ran it died", death);
            host_->boots += made;
            std::getline(words >> std::ws, judgement.detail);
            judgement.outcome = static_cast<Outcome>(outcome);
            // Most do no harm at all, and are judged once.
            host_->learn(digest, judgement);
            count_astray(name_of(skip), judgement, skip.address);
        };
        skips.leave_out_each(mine, judged, take);
        check_skips(skips, mine, digests);
    }

    std::string name_of(const Skip &skip) const {
        CaseId name = id({});
        name.skipped = skip.number;
        return NameOf(name);
    }

    // Some of them once more, from the power-up on and in this process.
    void check_skips(Skips &skips, const std::vector<Skip> &mine, std::map<std::uint64_t, std::uint64_t> &digests) {
        std::vector<Skip> some;
        Random random(seed_);
        std::sample(mine.begin(), mine.end(), std::back_inserter(some), kChecks, random);
        for (const Skip &skip : some) {
            notes_.preparing(name_of(skip));
            if (host_->digest(skips.leave_out(skip)) != digests[skip.number])
                found(name_of(skip), "another state than the whole power-up leaves", "");
            ++tally_.checked;
        }
    }

    // Only what takes the last bootloader counts as a finding; all else is told by what came of it.
    void count_astray(const std::string &name, const Judgement &judgement, std::uint32_t address) {
        ++tally_.outcomes[NameOf(judgement.outcome)];
        if (judgement.outcome == Outcome::good) return;
        const std::string hole = AstrayHole(judgement.outcome, symbols_.routine(address));
        ++tally_.holes[hole][NameOf(judgement.outcome)];
        if (!IsKnownAstray(hole)) found(name, NameOf(judgement.outcome), symbols_.place_and_line(address));
    }

    // The boot that follows a cut, as it is and cut again.
    void sweep_second(const Snapshot &cut, std::size_t most) {
        tally(cut.chips, {cut.cut}, struck_by({cut}));
        const std::uint64_t operations = first().count(cut.chips, 1, cut.cut.way);
        const std::vector<Cut> cuts =
            ChooseCuts(operations, plan_.second_kinds(), most,
                       NoiseSource(seed_, 3 * cut.cut.operation + static_cast<unsigned>(cut.cut.moment))(), false);
        for (const Snapshot &second : take_snapshots(cut.chips, 1, cuts, cut.cut.way))
            tally(second.chips, {cut.cut, second.cut}, struck_by({cut, second}));
    }

    static Struck struck_by(const std::vector<std::reference_wrapper<const Snapshot>> &snapshots) {
        Struck struck{.uncut = false};
        for (const Snapshot &snapshot : snapshots) {
            struck.operations.push_back(snapshot.operation);
            struck.moments.push_back(snapshot.cut.moment);
        }
        return struck;
    }

    // What is left after one operation is what is there before the next: a worker that gets both boots it once.
    std::vector<Cut> share_of(std::vector<Cut> cuts) const {
        std::erase_if(cuts, [&](const Cut &cut) {
            return (cut.operation + (cut.moment == CutMoment::after)) % unit_.shares != unit_.share;
        });
        return cuts;
    }

    // Every cut must be met exactly once.
    std::vector<Snapshot> take_snapshots(const Chips &chips, unsigned power_up, const std::vector<Cut> &cuts,
                                         unsigned way = 1) {
        std::size_t next = 0;
        const auto wanted = [&](const Cut &cut) {
            const bool mine = next < cuts.size() && cuts[next] == cut;
            next += mine;
            return mine;
        };
        const CutKinds kinds = power_up == 0 ? plan_.kinds : plan_.second_kinds();
        std::vector<Snapshot> snapshots = first().take_snapshots(chips, power_up, wanted, kinds, way);
        for (Snapshot &snapshot : snapshots)
            if (snapshot.cut.moment == CutMoment::brownout) brown_out(snapshot);
        if (snapshots.size() != cuts.size())
            throw std::runtime_error(fmt::format("{} cuts met, of {}", snapshots.size(), cuts.size()));
        return snapshots;
    }

    // The program runs on while the chips have stopped, so this loss is made in earnest each time. Nothing of what it
    // did then may be found.
    void brown_out(Snapshot &snapshot) {
        notes_.at(NameOf(id({snapshot.cut})), boots());
        Chips left = first().cut({snapshot.cut});
        if (first().digest(left) != first().digest(snapshot.chips))
            found(NameOf(id({snapshot.cut})), "a chip that has stopped was changed", "");
        snapshot.chips = std::move(left);
    }

    // That cutting the power leaves what the snapshot holds, on every processor.
    void check(const std::vector<Snapshot> &snapshots) {
        if (plan_.losses != 1) return;
        std::vector<Snapshot> some;
        Random random(seed_);
        const std::size_t count = std::clamp<std::size_t>(snapshots.size() / kChecks, 1, kChecks);
        std::sample(snapshots.begin(), snapshots.end(), std::back_inserter(some), count, random);
        for (const Snapshot &snapshot : some)
            // On each processor: a snapshot is made on one, and the other must come to the same chips by itself.
            for (Sweeper *sweeper : {host_ ? &*host_ : nullptr, arm_ ? &*arm_ : nullptr}) {
                if (!sweeper) continue;
                const Chips cut = sweeper->cut({snapshot.cut});
                if (sweeper->digest(cut) != sweeper->digest(snapshot.chips))
                    found(NameOf(id({snapshot.cut})), "another state than the cut itself leaves", "");
                ++tally_.checked;
            }
    }

    void tally(const Chips &chips, const std::vector<Cut> &cuts, const Struck &struck) {
        const std::string name = NameOf(id(cuts));
        notes_.at(name, boots());
        ++tally_.cases;
        const auto number = static_cast<unsigned>(cuts.size());
        std::optional<Judgement> host, arm;
        // Each from its own copy of the chips.
        const unsigned way = cuts.empty() ? 1 : cuts.back().way;
        if (host_) host = host_->judge(chips, number, way);
        if (arm_) arm = arm_->judge(chips, number, way);
        if (host && arm) compare(name, *host, *arm);
        count(name, host ? *host : *arm, struck);
        // Counted once where the processors agree.
        if (host && arm && arm->outcome != host->outcome) count(name, *arm, struck);
    }

    void compare(const std::string &name, const Judgement &host, const Judgement &arm) {
        if (host.boots == 0 && arm.boots == 0) return; // nothing to start
        ++tally_.compared;
        if (host.console != arm.console)
            found(name, "console text differs between the processors", "");
        else if (host.chips != arm.chips)
            found(name, "chips differ between the processors", "");
    }

    void count(const std::string &name, const Judgement &judgement, const Struck &struck) {
        ++tally_.outcomes[NameOf(judgement.outcome)];
        if (judgement.rescue_gap && judgement.outcome == Outcome::good) ++tally_.holes[kRescueGap]["seen"];
        if (judgement.neighbour) ++tally_.holes[kNeighbour]["seen"];
        if (const char *hole = HoleOf(variant_, judgement, struck))
            ++tally_.holes[hole][NameOf(judgement.outcome)];
        else if (judgement.outcome != Outcome::good)
            found(name, NameOf(judgement.outcome), judgement.detail);
    }

    void found(const std::string &name, const std::string &outcome, const std::string &detail) {
        ++tally_.found;
        const char *processor = host_ && arm_ ? "both" : host_ ? "host" : "arm";
        if (tally_.findings.size() < kMostFindings) tally_.findings.push_back({name, processor, outcome, detail});
    }

    const SweepPlan &plan_;
    const Scenario &scenario_;
    const Variant &variant_;
    const SweepUnit unit_;
    JobNotes &notes_;
    const World world_;
    const std::uint64_t seed_;
    const Symbols symbols_; // of what the board runs before its update
    std::optional<Sweeper> host_;
    std::optional<Sweeper> arm_;
    Tally tally_;
};

} // namespace

const char *HoleOf(const Variant &variant, const Judgement &judgement, const Struck &struck) {
    std::vector<const char *> holes = variant.holes;
    if (judgement.hole) holes = {judgement.hole};
    // What comes out well belongs to the variant's own hole; those of unstable cells may be met anywhere.
    if (judgement.outcome == Outcome::good) return holes.empty() ? nullptr : holes.front();
    holes.insert(holes.end(), {kTwoWhole, kOldReturns, kUnsureRecord, kLatePage});
    const auto takes = [&](const char *one) { return HoleTakes(one, judgement, struck); };
    const auto hole = std::find_if(holes.begin(), holes.end(), takes);
    return hole == holes.end() ? nullptr : *hole;
}

Tally SweepVariant(const SweepPlan &plan, const SweepUnit &unit, const SweepFirmware &firmware, JobNotes &notes) {
    return VariantSweep(plan, unit, firmware, notes).run();
}

} // namespace fixture
