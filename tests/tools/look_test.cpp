// What a boot shows while it runs and afterwards: live, as an animation, as frames.
#include "formats/file.h"
#include "formats/flash_report.h"
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/gif_reader.h"
#include "harness/started_board.h"
#include "harness/texts.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <numeric>

namespace fixture {

namespace {

namespace fs = std::filesystem;
using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::MatchesRegex;

// Whoever looks on, the run is the same to the last instruction.
TEST(Look, CostsNothing) {
    const TemporaryDirectory here;
    const auto file = [&](const char *name) { return (here.path() / name).string(); };
    const auto run = [](std::vector<std::string> options) {
        options.insert(options.begin(), {"boot", "--json"});
        const nlohmann::json said = RunFixture(options).json();
        return nlohmann::json{said["verdict"], said["virtual_ms"], said["instructions"], said["two_wire_ns"]};
    };
    const nlohmann::json plain = run({});
    EXPECT_GT(plain[2].get<std::uint64_t>(), 1'000'000u);
    const std::vector<std::string> rows[] = {{"--trace", file("trace")},
                                             {"--trace", file("last"), "--trace-last", "100"},
                                             {"--vcd", file("vcd")},
                                             {"--report", file("page"), "--panel-gif", file("gif")},
                                             {"--timeline"}};
    for (const std::vector<std::string> &row : rows) EXPECT_EQ(run(row), plain) << row[0];
}

// At whatever pace, where no terminal can show the panel: the console and the verdict are those of the plain run.
TEST(Look, LiveIsTheSameRun) {
    const std::vector<std::vector<std::string>> calls = {{"boot", "--demo"},
                                                         {"boot", "--replay", "parameters/0-to-1:2t"}};
    for (std::vector<std::string> call : calls) {
        const CommandResult plain = RunFixture(call);
        call.insert(call.end(), {"--live", "1000000"});
        const CommandResult live = RunFixture(call);
        EXPECT_EQ(live.exit_status, plain.exit_status);
        EXPECT_EQ(live.output, plain.output);
        EXPECT_EQ(live.error, plain.error);
        EXPECT_NE(plain.output, "");
    }
}

// A board that launches nothing says why in its last line, and its page says what was to be expected.
TEST(Look, WhatFailsSaysWhy) {
    const TemporaryDirectory here;
    const auto file = [&](const char *name) { return (here.path() / name).string(); };
    NandContents nand;
    StoreProvision(RawFlashOf(nand), {0, Wrap(KnownFirmware(FirmwareDirectory()).all().front().flat), {}, ""});
    SaveChip(nand, file("nand.bin"));
    here.write("volume/data/app/readme", "no bank");
    const CommandResult result = RunFixture({"boot", "--straps", "12-13", "--nand", file("nand.bin"), "--snapshot",
                                             "--volume", file("volume"), "--report", file("page.html")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.error, EndsWith("launches nothing: no bank is good, and there is no good rescue image; "
                                       "i:/vol0/data/app/: no ProjectDescriptorFile.xml: the bank is passed over\n"));
    EXPECT_THAT(AsText(ReadFile(file("page.html"), 2'000'000)),
                AllOf(HasSubstr("Foretold from chips and files before the run: launches nothing"),
                      HasSubstr("the first stage starts it</li>")));
}

TEST(Look, AnimationsSlowDownAndTakeCaptions) {
    const TemporaryDirectory here;
    const auto file = [&](const char *name) { return (here.path() / name).string(); };
    RunFixture({"boot", "--panel-gif", file("plain.gif"), "--panel-frames", file("frames")});
    RunFixture({"boot", "--panel-gif", file("slow.gif"), "--panel-gif-slower", "50", "--panel-gif-captions"});
    const std::vector<GifFrame> plain = ReadGif(file("plain.gif")), slow = ReadGif(file("slow.gif"));
    const auto centiseconds = [](const std::vector<GifFrame> &frames) { // the last one stands as long as it likes
        return std::accumulate(frames.begin(), frames.end() - 1, 0u,
                               [](unsigned sum, const GifFrame &frame) { return sum + frame.centiseconds; });
    };
    ASSERT_GT(plain.size(), 2u);
    EXPECT_EQ(plain[0].picture.height, 240u);
    ASSERT_GE(slow.size(), plain.size());
    EXPECT_EQ(slow[0].picture.height, 255u);
    EXPECT_GT(centiseconds(slow), 10 * centiseconds(plain));
    std::size_t frames = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(file("frames"))) {
        EXPECT_THAT(entry.path().filename().string(), MatchesRegex("[0-9]+\\.[0-9]+ms\\.png"));
        ++frames;
    }
    EXPECT_GE(frames, plain.size());
}

} // namespace

} // namespace fixture
