// The short selection of the sweep: every scenario is represented, every kind of cut is met, and the sweep is tried
// itself. `fixture sweep --all` does all of it.
#include "harness/builds.h"
#include "sweep/chips_compare.h"
#include "sweep/hostile.h"
#include "sweep/run.h"
#include "sweep/scenarios.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace fixture {

namespace {

// A sweep in which nothing is found; every boot goes as it is foretold.
Tally CleanSweep(SweepPlan plan) {
    plan.foretells = true;
    Tally all = RunSweep(plan, FixedBuilds(), {}).all;
    EXPECT_EQ(all.found, 0u);
    EXPECT_GT(all.foretold, 0u);
    for (const Finding &finding : all.findings)
        ADD_FAILURE() << fmt::format("{} {}: {} {}", finding.id, finding.processor, finding.outcome, finding.detail);
    return all;
}

} // namespace

TEST(SweepCase, NamesSayAllThereIs) {
    const CaseId cases[] = {
        {"nand-update", "running-erased", {}, 1},
        {"nand-update", "running-erased", {{12, CutMoment::torn}}, 1},
        {"nand-update", "running-erased", {{12, CutMoment::torn, 3}}, 1},
        {"parameters", "0-to-1", {{0, CutMoment::before}, {3, CutMoment::after}}, 77},
        {"parameters", "0-to-1", {{0, CutMoment::unstable}, {3, CutMoment::late, 2}, {4, CutMoment::spoiled}}, 1},
        {"nand-update", "running-erased", {{12, CutMoment::brownout, 2}}, 1},
        {"nand-update", "running-erased", {}, 7, 123456},
    };
    for (const CaseId &id : cases) {
        const std::optional<CaseId> parsed = ParseCase(NameOf(id));
        ASSERT_TRUE(parsed) << NameOf(id);
        EXPECT_EQ(NameOf(*parsed), NameOf(id));
        EXPECT_EQ(parsed->cuts, id.cuts);
        EXPECT_EQ(parsed->skipped, id.skipped);
    }
    for (const char *bad : {"", "nand-update", "a/b:", "a/b:12", "a/b:t", "a/b:12x", "a/b:1t+", "a/b:1t~", "a/b:1t2",
                            "a/b:1t.", "a/b:1t.1", "a/b:1b.2", "a/b:12u.1", "a/b:i", "a/b:i5t"})
        EXPECT_FALSE(ParseCase(bad)) << bad;
}

TEST(Sweep, ChipsOfACutAreThoseThatTheCutLeaves) {
    const World world = WorldOf({"nand-update", "broken-running", {}, 1}, FixedBuilds());
    Sweeper sweeper(world, ProcessorKind::host, FixedBuilds());
    ASSERT_EQ(sweeper.uncut().outcome, Outcome::good) << sweeper.uncut().detail;
    const std::vector<Snapshot> snapshots = sweeper.take_snapshots(world.chips, 0, [](const Cut &) { return true; });
    ASSERT_EQ(snapshots.size(), 3 * sweeper.operations());
    std::set<std::uint64_t> states;
    for (std::size_t n = 0; n < snapshots.size(); ++n) {
        states.insert(sweeper.digest(snapshots[n].chips));
        if (n % 31 > 2) continue;
        EXPECT_EQ(sweeper.digest(sweeper.cut({snapshots[n].cut})), sweeper.digest(snapshots[n].chips)) << n;
    }
    EXPECT_GT(states.size(), sweeper.operations()); // torn operations leave states of their own
    EXPECT_THROW(sweeper.cut({{sweeper.operations(), CutMoment::before}}), std::runtime_error);
}

