// One case of a sweep: a world, the moments at which its power is cut, and what becomes of the board after that.
//
// A case has a name that says all there is to know: SCENARIO/VARIANT, then the cuts, each in its own power-up, and the
// seed that decides how operations tear where it is not 1:
//
//   nand-update/running-erased            the uncut run
//   nand-update/running-erased:12t        torn in the middle of operation 12 ("b" before, "a" after)
//   nand-update/running-erased:12t.2      the same, torn in another way
//   nand-update/running-erased:12t+3a~7   the boot after that is cut after its operation 3
//   nand-update/running-erased:12u.2      operation 12 left cells that read so or so, and the second way of reading
//   them
//
//   nand-update/running-erased:i123456    instruction 123456 of the ARM image was left out (sweep/skips.h)
//
// The other letters are "l" for a late loss, "s" for a spoiled page and "o" for a brown-out (CutMoment). Operations
// count from 0 in each power-up. Up to four cold boots follow the cuts; all must then be as in the uncut
// run, and two more boots must leave it so:
//
//   Sweeper sweeper(world, ProcessorKind::host, firmware);
//   const Chips left = sweeper.cut({{12, CutMoment::torn}});
//   bool recovers = sweeper.judge(left, 1).outcome == Outcome::good;
#pragma once

#include "machine/machine.h"
#include "sweep/world.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace fixture {

struct Cut {
    std::uint64_t operation;
    CutMoment moment;
    unsigned way = 1; // how it is torn; how what reads so or so is read after it; how a chip that has stopped answers
    bool operator==(const Cut &) const = default;
};

// What is said of a bootloader that should have been replaced.
inline constexpr const char *kStillOld = "still the old one";

// What is tried at an operation.
struct CutKind {
    CutMoment moment;
    unsigned way = 1;
};
using CutKinds = std::vector<CutKind>;
inline const CutKinds kPlainCuts = {{CutMoment::before}, {CutMoment::torn}, {CutMoment::after}};
// Of a kind of loss by name: plain, unstable, late, spoiled, brownout. Throws Refusal for another one.
CutKinds KindsOf(std::string_view name);

struct CaseId {
    std::string scenario;
    std::string variant;
    std::vector<Cut> cuts;
    std::uint64_t seed = 1;
    std::optional<std::uint64_t> skipped = {}; // the instruction of the first power-up that was left out; no cuts then
};
std::string NameOf(const CaseId &id);
std::optional<CaseId> ParseCase(std::string_view name);
// The cut, for the power supply of this world's board, whose cells tear in a way of their own.
PowerCut PlanOf(const Cut &cut, const World &world);

enum class Outcome : std::uint8_t {
    good,
    no_bootloader,    // a brick: the first stage finds no good slot
    no_launch,        // a brick: four cold boots, and nothing was launched
    wrong_bootloader, // the first stage takes an image that is neither the old nor the new one, or still the old one
    wrong_launch,     // another image than in the uncut run
    wrong_rescue,     // rescue image and version record are neither the new ones nor the old ones
    wrong_parameters, // neither all old nor all new
    outside,          // flash that the update has no business with was changed
    violation,        // something the datasheets forbid
    hang,
    fault,
    reset_loop,
    restless,     // all was as it should be, and the boots after that went on changing chips
    not_foretold, // the prediction from the chips and files said something else
};
const char *NameOf(Outcome outcome);

struct Judgement {
    Outcome outcome = Outcome::good;
    std::string detail;
    unsigned boots = 0;         // cold boots that this took
    bool rescue_gap = false;    // right after the cut no good rescue image was stored, though one had been
    bool neighbour = false;     // a DataFlash page that an update shares with something else lost some of that
    const char *hole = nullptr; // that a hostile board fell through
    std::string console;        // of all boots
    std::uint64_t chips = 0;    // digest of what they hold in the end
};

// What a hostile board may come to, since no software of it can help that.
inline constexpr const char *kFailingNand = "a hostile board's NAND blocks fail while it boots from them";
inline constexpr const char *kOtherVersion =
    "a bank whose version text is not its bootloader's: the board updates itself at every start";

struct Snapshot {
    Cut cut;
    Chips chips;
    ChipOperation operation; // that was cut
};

// One world on one processor. Recovery from chips that were met before is not run again.
class Sweeper {
public:
    Sweeper(const World &world, ProcessorKind processor, const SweepFirmware &firmware);

    // The uncut run: judged like any other, with the number of operations of its first power-up.
    const Judgement &uncut();
    std::uint64_t operations();

