// Closures and campaigns: that a closure ends, tells the shortest history, and that parts give what one run gives.
#include "formats/file.h"
#include "harness/builds.h"
#include "harness/started_board.h"
#include "sweep/campaign.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fixture {
namespace {

class NoNotes : public JobNotes {
    void at(const std::string &, std::uint64_t) override {}
};

ClosureTally Close(const char *name, const ClosureLimits &limits, void (*change)(Variant &) = nullptr) {
    Scenario scenario = FindScenarios({name}, FixedBuilds()).front();
    if (change) change(scenario.variants.front());
    NoNotes notes;
    return CloseVariant(limits, scenario, scenario.variants.front(), ProcessorKind::host, FixedBuilds(), notes);
}

TEST(Closure, OfACommitEndsAndAllIsGood) {
    const ClosureTally tally = Close("parameters/0-to-1", {.ways = 1});
    EXPECT_TRUE(tally.closed());
    EXPECT_EQ(tally.found, 0u) << tally.findings.front().id << tally.findings.front().detail;
    EXPECT_GT(tally.depths.size(), 2u); // a commit that was cut is cut again
    EXPECT_EQ(tally.states, tally.outcomes.at(NameOf(Outcome::good)));
    EXPECT_GT(tally.cuts, tally.states);
}

// The hole is no finding of its own: taken from the variant, it is one.
TEST(Closure, TellsTheShortestHistoryThatReplays) {
    const ClosureTally tally =
        Close("parameters/1-to-0-equal-sum", {.most_states = 60}, [](Variant &variant) { variant.holes.clear(); });
    ASSERT_GT(tally.found, 0u);
    const Finding &first = tally.findings.front();
    const CaseId id = ParseCase(first.id).value();
    EXPECT_EQ(id.cuts.size(), 1u) << first.id;
    EXPECT_EQ(NameOf(RunCase(id, ProcessorKind::host, FixedBuilds()).outcome), first.outcome);
}

// That classes leave out nothing that matters: each member of one goes the same way, and no class is missing.
TEST(Closure, ByClassesMeetsWhatEveryByteMeets) {
    const ClosurePlan plan{.scenarios = FindScenarios({"nand-edge/slot-1-2049"}, FixedBuilds()), .also_exact = true};
    const std::vector<ClosureTally> tallies = RunClosure(plan, 1, FixedBuilds(), {});
    ASSERT_EQ(tallies.size(), 2u);
    for (const ClosureTally &tally : tallies) {
        EXPECT_TRUE(tally.closed());
        EXPECT_EQ(tally.found, 0u) << tally.findings.front().outcome;
    }
    EXPECT_LT(tallies[0].states, tallies[1].states);
    EXPECT_GT(tallies[1].twins, 0u);
}

// A second way that tears as the first does would be none.
TEST(Closure, WaysOfTearingDiffer) {
    const auto states = [](unsigned ways) {
        return Close("nand-update/running-erased", {.ways = ways, .most_states = 1, .near = 1}).states;
    };
    EXPECT_LT(states(1), states(2));
    EXPECT_LT(states(2), states(3));
}

TEST(Closure, ThatIsCutShortSaysSo) {
    const ClosureTally tally = Close("parameters/0-to-1", {.most_states = 2});
    EXPECT_FALSE(tally.closed());
    EXPECT_EQ(tally.left, tally.states - 2);
}

// --- parts

class Parts : public testing::Test {
protected:
    static constexpr std::size_t kParts = 3;
    TemporaryDirectory here;
    CampaignCall call{.scenarios = {"parameters", "nand-refused/sums"}};

    void SetUp() override {
        const Campaign campaign(call, FixedBuilds());
        for (std::size_t n = 1; n <= kParts; ++n)
            WritePart(file(n), {call, "this build", {n, kParts}, campaign.run({n, kParts}, 1, {})});
    }
    std::filesystem::path file(std::size_t n) const { return here.path() / (std::to_string(n) + ".part"); }
    // A part as it might be, of other calls, builds and numbers.
    std::filesystem::path other(std::uint64_t seed, const char *build, Shard part) const {
        CampaignCall made = call;
        made.seed = seed;
        WritePart(here.path() / "other.part", {made, build, part, {}});
        return here.path() / "other.part";
    }
    static void expect_refusal(const std::vector<std::filesystem::path> &files, const std::string &part) {
        EXPECT_THAT([&] { MergeParts(files, "this build"); },
                    testing::ThrowsMessage<Refusal>(testing::HasSubstr(part)));
    }
};

std::string Same(std::string json) {
    for (std::size_t at; (at = json.find("\"processor_seconds\"")) != std::string::npos;)
        json.erase(at, json.find('\n', at) - at);
    return json;
}

TEST_F(Parts, GiveWhatOneRunGives) {
    const Campaign campaign(call, FixedBuilds());
    const auto text = [&](const UnitTexts &units) {
        return Same(SweepJson(std::get<SweepPlan>(campaign.stages().front().plan),
                              std::get<SweepResult>(campaign.results(units).front())));
    };
    const Part merged = MergeParts({file(3), file(1), file(2)}, "this build");
    EXPECT_EQ(text(merged.units), text(campaign.run({}, 2, {})));
}

TEST_F(Parts, ThatDoNotFitAreRefusedByName) {
    const std::string name = (here.path() / "other.part").string();
    expect_refusal({file(1), file(3)}, "campaign: part 2 of 3 is missing; expected every part");
    expect_refusal({file(1), file(2), file(1), file(3)}, file(1).string() + " is it, too");
    expect_refusal({file(1), other(2, "this build", {2, kParts}), file(3)}, name + ": a part of another campaign");
    expect_refusal({file(1), other(call.seed, "that build", {2, kParts}), file(3)},
                   name + ": a part that build that build made");
    expect_refusal({file(1), other(call.seed, "this build", {2, 4})}, "part 2 of 4");
    WriteFile(name, "{}");
    expect_refusal({name}, name);
}

} // namespace
} // namespace fixture
