// What somebody in front of the panel sees in whole boots: every frame, compared with pictures of each bar value.
#include "harness/builds.h"
#include "harness/source_tree.h"
#include "tests/processors.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace fixture {

namespace {

// tests/golden/bar-NNN.png: the whole panel with the bar at that value.
int BarOf(const Picture &picture) {
    static const auto golden = [] {
        std::vector<std::pair<int, Picture>> pictures;
        for (const int percent : {0, 5, 12, 25, 40, 50, 70, 80, 100})
            pictures.emplace_back(percent, ReadPng(SourceFile(fmt::format("tests/golden/bar-{:03}.png", percent))));
        return pictures;
    }();
    for (const auto &[percent, expected] : golden)
        if (picture == expected) return percent;
    return -1;
}

constexpr int kDark = -2;

class PanelInBoots : public testing::TestWithParam<Processor> {};
BOTH_PROCESSORS(PanelInBoots);

TEST_P(PanelInBoots, ShowsEveryStep) {
    Situation plain, bootloader, rescue, damaged;
    for (Situation *setup : {&plain, &rescue, &damaged}) setup->new_bootloader = false;
    rescue.new_rescue = damaged.new_rescue = true;
    damaged.damaged = true;
    const struct {
        const char *name;
        Situation setup;
        bool no_banks;
        std::vector<int> bars;
    } cases[] = {
        {"application", plain, false, {0, 5, 12, 25, 40}},
        {"new rescue image", rescue, false, {0, 5, 12, 25, 50, 70, 80, 100, 40}},
        {"new bootloader", bootloader, false, {0, 5, 12, 25, 50, 70, 80, 100, kDark, 0, 5, 12, 25, 40}},
        {"damaged update", damaged, false, {0, 5, 12, 25, 50, 70, 40}},
        {"rescue", plain, true, {0, 5, 12, 25, 50, 100}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        World world = MakeWorld(c.setup, FixedBuilds());
        const TemporaryDirectory nothing;
        if (c.no_banks) world.volume = std::make_shared<const std::filesystem::path>(nothing.path());
        std::vector<int> expected = c.bars;
        // Natively the sums between 70 and 80 take no time: nobody sees the first.
        if (GetParam() == Processor::host && !c.setup.damaged) std::erase(expected, 70);
        std::vector<int> seen;
        const auto look = [&](Machine &machine) {
            EXPECT_THAT(machine.board().panel.registers(), testing::ElementsAre(testing::Pair(0x1E, 0xDF)));
            machine.frames()->look();
            for (const FrameRecorder::Frame &frame : machine.frames()->frames())
                seen.push_back(frame.lit ? BarOf(frame.picture) : kDark);
        };
        RunBoot({.processor = GetParam(),
                 .volume = *world.volume,
                 .board = world.board,
                 .chips = &world.chips,
                 .from_slots = true,
                 .prepare = [](Machine &machine) { machine.record_frames(PanelWiring::bgr); },
                 .inspect = look});
        EXPECT_THAT(seen, testing::ElementsAreArray(expected));
    }
}

} // namespace

} // namespace fixture
