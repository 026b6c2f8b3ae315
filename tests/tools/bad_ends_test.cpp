// What a run that ends badly says about it: the time, the place and its source line, the calls that led there, how
// often, and what happened just before. The mistakes are planted in the image, in a routine that the start-up calls
// before main.
#include "formats/file.h"
#include "harness/arm_opcodes.h"
#include "harness/command.h"
#include "harness/started_board.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace fixture {

namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::HasSubstr;

// A leaf without a stack frame: the debug tables are right for it whatever its instructions are. It is compiled to the
// 16-bit set; what is planted begins with the way out of it.
constexpr const char *kRoutine = "AT91SAM926X_ProgramLCDC";
constexpr std::uint32_t kRoutineBytes = 64;
constexpr std::uint32_t kLeave16Bit = t16::NOP << 16 | 0x4778; // bx pc; nop

std::uint32_t RoutineAddress() { return Bootloader().elf->symbol(kRoutine).value() & ~1u; }

a32::Words Join(a32::Words all, const a32::Words &more) {
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

// The bootloader's ELF with other instructions at the start of that routine.
std::filesystem::path FirmwareWith(const TemporaryDirectory &here, const a32::Words &code) {
    const Firmware &build = Bootloader();
    Bytes file = ReadFile(build.file, 1u << 26);
    EXPECT_EQ(build.elf->symbol(kRoutine).value() & 1, 1u) << "it is 16-bit code";
    const auto at = static_cast<std::ptrdiff_t>(RoutineAddress() - kBootloaderLinkAddress);
    const auto routine =
        std::search(file.begin(), file.end(), build.flat.begin() + at, build.flat.begin() + at + kRoutineBytes);
    EXPECT_NE(routine, file.end());
    const a32::Words words = Join({kLeave16Bit}, code);
    EXPECT_LE(words.size() * sizeof words[0], kRoutineBytes);
    std::memcpy(&*routine, words.data(), words.size() * sizeof words[0]);
    return here.write("planted.elf", {file.begin(), file.end()});
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

constexpr std::uint32_t kReadOnly = 0xFFFFF208; // PIOA.PSR
constexpr std::uint32_t kResetController = 0xFFFFFD00, kResetAll = 0xA5000005;

TEST(BadEnds, LeadToTheLine) {
    using namespace a32;
    const struct {
        const char *name;
        Words code;
        bool keep_going;
        const char *verdict; // how the last line but the explanation begins
        const char *times;
        const char *last_event;
    } rows[] = {
        {"violation", Join(Load(0, kReadOnly), {STR_R2_R0, BX_LR}), false,
         "violation: bus: PIOA.PSR written: it can only be read; ", "", "PIOA.PSR written"},
        // The start-up calls the routine, and the initialisation of the panel does.
        {"violations that were let pass", Join(Load(0, kReadOnly), {STR_R2_R0, STR_R2_R0, STR_R2_R0, BX_LR}), true,
         "violation: bus: PIOA.PSR written: it can only be read; ", ", 6 times", ""},
        {"fault", {UNDEFINED}, false, "fault: ", "", ""},
        {"hang", Join(Load(0, kReadOnly), {LDR_R3_R0, NOP, B_BACK_2}), false, "hang: PIOA.PSR; ", "", "R PIOA.PSR"},
        {"reset loop", Join(Join(Load(0, kResetController), Load(2, kResetAll)), {STR_R2_R0}), false,
         "reset loop: reset controller; ", ", 8 times", "reset by the reset controller"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const TemporaryDirectory here;
        std::vector<std::string> call = {"boot", "--firmware", FirmwareWith(here, row.code)};
        if (row.keep_going) call.emplace_back("--keep-going");
        const CommandResult result = RunFixture(call);
        EXPECT_EQ(result.exit_status, 3);
        const std::vector<std::string> lines = Lines(result.error);
        ASSERT_GE(lines.size(), 26u) << result.error;
        EXPECT_EQ(lines[0].substr(0, std::strlen(row.verdict)), row.verdict);
        EXPECT_THAT(lines[1], ContainsRegex("^  at [0-9]+\\.[0-9]{6} ms of virtual time"));
        EXPECT_THAT(lines[1], testing::EndsWith(*row.times ? row.times : " ms of virtual time"));
        EXPECT_THAT(
            lines[2],
            ContainsRegex("^  in        AT91SAM926X_ProgramLCDC\\+0x[0-9A-F]+ \\([A-Za-z0-9_]+\\.(cpp|h):[0-9]+\\)"));
        const auto events = std::find(lines.begin(), lines.end(), "  the last events:");
        ASSERT_NE(events, lines.end());
        for (auto caller = lines.begin() + 3; caller != events; ++caller)
            EXPECT_THAT(*caller, testing::StartsWith("  called by "));
        EXPECT_THAT(std::vector<std::string>(lines.begin() + 3, events),
                    Contains(ContainsRegex("called by PLATFORM_Start\\+0x[0-9A-F]+ \\(board\\.cpp:[0-9]+\\)")));
        EXPECT_EQ(*(events - 1), "  called by start_up+0x3C");
        EXPECT_GE(lines.end() - events, 21);
        EXPECT_THAT(std::string(*(events + 20)) + std::string(*(events + 19)), HasSubstr(row.last_event));
    }
}

TEST(BadEnds, SayTheSameToPrograms) {
    const TemporaryDirectory here;
    const auto planted = FirmwareWith(here, Join(a32::Load(0, kReadOnly), {a32::STR_R2_R0, a32::BX_LR}));
    const CommandResult result = RunFixture({"boot", "--json", "--firmware", planted});
    const nlohmann::json said = result.json();
    EXPECT_EQ(said["verdict"], "violation");
    EXPECT_EQ(said["times"], 1);
    EXPECT_EQ(said["pc"].get<std::uint32_t>() - RoutineAddress(), 16u);
    EXPECT_EQ(said["call_chain"].back(), "start_up+0x3C");
    EXPECT_EQ(said["last_events"].size(), 20u);
    EXPECT_GT(said["seen_ms"].get<double>(), 0);
}

} // namespace

} // namespace fixture
