// The reference platform on the emulated processor, beside a debugger that answers as each test wants it to.
#include "harness/scripted_debugger.h"
#include "harness/started_board.h"

#include <cstring>
#include <gtest/gtest.h>

namespace fixture {

namespace {

constexpr std::uint32_t kPath = 0x21000000;
constexpr std::uint32_t kBuffer = 0x21001000;
constexpr std::uint32_t kFailed = ScriptedDebugger::kFailed;

struct PlatformTest : testing::Test {
    PlatformTest() {
        board.console.transmitted = [this](char c) { console += c; };
        LoadElf(image, board.memory.memory());
    }
    StageResult start() { return processor.run(image.entry(), image.symbol("main")); }
    StageResult try_call(std::uint32_t routine, const std::vector<std::uint32_t> &arguments) {
        result = 0;
        return processor.call(routine, arguments, result);
    }
    std::uint32_t call(const char *routine, const std::vector<std::uint32_t> &arguments) {
        EXPECT_EQ(try_call(image.symbol(routine).value(), arguments).end, StageEnd::stopped_at) << routine;
        return result;
    }
    std::uint8_t *at(std::uint32_t address) { return board.memory.memory().from(address).data(); }
    void set_word(std::uint32_t address, std::uint32_t value) { std::memcpy(at(address), &value, 4); }
    void put_path(const char *path) { std::memcpy(at(kPath), path, std::strlen(path) + 1); }
    std::uint32_t last_errno() {
        std::uint32_t value;
        std::memcpy(&value, at(call("__errno", {})), 4);
        return value;
    }