TEST(Sweep, JudgesWhatItSees) {
    World world = WorldOf({"nand-update", "running-erased", {}, 1}, FixedBuilds());
    const auto judged = [&](const World &changed) {
        return Sweeper(changed, ProcessorKind::host, FixedBuilds()).judge(changed.chips, 1).outcome;
    };
    EXPECT_EQ(judged(world), Outcome::good);
    const struct {
        const char *what;
        Outcome outcome;
        void (*change)(World &);
    } rows[] = {
        {"no slot is good", Outcome::no_bootloader, [](World &w) { w.chips.nand.erase(2); }},
        {"a bootloader too new", Outcome::wrong_bootloader, [](World &w) { w.before.bootloader = w.after.bootloader; }},
        {"the old one in the end", Outcome::wrong_bootloader,
         [](World &w) { w.after.bootloader = w.before.bootloader; }},
        {"another application", Outcome::wrong_launch, [](World &w) { w.after.application[5] ^= 1; }},
        {"nothing to launch", Outcome::no_launch,
         [](World &w) {
             w.volume = std::make_shared<std::filesystem::path>("/nonexistent");
             w.chips.nand.erase(32);
         }},
        {"the rescue image is lost", Outcome::wrong_rescue, [](World &w) { w.chips.nand.erase(32); }},
        {"a parameter is lost", Outcome::wrong_parameters, [](World &w) { w.chips.eeprom.bytes.fill(0xFF); }},
        {"slots that nobody may touch", Outcome::outside, [](World &w) { w.touched.clear(); }},
    };
    for (const auto &row : rows) {
        World changed = world;
        row.change(changed);
        EXPECT_EQ(NameOf(judged(changed)), std::string(NameOf(row.outcome))) << row.what;
    }
}

TEST(Sweep, EveryCutOfAnUpdateOnNandRecovers) {
    const Tally all = CleanSweep(
        {.scenarios = FindScenarios(
             {"nand-update/broken-running", "parameters/0-to-1-longer", "parameters/1-to-0-used"}, FixedBuilds())});
    EXPECT_EQ(all.cuts, 3 * all.operations);
    EXPECT_EQ(all.outcomes.at(NameOf(Outcome::good)), all.cases);
}

TEST(Sweep, ASampleOfEveryScenarioRecovers) {
    SweepPlan plan;
    plan.sample = 4;
    for (Scenario &scenario : AllScenarios(FixedBuilds())) {
        // One variant each, a different one in every scenario; images that fill a slot take too long here.
        const auto is_long = [](const Variant &variant) { return variant.most_cuts != 0; };
        if (!std::all_of(scenario.variants.begin(), scenario.variants.end(), is_long))
            std::erase_if(scenario.variants, is_long);
        scenario.variants = {scenario.variants[plan.scenarios.size() % scenario.variants.size()]};
        plan.scenarios.push_back(scenario);
    }
    CleanSweep(plan);
}

TEST(Sweep, TheBootAfterACutCanBeCutAsWell) {
    const std::vector<Scenario> scenarios = FindScenarios({"nand-both/retired-running"}, FixedBuilds());
    EXPECT_GE(CleanSweep({.scenarios = scenarios, .losses = 2, .sample = 16}).cases, 16u);
}

// Hostile boards say most about the rules that a prediction is made by.
TEST(Sweep, HostileBoardsDoAsForetold) {
    SweepPlan plan{.scenarios = FindScenarios({"hostile"}, FixedBuilds())};
    std::vector<Variant> &variants = plan.scenarios[0].variants;
    variants = HostileBoards(120);
    // The rules are the same for both media. On a DataFlash each byte goes over the wire, so a few of those do.
    unsigned on_dataflash = 0;
    std::erase_if(variants, [&](const Variant &variant) {
        const bool nand = MakeHostileWorld(*variant.setup.hostile, FixedBuilds()).medium == Medium::nand;
        return !nand && ++on_dataflash % 5 != 0;
    });
    for (Variant &variant : variants) variant.most_cuts = 1;
    EXPECT_GE(CleanSweep(plan).foretold, 80u);
}

TEST(Sweep, ProcessorsAgree) {
    const std::vector<std::string> names = {"nand-update/running-updated", "dataflash-rescue/broken",
                                            "parameters/1-to-0", "hostile"};
    const Tally all = CleanSweep({.scenarios = FindScenarios(names, FixedBuilds()), .on_arm = true, .sample = 2});
    EXPECT_EQ(all.compared, all.cases);
}

