// The scenarios that are swept: what a board is in the middle of when its power goes.
#pragma once

#include "sweep/case.h"
#include "sweep/world.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// Where the layout of the flash itself leaves a hole, what falls through is counted by the hole's name.
inline constexpr const char *kPushedOn = "bad blocks inside a slot push an image into what follows";
inline constexpr const char *kWornRecord = "block 1 wears out: the version record goes to bootloader slot 0";
inline constexpr const char *kSharedPage = "slots that share a DataFlash page, which is rewritten as a whole";
inline constexpr const char *kFitsOneSlot = "an image that fits DataFlash slot 1 alone cannot be moved to slot 0";
inline constexpr const char *kNoMark = "a rescue block so worn that it cannot even be marked bad";
inline constexpr const char *kMarkTornOften = "a bad-block mark torn so often that its page bears no further program";
inline constexpr const char *kEqualSum = "a torn commit whose old and new parameters happen to share a checksum";
// What a loss does to others for a time is seen and counted, and is no bad outcome.
inline constexpr const char *kRescueGap = "a rescue image cut half-way: none is good until a later boot repairs it";
inline constexpr const char *kNeighbour = "the neighbours in a DataFlash page that is rewritten";

inline constexpr const char *kRotten = "a flipped bit in the only good copy: nothing corrects it";
inline constexpr const char *kAstrayHarm = "an instruction left out: a good bootloader is there, and something is lost";
// What a loss leaves that no single read shows.
inline constexpr const char *kTwoWhole =
    "two losses: a new image that reads whole and is not, and then the old one is erased to make room";
inline constexpr const char *kOldReturns =
    "a slot with cells between two levels: the old bootloader comes back for a start, and updates again";
inline constexpr const char *kUnsureRecord =
    "a version record with cells between two levels: where it reads right it stays, and may read wrong later";
inline constexpr const char *kLatePage =
    "a parameter page cut late: it reads whole once, the good sector is cleaned, and then it decays";

// The rule that each start follows the first bank that differs from it closes this circle: no start gets as far as the
// good application. `fixture bank check` names it before a volume is shipped.
inline constexpr const char *kTwoBanksFight =
    "two banks that replace each other's bootloader: the board never launches, and each reset wears both slots";

// What a case was cut in.
struct Struck {
    bool uncut = true;
    std::vector<ChipOperation> operations = {}; // one for each cut
    std::vector<CutMoment> moments = {};        // as many
};
// Whether an outcome is what a hole is known for, at the place that it is known for. Any other one is a finding in its
// variants too.
bool HoleTakes(std::string_view hole, const Judgement &judgement, const Struck &struck);

// What an instruction that was left out in a routine came to, by a name; and whether that is known. What leaves a good
// bootloader is.
std::string AstrayHole(Outcome outcome, std::string_view routine);
bool IsKnownAstray(std::string_view hole);

struct Variant {
    std::string label;
    Situation setup;
    std::vector<const char *> holes = {}; // that its cases may fall through
    std::size_t most_cuts = 0; // a seeded sample of about so many, where all of them would take too long; 0: all
};

// The hole that takes what came of a case; null: none does.
const char *HoleOf(const Variant &variant, const Judgement &judgement, const Struck &struck);

struct Scenario {
    std::string name;
    const char *summary;
    std::vector<Variant> variants;
};

std::vector<Scenario> AllScenarios(const SweepFirmware &firmware);
// The variants of the scenario "hostile", by seeds from 1: as many as are wanted. All scenarios have 500 of them.
std::vector<Variant> HostileBoards(unsigned count);
// The scenarios whose names, or "scenario/variant", are given. Throws Refusal for an unknown name.
std::vector<Scenario> FindScenarios(const std::vector<std::string> &names, const SweepFirmware &firmware);
// What the cases of a variant start from. What the datasheets leave open is drawn from the variant's name and the seed:
// noise in memory, reserved status bits, and whether the chips take their typical or their maximum times.
World MakeWorld(const std::string &scenario, const Variant &variant, std::uint64_t seed, const SweepFirmware &firmware);
// What a case starts from. Throws std::runtime_error where there is none of that name.
World WorldOf(const CaseId &id, const SweepFirmware &firmware);

// The whole of one case, with the power really cut at every cut. Throws as WorldOf does.
Judgement RunCase(const CaseId &id, ProcessorKind processor, const SweepFirmware &firmware);

} // namespace fixture
