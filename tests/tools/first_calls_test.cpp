// What a newcomer types first: calls without options, with a word mistyped, with the volume one level off; and what the
// command says of itself to shells.
#include "formats/file.h"
#include "harness/command.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"
#include "machine/installation.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

namespace fixture {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr, testing::Not;
using Words = std::vector<std::string>;

std::string Text(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }

CommandResult RunFixture(const Words &words) { return RunCommand(AllCommands(), words); }

TEST(FirstCalls, ABootWithoutOptionsRunsADemoBoardAndLeavesNothing) {
    const auto demo_directories = [] {
        std::size_t count = 0;
        for (const fs::directory_entry &entry : fs::directory_iterator(fs::temp_directory_path()))
            count += entry.path().filename().string().starts_with("fixture-demo-");
        return count;
    };
    const std::size_t before = demo_directories();
    const CommandResult result = RunFixture({"boot"});
    EXPECT_EQ(result.exit_status, kGood) << result.error;
    EXPECT_THAT(result.output, HasSubstr("Current bootlaoder is: 1.9.1"));
    EXPECT_THAT(result.output, HasSubstr("Hello from the demo application."));
    EXPECT_THAT(result.error, HasSubstr("demo board: bootloader 1.9.0"));
    EXPECT_EQ(demo_directories(), before);
    EXPECT_EQ(RunFixture({"boot", "--straps", "none"}).exit_status, kBad) << "a board is named, and it has nothing";
}

TEST(FirstCalls, GuessAtMistypedWords) {
    const struct {
        Words words;
        const char *guess; // empty: none
    } rows[] = {
        {{"bot"}, "\"boot\""},
        {{"bank", "chek", "x"}, "\"check\""},
        {{"flash", "inof"}, "\"info\""},
        {{"boot", "--strap", "12-13"}, "\"--straps\""},
        {{"bank", "check", "x", "--nnad=y"}, "\"--nand\""}, // an option of a group
        {{"frobnicate"}, ""},
        {{"boot", "--frobnicate"}, ""},
        {{}, ""},
    };
    for (const auto &row : rows) {
        const CommandResult result = RunFixture(row.words);
        EXPECT_EQ(result.exit_status, kWrongCall);
        const std::string guess = *row.guess ? fmt::format("did you mean {}?", row.guess) : "";
        const std::size_t at = result.error.find("did you mean");
        EXPECT_EQ(at == std::string::npos ? "" : result.error.substr(at, guess.size()), guess)
            << fmt::format("{}", fmt::join(row.words, " "));
    }
}

TEST(FirstCalls, SayWhereTheVolumeIs) {
    const TemporaryDirectory directory;
    fs::create_directories(directory.path() / "volume/data/app");
    const std::string volume = (directory.path() / "volume").string();
    for (const char *below : {"/data", "/data/app"}) {
        const CommandResult result = RunFixture({"boot", "--host", "--volume", volume + below});
        EXPECT_EQ(result.exit_status, kBad);
        EXPECT_THAT(result.error, HasSubstr("holds no data/, but " + volume + " does")) << below;
    }
    EXPECT_THAT(RunFixture({"boot", "--host", "--volume", volume}).error, Not(HasSubstr("holds no data/")));
}

TEST(FirstCalls, SayWhichStrapsOrSlotsAreMissing) {
    const TemporaryDirectory directory;
    const std::string nand = (directory.path() / "nand.bin").string();
    const std::string image = (FirmwareDirectory() / "bootloader.bin").string();
    ASSERT_EQ(RunFixture({"flash", "provision", "--medium", "nand", "--nand", nand, "--bootloader", image}).exit_status,
              kGood);
    const auto error = [](const Words &words) { return RunFixture(words).error; };
    EXPECT_THAT(error({"boot", "--nand", nand, "--snapshot"}), HasSubstr("try --straps 12-13"));
    EXPECT_THAT(error({"boot", "--straps", "12-13", "--create", "--nand", nand + ".new"}),
                HasSubstr("`fixture flash provision`"));
}

// Every shell is told of every command, and of what only some values serve for.
TEST(FirstCalls, ShellsKnowTheCommand) {
    for (const char *form : {"bash", "zsh", "fish"}) {
        const CommandResult result = RunFixture({"describe", form});
        EXPECT_EQ(result.exit_status, kGood);
        for (const char *text : {"fixture flash provision", "medium", "12-13", "describe"})
            EXPECT_THAT(result.output, HasSubstr(text)) << form;
    }
    const TemporaryDirectory pages;
    EXPECT_EQ(RunFixture({"describe", "man", "--into", pages.path().string()}).exit_status, kGood);
    const std::string text = Text(ReadFile(pages.path() / "fixture-flash-provision.1", 1 << 20));
    EXPECT_THAT(text, HasSubstr(".B \\-\\-medium\n"));
    EXPECT_THAT(text, HasSubstr("One of nand, dataflash."));
    EXPECT_EQ(RunFixture({"describe", "schema"}).output,
              Text(ReadFile(SourceFile("docs/report.schema.json"), 1 << 20)));
    EXPECT_EQ(RunFixture({"describe", "csh"}).exit_status, kWrongCall);
}

} // namespace

} // namespace fixture