    // What the chips hold where power-up number `power_up`, which begins with `chips`, is cut at the moments that
    // `wanted` asks for. One run gives them all. `path` is what was cut before.
    // `kinds` are what `wanted` is asked of at every operation. Of a brown-out this gives what should be left: as
    // before the operation.
    std::vector<Snapshot> take_snapshots(const Chips &chips, unsigned power_up,
                                         const std::function<bool(const Cut &)> &wanted,
                                         const CutKinds &kinds = kPlainCuts, unsigned way = 1);
    // One power-up whose changes `interceptor` makes, on these chips. It has to leave them as the power-up by itself
    // would, whatever it does to them on the way.
    void watch(Chips &chips, unsigned power_up, const decltype(PowerSupply::interceptor) &interceptor);
    // The number of operations of one power-up.
    std::uint64_t count(Chips chips, unsigned power_up, unsigned way = 1);
    // The same with the power really cut, once for every cut of a path. Throws std::runtime_error where a cut does not
    // come.
    Chips cut(const std::vector<Cut> &path);

    // Up to four cold boots from here on; the first of them is power-up number `power_up`. `way` is that of the last
    // cut: it decides how cells between two levels read.
    Judgement judge(const Chips &chips, unsigned power_up, unsigned way = 1);
    // The same, of the chips that the last watch() began with: what it watched is not booted again.
    Judgement judge_watched(const Chips &chips, unsigned power_up);

    // The same where a program went astray. What it did to other flash is told of a board that has all it needs; a
    // board that has not is a brick before all else.
    Judgement judge_astray(const Chips &chips);
    // What another process came to for chips with this digest.
    void learn(std::uint64_t digest, const Judgement &judgement) { met_[digest] = judgement; }

    // The whole of a case by its cuts, with the power really cut.
    Judgement run(const std::vector<Cut> &cuts);

    // The first power-up on the world's chips up to the first reset, where the power goes: prepared by `prepare`, and
    // looked at by `done` before the board goes.
    RunReport first_start(Chips &chips, const std::function<void(Machine &)> &prepare,
                          const std::function<void(Machine &)> &done);
    // One power-up without a cut; and what one does on a board made ready with options().
    void boot(Chips &chips, unsigned number);
    RunReport run(Machine &machine, unsigned number) const;
    // The number that a power-up to be cut counts as: 0, which commits, as long as a commit has not come to its end.
    unsigned to_cut(const Chips &chips, unsigned number) const;
    // Of power-up number `power_up` on these chips.
    RunOptions options(const Chips &chips, unsigned power_up) const;

    std::uint64_t digest(const Chips &chips) const;

    std::uint64_t boots = 0; // power-ups made so far, of every kind
    bool remember = true;    // false: every case is booted, whatever was met before
    bool foretells = false;  // true: every boot without a cut is foretold first, and compared (sweep/foretold.h)
    std::uint64_t foretold_boots = 0; // how many were

private:
    struct PowerUp;
    struct Watched;
    struct When {
        bool was_cut, last_boot;
    };
    PowerUp power_up(Chips &chips, unsigned number, const std::function<void(Machine &)> &prepare);
    PowerUp power_up(Chips &chips, unsigned number, RunOptions options, const std::function<void(Machine &)> &prepare,
                     const std::function<void(Machine &)> &done);
    RunReport commit(Machine &machine) const;
    bool check_choice(const Chips &chips, Judgement &judgement) const;
    bool check_outside(const Chips &chips, Judgement &judgement, bool was_cut) const;
    void check_rescue_gap(const Chips &chips, Judgement &judgement) const;
    bool may_touch(const ChipOperation &operation) const;
    bool check_marks(const Chips &chips, Judgement &judgement) const;
    bool stays(Chips chips, unsigned number, Judgement &judgement, When when);
    bool settled(const Chips &chips, const PowerUp &last, Judgement &judgement, When when) const;
    PowerUp boot_once(Chips &chips, unsigned number, Judgement &judgement, const Watched *watched = nullptr);
    Judgement boot_hostile(Chips chips, unsigned number);
    Judgement boot_on(Chips chips, unsigned number, const Watched *watched = nullptr, bool astray = false);

    const World &world_;
    ProcessorKind processor_;
    const SweepFirmware &firmware_;
    std::optional<Judgement> uncut_;
    std::optional<std::uint64_t> operations_;
    std::unordered_map<std::uint64_t, Judgement> met_;
    std::unordered_set<std::uint64_t> steady_; // chips that more boots leave as they are
    std::shared_ptr<const Watched> watched_;   // the last one
    unsigned way_ = 1;                         // of the last cut
};

} // namespace fixture
