// What a newcomer types first, and what the command says of itself to shells. (Words mistyped: contract_test.cpp.)
#include "harness/command.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"
#include "harness/texts.h"

#include <gmock/gmock.h>

namespace fixture {

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

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
    const std::string text = AsText(ReadFile(pages.path() / "fixture-flash-provision.1", 1 << 20));
    EXPECT_THAT(text, HasSubstr(".B \\-\\-medium\n"));
    EXPECT_THAT(text, HasSubstr("One of nand, dataflash."));
    EXPECT_EQ(RunFixture({"describe", "schema"}).output,
              AsText(ReadFile(SourceFile("docs/report.schema.json"), 1 << 20)));
    EXPECT_EQ(RunFixture({"describe", "csh"}).exit_status, kWrongCall);
}

} // namespace

} // namespace fixture