// What no single read shows: one loss never takes the last bootloader, and what else comes of it is known by number.
TEST(Sweep, LossesThatShowLateHaveTheirHoles) {
    using Holes = std::map<std::string, std::map<std::string, std::uint64_t>>;
    const Holes old_returns = {{kOldReturns, {{"wrong bootloader", 3}}}, {kLatePage, {{"wrong parameters", 3}}}};
    const Holes unsure_record = {{kUnsureRecord, {{"wrong rescue image or record", 1}}},
                                 {kRescueGap, {{"seen", 4}}},
                                 {kNeighbour, {{"seen", 2}}}};
    const struct {
        const char *loss;
        std::vector<std::string> scenarios;
        Holes holes;
        std::size_t most_cuts = 0;
    } rows[] = {
        {"unstable", {"nand-update/erased-running", "parameters/0-to-1"}, {}},
        {"late", {"nand-update/running-erased", "nand-update/broken-running", "parameters/1-to-0"}, old_returns},
        {"spoiled", {"parameters/0-to-1-used"}, {}},
        {"brownout", {"parameters/0-to-1", "parameters/1-to-0"}, {}},
        // The record is the last that is written.
        {"unstable", {"dataflash-rescue/good"}, unsure_record, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.loss);
        SweepPlan plan{.scenarios = FindScenarios(row.scenarios, FixedBuilds()), .kinds = KindsOf(row.loss)};
        for (Scenario &scenario : plan.scenarios)
            for (Variant &variant : scenario.variants) variant.most_cuts = row.most_cuts;
        EXPECT_EQ(CleanSweep(plan).holes, row.holes);
    }
}

// The brick that follows from the choice between two copies that read whole. The condition: the new image's last page
// is between two levels, reads whole once, and the power goes again while the old copy makes room for it.
TEST(Sweep, TwoLossesOfWhichOneShowsLateAreAHole) {
    const World world = WorldOf({"nand-update", "running-erased", {}, 1}, FixedBuilds());
    Sweeper sweeper(world, ProcessorKind::host, FixedBuilds());
    const std::uint64_t last_page = sweeper.operations() - 3; // then the old copy's block is erased, and its header
    std::map<std::string, unsigned> outcomes;
    for (const CutKind &kind : KindsOf("unstable")) {
        const auto is_last = [&](const Cut &cut) { return cut.operation == last_page; };
        const Snapshot first = sweeper.take_snapshots(world.chips, 0, is_last, {kind}).at(0);
        for (const Snapshot &second : sweeper.take_snapshots(
                 first.chips, 1, [](const Cut &) { return true; }, kPlainCuts, kind.way)) {
            const Judgement end = sweeper.judge(second.chips, 2, 1);
            ++outcomes[NameOf(end.outcome)];
            const Struck struck{false, {first.operation, second.operation}, {kind.moment, second.cut.moment}};
            EXPECT_EQ(HoleTakes(kTwoWhole, end, struck), end.outcome == Outcome::no_bootloader);
        }
    }
    EXPECT_EQ(outcomes, (std::map<std::string, unsigned>{{"good", 195}, {"brick: no good bootloader", 84}}));
}

// An instruction that does nothing else than it should be missed, and one whose loop then never ends.
TEST(Sweep, AnInstructionLeftOutIsReplayed) {
    const std::vector<Scenario> scenarios = FindScenarios({"nand-update/running-erased"}, FixedBuilds());
    const SweepPlan plan{.scenarios = scenarios, .on_arm = true, .skips = true, .sample = 4};
    const Tally all = RunSweep(plan, FixedBuilds(), {}).all;
    EXPECT_EQ(all.cases, 4u);
    EXPECT_GE(all.checked, 4u) << "the same once more, in one process";
    EXPECT_EQ(all.found, 0u);
    EXPECT_THROW(RunCase(*ParseCase("nand-update/running-erased:i999999999"), ProcessorKind::host, FixedBuilds()),
                 Refusal);
}

