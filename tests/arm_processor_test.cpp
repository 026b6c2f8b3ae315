// The emulated processor on a board of its own: small A32 programs at 0x20000000, vectors at 0, one register model.
#include "fixture/processors/arm_processor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace fixture {

namespace {

using Words = std::vector<std::uint32_t>;

constexpr std::uint32_t kRam = 0x20000000;
constexpr std::uint32_t kData = kRam + 0x1000;
constexpr std::uint32_t kLog = kRam + 0x2000;
constexpr std::uint32_t kRegister = 0xFFFFFD00;
constexpr std::uint32_t kNothing = 0x70000000; // no memory, no register
constexpr std::uint32_t kGap = 0xFFFFF000;     // among the registers, but no model

constexpr std::uint32_t kNop = 0xE1A00000;
constexpr std::uint32_t kHere = 0xEAFFFFFE; // b .
constexpr std::uint32_t kSemihosting = 0xEF123456;

// ldr rN, [pc]; b over; value
Words load(std::uint32_t number, std::uint32_t value) { return {0xE59F0000 | number << 12, 0xEA000000, value}; }

Words operator+(Words a, const Words &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Each vector stores its number, the fault's address and status and the link register at kLog, then ends the run.
const Words kVectors = {
    kHere,      0xEA000002, 0xEA000003,   0xEA000004, 0xEA000005, //
    0xE3A0A001, 0xEA000004, 0xE3A0A002,   0xEA000002,             // mov r10, number; b log
    0xE3A0A003, 0xEA000000, 0xE3A0A004,
    0xE59F9014, // log: ldr r9, =kLog
    0xEE16BF10, // mrc p15, 0, r11, c6, c0, 0
    0xEE15CF10, // mrc p15, 0, r12, c5, c0, 0
    0xE8895C00, // stm r9, {r10, r11, r12, lr}
    0xE3A00018, 0xE59F1004, kSemihosting, kLog,       0x00020023,
};

struct RegisterModel : Peripheral {
    std::uint32_t read(std::uint32_t, unsigned) override { return access(); }
    void write(std::uint32_t, unsigned, std::uint32_t) override { access(); }
    bool pollable(std::uint32_t) const override { return false; }
    std::uint32_t access() {
        ++accesses;
        if (on_access) on_access();
        return 0x1234;
    }
    unsigned accesses = 0;
    std::function<void()> on_access;
};

struct Debugger : Semihosting {
    std::uint32_t call(std::uint32_t, std::uint32_t) override { return ++calls; }
    unsigned calls = 0;
};

struct Lines : CacheObserver {
    void clean_line(std::uint32_t address) override { cleaned.push_back(address); }
    void clean_all() override { ++all; }
    Words cleaned;
    unsigned all = 0;
};

struct ArmProcessorTest : testing::Test {
    ArmProcessorTest() {
        bus.map(kRegister, 0x10, model, "MODEL");
        put(0, kVectors);
    }
    void put(std::uint32_t address, const Words &words) {
        std::memcpy(memory.at(address, words.size() * 4).data(), words.data(), words.size() * 4);
    }
    std::uint32_t word(std::uint32_t address) const {
        std::uint32_t value;
        std::memcpy(&value, memory.at(address, 4).data(), 4);
        return value;
    }
    StageResult run(const Words &program) {
        put(kRam, program);
        return processor.run(kRam);
    }

    struct alignas(4096) Ram {
        std::array<std::uint8_t, 0x1000> low{};
        std::array<std::uint8_t, 0x4000> main{};
        std::array<std::uint8_t, 0x1000> stack{};
    };
    std::unique_ptr<Ram> ram = std::make_unique<Ram>();
    Clock clock;
    Journal journal{clock};
    Bus bus{clock};
    Memory memory{{{0, ram->low}, {kRam, ram->main}, {0x00300000, ram->stack}}};
    RegisterModel model;
    Debugger debugger;
    Lines lines;
    ArmProcessor processor{{clock, journal, bus, memory, debugger, lines, [] { return Picoseconds{5000}; }}};
};

// What a model stops, stops there: no later instruction of the same block reaches memory or the bus.
TEST_F(ArmProcessorTest, StopsAtTheInstructionThatMadeTheAccess) {
    const Words later = {0xE5812004, 0xE1C120B8, 0xE8810070, 0xE5802000, 0xE5903000, kSemihosting}; // stores, bus, call
    for (const std::uint32_t access : {0xE5802000u, 0xE5C02000u, 0xE1C020B0u, 0xE5903000u}) { // str, strb, strh, ldr
        model = {};
        model.on_access = [&] { processor.stop({StageEnd::reset, 0, "model"}); };
        std::memset(&ram->main[0x1000], 0, 0x40);
        const StageResult end =
            run(load(0, kRegister) + load(1, kData) + load(2, 7) + Words{0xE5812000, access} + later);
        EXPECT_EQ(end.end, StageEnd::reset);
        EXPECT_EQ(model.accesses, 1u) << std::hex << access;
        EXPECT_EQ(word(kData), 7u) << "the store before it";
        for (std::uint32_t offset = 4; offset < 0x20; offset += 4) EXPECT_EQ(word(kData + offset), 0u) << offset;
        EXPECT_EQ(debugger.calls, 0u);
    }
}

TEST_F(ArmProcessorTest, BadAccessesAndInstructionsEnterTheVectors) {
    const struct {
        const char *name;
        std::uint32_t base; // in r0; r4 holds 16
        std::uint32_t instruction, vector;
        std::uint32_t address; // data aborts
        const char *place;     // the start of the verdict's place
    } cases[] = {
        {"ldr", kNothing, 0xE5903004, 4, kNothing + 4, "data abort at 0x20000020, read of 0x70000004"},
        {"str after", kNothing, 0xE4803008, 4, kNothing, "data abort at 0x20000020, write of 0x70000000"},
        {"ldrh", kNothing, 0xE19030B4, 4, kNothing + 16, "data abort at 0x20000020, read of 0x70000010"},
        {"stmdb", kNothing, 0xE920000E, 4, kNothing - 12, "data abort at 0x20000020, write of 0x6FFFFFF4"},
        {"ldrd", kNothing, 0xE1C020D0, 4, kNothing, "data abort"},
        {"swp", kNothing, 0xE1003094, 4, kNothing, "data abort"},
        {"ldr scaled", kNothing, 0xE7103104, 4, kNothing - 64, "data abort"},
        {"register gap", kGap, 0xE5903004, 4, kGap + 4, "data abort at 0x20000020, read of 0xFFFFF004"},
        {"jump", kNothing, 0xE12FFF10, 3, 0, "prefetch abort at 0x70000000"},
        {"bkpt", 0, 0xE1200070, 3, 0, "prefetch abort at 0x20000020"},
        {"svc 7", 0, 0xEF000007, 2, 0, "supervisor call at 0x20000020"},
        {"undefined", 0, 0xE7F000F0, 1, 0, "undefined instruction at 0x20000020"},
    };
    for (const auto &fault : cases) {
        SCOPED_TRACE(fault.name);
        const StageResult end = run(load(0, fault.base) + load(4, 16) +
                                    Words{kNop, kNop, fault.instruction, 0xE5812000 /* str r2, [r1]: to 0 */});
        EXPECT_EQ(end.end, StageEnd::fault);
        EXPECT_EQ(end.exit_code, 1);
        EXPECT_EQ(end.place.rfind(fault.place, 0), 0u) << end.place;
        EXPECT_EQ(word(kLog), fault.vector);
        const std::uint32_t pc = fault.vector == 3 && fault.base ? fault.base : kRam + 0x20;
        EXPECT_EQ(word(kLog + 12), pc + (fault.vector == 4 ? 8 : 4));
        if (fault.vector != 4) continue;
        EXPECT_EQ(word(kLog + 4), fault.address);
        EXPECT_EQ(word(kLog + 8), 8u); // external abort
        EXPECT_EQ(word(0), kHere) << "a later store happened";
    }
    std::memset(ram->low.data(), 0xFF, 0x40); // vectors that are undefined themselves
    EXPECT_EQ(run({0xE7F000F0}).end, StageEnd::fault);
}

TEST_F(ArmProcessorTest, UnalignedAccessesAreViolationsAndFaultWhereTheProgramAskedForThat) {
    const Words access = {0xE5903001, kHere}; // ldr r3, [r0, #1]
    EXPECT_EQ(run(load(0, kData) + access).end, StageEnd::hang);
    ASSERT_EQ(journal.violations().size(), 1u);
    EXPECT_EQ(journal.violations()[0].what, "unaligned 4-byte read of 0x20001001 at 0x2000000C");
    const Words check_alignment = {0xEE113F10, 0xE3833002, 0xEE013F10}; // control register, bit 1
    EXPECT_EQ(run(load(0, kData) + check_alignment + access).end, StageEnd::fault);
    EXPECT_EQ(word(kLog + 8), 1u); // alignment
    journal.clear();
    processor.watch_alignment(false);
    EXPECT_EQ(run(load(0, kData) + access).end, StageEnd::hang);
    EXPECT_TRUE(journal.violations().empty());
}

TEST_F(ArmProcessorTest, ExitsEndTheStage) {
    const Words exit_extended = load(0, 0x20) + load(1, kData) + Words{kSemihosting};
    put(kData, {0x20026, 42});
    const StageResult end = run(exit_extended);
    EXPECT_EQ(end.end, StageEnd::exited);
    EXPECT_EQ(end.exit_code, 42);
    put(kData, {0x20023, 0});
    EXPECT_EQ(run(exit_extended).exit_code, 1) << "an error without a number";
    EXPECT_EQ(run(load(0, 0x18) + load(1, 0x20026) + Words{kSemihosting}).exit_code, 0);
    EXPECT_EQ(run(load(0, 0x20) + load(1, kNothing) + Words{kSemihosting}).exit_code, 1) << "no block there";
}

TEST_F(ArmProcessorTest, WaitsThatNothingCanEndAreBounded) {
    const StageResult here = run({kNop, kHere});
    EXPECT_EQ(here.end, StageEnd::hang);
    EXPECT_EQ(here.place, "endless branch at 0x20000004");

    clock.at(clock.now() + kSecond, [&] { processor.stop({StageEnd::reset, 0, "watchdog"}); });
    EXPECT_EQ(run({kHere}).place, "watchdog") << "an event of the board ends the wait";

    processor.set_silence_limit(100'000);
    const StageResult loop = run({kNop, kNop, 0xEAFFFFFC});
    EXPECT_EQ(loop.end, StageEnd::hang);
    EXPECT_EQ(loop.place, "endless loop around 0x20000000");

    clock.at(clock.now() + kMicrosecond, [&] { processor.stop({StageEnd::reset, 0, "watchdog"}); });
    EXPECT_EQ(run({kNop, kNop, 0xEAFFFFFC}).place, "watchdog") << "time goes on in a loop";
}

TEST_F(ArmProcessorTest, AnInstructionCostsOneCoreCycleAndAnAccessKnowsItsInstruction) {
    Words nops(1000, kNop);
    std::uint32_t pc = 0;
    model.on_access = [&] { pc = processor.pc(); };
    const std::uint64_t before = processor.instructions();
    run(load(0, kRegister) + nops + Words{0xE5802000, kHere});
    const std::uint64_t executed = processor.instructions() - before;
    EXPECT_EQ(pc, kRam + 12 + 4000);
    EXPECT_GE(executed, 1004u);
    EXPECT_LE(executed, 1010u);
    EXPECT_EQ(clock.now(), executed * 5000 + bus.cycle);
}

// A wait that counts a register down is not run turn by turn. Nothing of it may show.
TEST_F(ArmProcessorTest, CountingDownTakesTheTimeOfItsTurns) {
    const Words countdown = {0xE2500001, 0x1AFFFFFD};
    for (const std::uint32_t turns : {1u, 2u, 30u, 3000u, 1'000'000u}) {
        const std::uint64_t instructions = processor.instructions();
        Picoseconds end = clock.now();
        std::uint64_t executed = 0;
        model.on_access = [&] {
            end = clock.now() - end;
            executed = processor.instructions() - instructions;
        };
        run(load(3, kRegister) + load(0, turns) + countdown + Words{0xE5830000, kHere}); // str r0, [r3]
        EXPECT_EQ(executed, 4 + 2 * turns + 2) << turns;
        EXPECT_EQ(end, executed * 5000 + bus.cycle) << turns;
    }

    const Picoseconds begin = clock.now();
    clock.at(begin + kMillisecond, [&] { processor.stop({StageEnd::reset, 0, "watchdog"}); });
    EXPECT_EQ(run(load(0, 0) + countdown).place, "watchdog") << "events come between the turns";
    EXPECT_LE(clock.now() - begin, kMillisecond + 4100 * 5000);
    processor.set_silence_limit(100'000);
    EXPECT_EQ(run(load(0, 0) + countdown).end, StageEnd::hang);
    EXPECT_LE(clock.now() - begin, 2 * kMillisecond);
}

TEST_F(ArmProcessorTest, CacheMaintenanceIsSeen) {
    run(load(0, kData + 0x25) + Words{0xEE070F3E, 0xEE070F3A, 0xEE070F36 /* invalidate only */, 0xEE17FF7A, kHere});
    EXPECT_EQ(lines.cleaned, (Words{kData + 0x20, kData + 0x20}));
    EXPECT_EQ(lines.all, 1u);
}

TEST_F(ArmProcessorTest, RoutinesAreCalledOnAStackOfTheirOwn) {
    const std::uint32_t routine = kRam + 0x100;
    put(kRam, {kNop, kNop, kHere});
    // add r0, r0, r1; ldr r1, [sp]; ldr r2, [sp, #4]; add r0, r0, r1; add r0, r0, r2; bx lr
    put(routine, {0xE0800001, 0xE59D1000, 0xE59D2004, 0xE0800001, 0xE0800002, 0xE12FFF1E});
    put(kRam + 0x200, {0xE5901000, 0xE12FFF1E}); // ldr r1, [r0]
    std::uint32_t result = 0;
    const Words arguments = {1, 20, 0, 0, 300, 4000};
    EXPECT_THROW(processor.call(routine, arguments, result), std::logic_error);
    EXPECT_EQ(processor.run(kRam, kRam + 8).end, StageEnd::stopped_at);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(processor.call(routine, arguments, result).end, StageEnd::stopped_at);
        EXPECT_EQ(result, 4321u);
    }
    EXPECT_EQ(processor.call(kRam + 0x200, Words{kNothing}, result).end, StageEnd::fault);
    EXPECT_THROW(processor.call(routine, arguments, result), std::logic_error);
}

// A model may throw: the exception arrives where the stage was started.
TEST_F(ArmProcessorTest, ExceptionsOfModelsComeThrough) {
    model.on_access = [] { throw std::runtime_error("model"); };
    EXPECT_THROW(run(load(0, kRegister) + Words{0xE5802000, kHere}), std::runtime_error);
    model.on_access = nullptr;
    EXPECT_EQ(run({kHere}).end, StageEnd::hang);
}

} // namespace

} // namespace fixture
