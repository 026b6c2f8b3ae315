// Where a boot's virtual time goes: all of it has a cause, and what the program wastes is not called dictated.
#include "harness/builds.h"
#include "harness/started_board.h"
#include "machine/timeline.h"

#include <gtest/gtest.h>

namespace fixture {

namespace {

struct TimedBoot {
    RunReport report;
    std::vector<TimeSplit> starts;
    TimeSpent total;
    double rest = 0;
};

TimedBoot Boot(double file_rate) {
    World world = MakeWorld({.rescue = RescueState::none, .new_rescue = true}, FixedBuilds());
    RunOptions options;
    options.known = &FixedBuilds().known;
    options.slots = true;
    options.volume = *world.volume;
    options.file_rate = file_rate;
    options.board = world.board;
    options.run_launched = false;
    Machine machine(world.chips, options);
    TimedBoot boot;
    Timeline timeline(machine);
    boot.report = machine.run();
    timeline.finish();
    boot.starts = timeline.starts();
    boot.total = timeline.total();
    boot.rest = timeline.rest();
    return boot;
}

const TimeSpent &Of(const TimedBoot &boot, std::size_t start, Cause cause) {
    return boot.starts.at(start)[static_cast<std::size_t>(cause)];
}

TEST(Timeline, GivesEveryPicosecondOfAnUpdateACause) {
    const TimedBoot boot = Boot(kFileRate);
    EXPECT_EQ(boot.report.verdict, Verdict::launched) << boot.report.place;
    EXPECT_EQ(boot.total.time, boot.report.time);
    EXPECT_LT(boot.rest, 0.01);
    EXPECT_LT(boot.total.ratio(), 1.06);
    ASSERT_EQ(boot.starts.size(), 2u);
    for (const Cause cause : {Cause::pauses, Cause::console, Cause::reads, Cause::sums, Cause::files, Cause::wire,
                              Cause::panel, Cause::flush, Cause::rest})
        EXPECT_GT(Of(boot, 1, cause).time, 0u) << NameOf(cause);
    EXPECT_GT(Of(boot, 0, Cause::writes).time, 10 * Of(boot, 0, Cause::sums).time);
    EXPECT_EQ(Of(boot, 1, Cause::writes).time, 0u) << "what comes after the update writes nothing";
    // The panel's reset and start after a power-up: 0.4 s and more, watched in steps.
    EXPECT_GE(Of(boot, 0, Cause::pauses).dictated, 400 * kMillisecond);
    EXPECT_LE(Of(boot, 0, Cause::pauses).ratio(), 1.01);
    // Each update is read to be checked and once more to be stored. The second time is the program's.
    const TimeSpent &updates = Of(boot, 0, Cause::files), &launch = Of(boot, 1, Cause::files);
    EXPECT_GT(updates.time - updates.dictated, 15 * kMillisecond);
    EXPECT_LT(launch.time - launch.dictated, 4 * kMillisecond);
    // At another rate only the files take another time.
    const TimedBoot fast = Boot(2 * kFileRate);
    const auto difference = static_cast<double>(boot.report.time - fast.report.time);
    const auto files = static_cast<double>(Of(fast, 0, Cause::files).time + Of(fast, 1, Cause::files).time);
    EXPECT_NEAR(difference / files, 1, 0.02);
}

// Pages that a call takes, and those of them that the start has not read before.
TEST(VolumeTime, CountsThePagesThatACallTouches) {
    TemporaryDirectory directory;
    directory.write("file", std::string(5000, 'x')); // three pages
    Volume volume(directory.path());
    std::vector<std::pair<std::uint64_t, std::uint64_t>> moved;
    volume.moved = [&](std::uint64_t pages, std::uint64_t fresh) { moved.emplace_back(pages, fresh); };
    std::vector<std::uint8_t> bytes(8192);
    const auto read = [&](int handle, std::size_t count) { volume.read(handle, std::span(bytes).first(count)); };
    const int first = volume.open("i:/vol0/file", false);
    read(first, 100);
    read(first, 1948); // the rest of the page at hand
    read(first, 1);
    read(first, 8192);
    read(first, 8192); // nothing is left
    read(volume.open("i:/vol0/file", false), 8192);
    volume.close_all();
    volume.open("i:/vol0/file", false);
    EXPECT_EQ(moved, (std::vector<std::pair<std::uint64_t, std::uint64_t>>{
                         {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 0}, {3, 0}, {1, 1}}));
}

} // namespace

} // namespace fixture