    Chips chips;
    Board board{chips, {}};
    ScriptedDebugger debugger{board.memory.memory()};
    ArmProcessor processor{{board.clock, board.journal, board.bus, board.memory.memory(), debugger, board.cache,
                            [this] { return board.pmc.core_cycle(); }}};
    const ElfImage &image = *Bootloader().elf;
    std::string console;
    std::uint32_t result = 0;
};

TEST_F(PlatformTest, OpensForReadingAndWritingOnlyAndTellsWhyNot) {
    ASSERT_EQ(start().end, StageEnd::stopped_at);
    EXPECT_EQ(console, "");
    debugger.writable = {{"i:/vol0/a", true}, {"i:/vol0/ro", false}};
    // Path, flags, what the debugger answers, the modes it is asked for; errno, or 0 where the file is opened.
    const std::tuple<const char *, std::uint32_t, std::uint32_t, std::vector<std::uint32_t>, std::uint32_t> cases[] = {
        {"i:/vol0/a", 0, 0, {1}, 0},
        {"i:/vol0/a", 2, 0, {3}, 0},
        {"i:/vol0/a", 0xFFFFFFF0, 0, {1}, 0}, // creating and appending bits count for nothing
        {"i:/vol0/ro", 2, 13, {3, 1}, 0},
        {"i:/vol0/none", 0, 2, {1}, 2},
        {"i:/vol0/none", 2, 0, {3, 1}, 2}, // a debugger that keeps no error number
        {"i:/vol0/none", 0, 0xFFFFFFFF, {1}, 2},
        {"i:/vol0/none", 0, 13, {1}, 13}, // there, but not to be read
        {"", 0, 2, {1}, 2},
    };
    for (const auto &[path, flags, error, modes, expected_errno] : cases) {
        SCOPED_TRACE(testing::Message() << path << " " << flags << " " << error);
        put_path(path);
        debugger.error = error;
        debugger.modes.clear();
        EXPECT_EQ(call("open", {kPath, flags, 0x1FF}), expected_errno ? kFailed : 7u);
        EXPECT_EQ(debugger.modes, modes);
        EXPECT_TRUE(!expected_errno || last_errno() == expected_errno) << last_errno();
    }
}

TEST_F(PlatformTest, ReadsClosesAndMeasuresFilesAsTheDebuggerSays) {
    start();
    for (const auto &[routine, handle] : {std::pair{"read", kFailed}, {"close", kFailed}, {"read", 0x80000000u}}) {
        debugger.asked = false;
        EXPECT_EQ(call(routine, {handle, kBuffer, 8}), kFailed);
        EXPECT_EQ(last_errno(), 9u);
        EXPECT_FALSE(debugger.asked) << "nobody is asked about a negative descriptor";
    }
    debugger.error = 5;
    for (const auto &[missing, expected] : {std::pair{0u, 8u}, {3u, 5u}, {8u, 0u}, {9u, kFailed}, {kFailed, kFailed}}) {
        debugger.missing = missing;
        EXPECT_EQ(call("read", {7, kBuffer, 8}), expected);
    }
    EXPECT_EQ(last_errno(), 5u);
    EXPECT_EQ(call("close", {7}), 0u);
    EXPECT_EQ(call("close", {8}), kFailed);

    debugger.writable = {{"i:/vol0/a", true}};
    debugger.length = 1234;
    put_path("i:/vol0/a");
    EXPECT_EQ(call("PJFS_FileSize", {kPath}), 1234u);
    EXPECT_EQ(call("stat", {kPath, kBuffer}), 0u);
    EXPECT_EQ(*at(kBuffer + 5), 0x81) << "a regular file";
    debugger.length = kFailed;
    EXPECT_EQ(call("stat", {kPath, kBuffer}), kFailed);
    EXPECT_EQ(last_errno(), 5u);
    put_path("a:/vol0/a");
    EXPECT_EQ(call("stat", {kPath, kBuffer}), kFailed);
}

TEST_F(PlatformTest, PausesAtLeastAsLongAsAsked) {
    start();
    for (const std::uint32_t microseconds : {0u, 1u, 10u, 999u, 300'000u, 5'000'000u, 70'000'001u}) {
        const Picoseconds before = board.clock.now();
        EXPECT_EQ(call("usleep", {microseconds}), 0u);
        const Picoseconds slept = board.clock.now() - before;
        EXPECT_GE(slept, microseconds * kMicrosecond);
        EXPECT_LE(slept, microseconds * kMicrosecond * 105 / 100 + 5 * kMicrosecond) << microseconds;
    }
}

TEST_F(PlatformTest, KnowsTheMasterClock) {
    start();
    const std::uint32_t pll = board.bus.read(0xFFFFFC28, 4);
    const std::uint32_t settings[][2] = {
        {pll, board.bus.read(0xFFFFFC30, 4)}, {pll, 0x002}, {pll, 0x206}, {0x20606309, 0x102}, {pll, 0x001}};
    for (const auto &[pll_setting, clock_setting] : settings) {
        board.bus.write(0xFFFFFC28, 4, pll_setting);
        board.bus.write(0xFFFFFC30, 4, clock_setting);
        const double expected = static_cast<double>(kSecond) / static_cast<double>(board.pmc.master_cycle());
        EXPECT_NEAR(call("GetMasterClock", {}), expected, expected / 1000) << std::hex << clock_setting;
    }
}

TEST_F(PlatformTest, FlushesWholeLinesOfExactlyTheRange) {
    start();
    // What survives a reset is [first, end).
    const std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t> cases[] = {
        {0x21, 0x40, 0x20, 0x80},
        {0x3F, 2, 0x20, 0x60},
        {0x20, 0x20, 0x20, 0x40},
        {0x20, 0, 0x20, 0x20},
        {0xFFFF00, 0xFF, 0xFFFF00, 0x1000000},
    };
    for (const auto &[address, length, first, end] : cases) {
        const auto buffer = board.memory.memory().from(HandoverCache::kBase);
        std::memset(buffer.data(), 0, buffer.size());
        board.cache.clean(HandoverCache::kBase, HandoverCache::kBytes);
        std::memset(buffer.data(), 0x55, buffer.size());
        call("ASP_FlushCaches", {HandoverCache::kBase + address, length});
        board.processor_reset();
        std::vector<std::uint8_t> expected(buffer.size());
        std::memset(expected.data() + first, 0x55, end - first);
        EXPECT_EQ(std::memcmp(buffer.data(), expected.data(), buffer.size()), 0) << first;
    }
}

TEST_F(PlatformTest, ReportsFaultsOnTheConsole) {
    // A routine, strlen where it is 0, and its argument.
    const std::tuple<std::uint32_t, std::uint32_t, const char *, const char *> cases[] = {
        {0, 0, "data abort", ", address 0x00000000, fault status 0x00000005, program status 0x"},
        {0, 0xFFFF2000, "data abort", ", address 0xFFFF2000, fault status 0x00000008, program status 0x"},
        {0x10, 0, "prefetch abort", "\nFault: prefetch abort at 0x00000010, fault status 0x00000005"},
        {kPath, 0, "undefined instruction", "\nFault: undefined instruction at 0x21000000, program status 0x"},
    };
    for (const auto &[routine, argument, place, text] : cases) {
        SCOPED_TRACE(text);
        start();
        set_word(kPath, 0xE7F000F0);
        const StageResult end = try_call(routine ? routine : *image.symbol("strlen"), {argument});
        EXPECT_EQ(end.end, StageEnd::fault);
        EXPECT_EQ(end.exit_code, 101);
        EXPECT_EQ(end.place.rfind(place, 0), 0u) << end.place;
        EXPECT_NE(console.find(text), std::string::npos) << console;
        EXPECT_NE(console.find("\nFault: " + end.place.substr(0, end.place.find(" at "))), std::string::npos)
            << console;
        EXPECT_EQ(console.back(), '\n');
        console.clear();
        LoadElf(image, board.memory.memory());
    }
}

// The kernel's parts that the bootloader configures cannot work with wrong tables, and say so.
TEST_F(PlatformTest, RefusesWrongTables) {
    constexpr const char *kClient = "__ghsentry_pjfs_clients_client", *kDisk = "__ghsentry_pjfs_backends_disk1",
                         *kVolume = "__ghsentry_pjfs_autoformats_drive1",
                         *kRange = "_ZN12_GLOBAL__N_1L19kDataFlashBootRangeE";
    using Changes = std::vector<std::pair<std::uint32_t, std::uint32_t>>; // offset and value; each is wrong by itself
    const std::tuple<const char *, Changes, std::string> cases[] = {
        {kDisk, {{0, 0}, {4, 0}}, "File server: wrong drive or disk\n"},
        {kDisk, {{8, 0}}, "File server: the disk has no initialisation\n"},
        {kDisk, {{12, 1}, {20, 1}}, "File server: words of the back-end that must be 0\n"},
        {kDisk, {{16, 0}}, "File server: no such block device\n"},
        {kClient, {{8, 1}, {24, 1}}, "File server: words of the client that must be 0\n"},
        {kClient, {{12, 0}, {16, 0x20200000}}, "File server: wrong working memory\n"},
        {kClient, {{28, 99}, {32, 5}}, "File server: wrong client values\n"},
        {kVolume, {{0, 0}, {16, 0}}, "File server: wrong volume to create\n"},
        {kVolume, {{8, 1}, {36, 1}}, "File server: words of the volume that must be 0\n"},
        {kVolume, {{12, 2}, {20, 99}}, "File server: wrong values of the volume to create\n"},
        {"__ghstable_pjfs_backends", {{4, 1}}, "File server: wrong table of back-ends\n"},
        {"__ghstable_pjfs_clients", {{4, 1}}, "File server: wrong table of clients\n"},
        {"__ghstable_pjfs_autoformats", {{4, 1}}, "File server: wrong table of volumes to create\n"},
        {kRange, {{4, 5}}, "Flash layer: offset and first block differ\n"},
        {kRange, {{8, 5}}, "Flash layer: the range ends before the chip does\n"},
        {kRange, {{12, 1}}, "Flash layer: the range is not on a NAND device\n"},
        {kRange, {{16, 1}}, "Flash layer: the range is not for instance 0\n"},
        {kRange, {{20, 0}}, "Flash layer: the device has no name\n"},
    };
    for (const auto &[table, changes, text] : cases)
        for (const auto &[offset, value] : changes) {
            LoadElf(image, board.memory.memory());
            set_word(image.symbol(table).value() + offset, value);
            console.clear();
            StageResult end = start();
            if (end.end == StageEnd::stopped_at) end = try_call(*image.symbol("PJFS_InitServer"), {});
            EXPECT_EQ(end.end, StageEnd::exited) << text;
            EXPECT_EQ(end.exit_code, table == kRange ? 102 : 103) << text;
            EXPECT_EQ(console, "\n" + text);
        }
}

TEST_F(PlatformTest, TheHeapEnds) {
    start();
    EXPECT_EQ(call("malloc", {0x00500000}), 0u);
    const std::uint32_t block = call("malloc", {0x00300000});
    EXPECT_GT(block, image.symbol("__bss_end"));
    EXPECT_LT(block + 0x00300000, 0x21000000u);
    EXPECT_EQ(call("malloc", {0x00200000}), 0u);
    call("free", {block});
    EXPECT_NE(call("malloc", {0x00200000}), 0u);
}

} // namespace

} // namespace fixture