// What falls through a hole elsewhere, otherwise, or without a cut, is no work of the hole.
TEST(Sweep, HolesTakeTheirOwnAlone) {
    const ChipOperation shared{"DataFlash", "program", 0x204000}, elsewhere{"DataFlash", "program", 0x300000};
    const ChipOperation other_chip{"NAND", "program", 0x204000};
    const Struck at_shared{false, {shared}}, after_another{false, {elsewhere, shared}}, at_another{false, {elsewhere}};
    const Struck at_other_chip{false, {other_chip}}, uncut{true};
    const struct {
        const char *hole;
        Outcome outcome;
        const Struck &struck;
        bool taken;
    } rows[] = {
        {kSharedPage, Outcome::no_bootloader, at_shared, true},
        {kMarkTornOften, Outcome::violation, at_other_chip, false}, // that says something else
        {kSharedPage, Outcome::no_bootloader, after_another, true},
        {kSharedPage, Outcome::hang, at_shared, false},
        {kSharedPage, Outcome::no_bootloader, at_another, false},
        {kSharedPage, Outcome::no_bootloader, at_other_chip, false},
        {kSharedPage, Outcome::no_bootloader, uncut, false},
        {kTwoBanksFight, Outcome::reset_loop, uncut, true},
        {kTwoBanksFight, Outcome::no_bootloader, uncut, false},
        {"no hole", Outcome::no_bootloader, uncut, false},
    };
    for (const auto &row : rows) {
        Judgement judgement;
        judgement.outcome = row.outcome;
        EXPECT_EQ(HoleTakes(row.hole, judgement, row.struck), row.taken) << row.hole << ' ' << NameOf(row.outcome);
    }
}

TEST(Sweep, WhatWentAstrayIsNamedByItsRoutine) {
    EXPECT_TRUE(IsKnownAstray(AstrayHole(Outcome::no_bootloader, "CheckBlock")));
    EXPECT_TRUE(IsKnownAstray(AstrayHole(Outcome::no_bootloader, "NandBus_Give8")));
    EXPECT_TRUE(IsKnownAstray(AstrayHole(Outcome::outside, "anything")));
    EXPECT_FALSE(IsKnownAstray(AstrayHole(Outcome::no_bootloader, "Boot_Store")));
    EXPECT_FALSE(IsKnownAstray(AstrayHole(Outcome::no_launch, "CheckBlock")));
}

// How much falls through: more or less would be a change of the hole, or a mistake beside it.
TEST(Sweep, HolesTakeAsMuchAsIsKnown) {
    using Holes = std::map<std::string, std::map<std::string, std::uint64_t>>;
    const std::vector<std::string> names = {"holes/worn-record", "holes/no-slot-0", "parameters/1-to-0-equal-sum"};
    const Holes known = {{kEqualSum, {{"good", 8}, {"wrong parameters", 2}}},
                         {kPushedOn, {{"brick: no good bootloader", 92}, {"good", 2}}},
                         {kWornRecord, {{"brick: no good bootloader", 244}, {"wrong rescue image or record", 6}}}};
    EXPECT_EQ(CleanSweep({.scenarios = FindScenarios(names, FixedBuilds())}).holes, known);
    const SweepPlan no_mark{.scenarios = FindScenarios({"nand-worn/rescue-no-mark"}, FixedBuilds()), .sample = 6};
    EXPECT_EQ(RunSweep(no_mark, FixedBuilds(), {}).all.holes,
              (Holes{{kNoMark, {{"wrong rescue image or record", 7}}}}));
    const SweepPlan rot{.scenarios = FindScenarios({"nand-rot", "parameters-rot"}, FixedBuilds())};
    const Holes rotten = {{kRotten,
                           {{"brick: no good bootloader", 30},
                            {"good", 24},
                            {"wrong parameters", 2},
                            {"wrong rescue image or record", 74}}},
                          {kRescueGap, {{"seen", 13}}}};
    EXPECT_EQ(RunSweep(rot, FixedBuilds(), {}).all.holes, rotten);
}

// The named holes are seen where a boot goes through them.
TEST(Sweep, HolesAreSeen) {
    const std::pair<Outcome, std::vector<const char *>> rows[] = {
        {Outcome::no_bootloader,
         {"holes/no-slot-0", "holes/worn-record", "holes/head-on-tail:0t", "dataflash-rot/bootloader-52"}},
        {Outcome::reset_loop,
         {"holes/banks-fight-nand", "holes/banks-fight-nand:3t", "holes/banks-fight-dataflash:40a"}},
        {Outcome::wrong_parameters, {"parameters/1-to-0-equal-sum:0a"}}};
    for (const auto &[outcome, names] : rows)
        for (const char *const name : names) {
            const Judgement end = RunCase(*ParseCase(name), ProcessorKind::host, FixedBuilds());
            EXPECT_STREQ(NameOf(end.outcome), NameOf(outcome)) << name;
        }
}

} // namespace fixture
