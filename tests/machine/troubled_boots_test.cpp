// The board around the bootloader: keys, the watchdog, and boots in which something outside never comes.
#include "harness/builds.h"
#include "tests/processors.h"

#include <cstring>
#include <fmt/format.h>

namespace fixture {

namespace {

using Line = LineFault::Line;

TEST(Board, ResetsNeedTheirKey) {
    Chips chips;
    Board board(chips, {});
    int resets = 0;
    board.reset_controller.processor_reset = [&] { ++resets; };
    board.bus.write(0xFFFFFD00, 4, 0x5A000001);
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(board.journal.violations().size(), 1u);
    board.bus.write(0xFFFFFD00, 4, 0xA5000001);
    EXPECT_EQ(resets, 1);
}

// What a board punishes that plain storage would let pass.
TEST(Board, RecordsWhatTheDatasheetsForbid) {
    struct Write {
        std::uint32_t address, value;
        unsigned bytes = 4;
    };
    const std::vector<Write> console = {{0xFFFFF670, 0xC0000000}, {0xFFFFF604, 0xC0000000}, {0xFFFFEE20, 54}};
    const auto on = [&](std::vector<Write> more) {
        more.insert(more.begin(), console.begin(), console.end());
        return more;
    };
    const struct {
        std::vector<Write> writes;
        const char *violation;
    } rows[] = {
        {{{0xFFFFF208, 1}}, "bus: PIOA.PSR written: it can only be read"},
        {{{0xFFFFF230, 1, 1}}, "bus: PIOA.SODR written with 8 bits"},
        {{{0xFFFFED20, 0x10008}}, "MATRIX: EBI0_CSA takes chip select 1 from the SDRAM that the program runs in"},
        {{{0xFFFFEE1C, 'x'}}, "DBGU: a character is written while the transmitter, its clock or its pin is off"},
        {on({{0xFFFFEE1C, 'x'}}), "DBGU: a character is written while the transmitter, its clock or its pin is off"},
        {on({{0xFFFFEE00, 0x40}, {0xFFFFEE1C, 'x'}}), ""},
        {on({{0xFFFFEE00, 0x40}, {0xFFFFEE1C, 'x'}, {0xFFFFEE1C, 'y'}}),
         "DBGU: a character is written before the last one is sent"},
        {on({{0xFFFFEE20, 27}, {0xFFFFEE00, 0x40}, {0xFFFFEE1C, 'x'}}),
         "DBGU: a character at 231528 baud, for a terminal at 115,200"},
        {{{0xFFFFFD44, 0x3FFF2FFF}}, "WDT: MR written a second time"},
        {{{0xFFFFFD40, 0x00000001}}, "WDT: CR written without the key: 0x00000001"},
        {{{0xFFFFFD40, 0xA5000001}}, ""},
        {{{0xFFFFFD00, 0xA5000009}}, "RSTC: the external reset line is not modelled"},
        {{{0xFFFFFD00, 0xA5000004}}, "RSTC: a reset of the peripherals without the processor"},
        {{{0xFFFFF430, 0x30}, {0xFFFFF410, 0x30}}, "PB4: driven high, but only ever to be pulled low"},
        {{{0xFFFFF410, 0x30}}, ""},
    };
    for (const auto &row : rows) {
        Chips chips;
        Board board(chips, {});
        for (const auto &[address, value, bytes] : row.writes) board.bus.write(address, bytes, value);
        const std::vector<JournalEntry> &found = board.journal.violations();
        EXPECT_EQ(found.empty() ? "" : found[0].where + ": " + found[0].what, row.violation);
    }
}

// A watchdog's reset takes the peripherals with it, as the reset controller does when it is asked to.
TEST(Board, ResetsWhatTheirBitsName) {
    constexpr std::uint32_t kPins = 0xFFFFF618; // PIOC.OSR
    for (const bool watchdog : {true, false})
        for (const bool peripherals : {true, false}) {
            Chips chips;
            BoardOptions options;
            if (watchdog) options.watchdog = kSecond;
            Board board(chips, options);
            board.bus.write(0xFFFFF610, 4, 0xFF);
            if (!watchdog) board.bus.write(0xFFFFFD00, 4, peripherals ? 0xA5000005 : 0xA5000001);
            if (watchdog && peripherals) board.clock.advance(2 * kSecond);
            board.processor_reset();
            EXPECT_EQ(board.bus.read(kPins, 4), peripherals ? 0u : 0xFFu);
        }
}

// Nothing is zero that nobody zeroed, and the same seed gives the same noise.
TEST(Board, PowersUpWithNoiseInMemory) {
    Chips chips;
    const auto some = [&](std::uint64_t seed) {
        BoardOptions options;
        options.seed = seed;
        Board board(chips, options);
        std::vector<std::uint8_t> bytes;
        for (const std::uint32_t address : {0x20000000u, 0x22F00000u, 0x23000000u, 0x00300000u, 0x00500000u}) {
            const auto memory = board.memory.memory().at(address, 4096);
            EXPECT_LT(std::count(memory.begin(), memory.end(), 0), 100) << std::hex << address;
            bytes.insert(bytes.end(), memory.begin(), memory.end());
            memory[0] ^= 0xFF; // gone with the power
        }
        return bytes;
    };
    const auto first = some(1);
    EXPECT_EQ(some(1), first);
    EXPECT_NE(some(2), first);
}

// The chips have stopped before the processor: what it still does has no effect.
TEST(Board, ABrownOutStopsTheChipsFirst) {
    Chips chips;
    Board board(chips, {});
    bool lost = false;
    board.supply.lost = [&] { lost = true; };
    board.supply.plan(PowerCut{0, CutMoment::brownout, 1});
    for (int n = 0; n < 2; ++n)
        board.supply.change(
            {"NAND", "erase", 0}, [&] { chips.nand.make_factory_bad(7); }, [](Random &) {});
    EXPECT_TRUE(board.supply.on() && !board.supply.chips_on() && !lost);
    EXPECT_FALSE(chips.nand.factory_bad(7));
    board.clock.advance(50 * kMillisecond);
    EXPECT_TRUE(lost && !board.supply.on());
}

// One power-up of a board with 1.9.0 and a bank on its volume, up to the first reset.
class Boots : public testing::TestWithParam<Processor> {
protected:
    explicit Boots() { nothing_new.new_bootloader = false; }
    RunReport boot(const World &made, const std::function<void(Machine &)> &inspect = {}) {
        World world = made;
        const BootResult result = RunBoot({.processor = GetParam(),
                                           .volume = *world.volume,
                                           .board = world.board,
                                           .chips = &world.chips,
                                           .most_resets = 1,
                                           .prepare = prepare,
                                           .inspect = inspect});
        console = result.console;
        flash_kept = world.chips.nand == made.chips.nand && world.chips.dataflash == made.chips.dataflash;
        eeprom_kept = world.chips.eeprom == made.chips.eeprom;
        return result.report;
    }
    static World with(const Situation &setup) { return MakeWorld(setup, FixedBuilds()); }

    const bool all = GetParam() == Processor::host;
    Situation nothing_new;
    std::function<void(Machine &)> prepare;
    std::string console;
    bool flash_kept = false, eeprom_kept = false;
};
BOTH_PROCESSORS(Boots);

TEST_P(Boots, EndInAVerdict) {
    const Situation two_pages{.medium = Medium::dataflash, .update_bytes = 2 * 1056};
    const NandFault busy{.kind = NandFault::stays_busy, .times = NandFault::kForever};
    const Situation busy_nand{.nand_faults = {busy}};
    const struct {
        const char *name;
        Situation setup;
        Picoseconds watchdog; // 0: not armed
        bool dataflash_busy;
        std::string end; // verdict and place begin so
    } cases[] = {
        {"no watchdog", nothing_new, 0, false, "launched "},
        {"patient watchdog", nothing_new, 16 * kSecond, false, "launched "},
        {"impatient watchdog", nothing_new, 100 * kMillisecond, false, "reset loop watchdog, after a look at "},
        {"busy NAND", busy_nand, 0, false, "hang PIOA.PDSR"},
        {"busy NAND, watchdog", busy_nand, 550 * kMillisecond, false, "reset loop watchdog, after a look at PIOA.PDSR"},
        {"busy DataFlash, watchdog", two_pages, 550 * kMillisecond, true, "reset loop watchdog, after a look at SPI0."},
        {"busy DataFlash", two_pages, 0, true, "launched "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (!all && c.dataflash_busy && c.watchdog == 0) continue; // minutes of polls
        World world = with(c.setup);
        world.chips.dataflash.never_ready = c.dataflash_busy;
        if (c.watchdog) world.board.watchdog = c.watchdog;
        const RunReport report = boot(world);
        const std::string end = std::string(VerdictName(report.verdict)) + " " + report.place;
        EXPECT_EQ(end.substr(0, c.end.size()), c.end) << end;
        EXPECT_TRUE(flash_kept && eeprom_kept);
        EXPECT_EQ(console.find("replace failed") != std::string::npos, c.end == "launched " && c.dataflash_busy);
    }
}

// Whichever of the NAND's operations never ends, the verdict names its wait.
TEST_P(Boots, HangWhereTheNandStaysBusy) {
    World world = with({});
    unsigned hangs = 0;
    RunReport report;
    for (unsigned skip = 0; skip == 0 || report.verdict == Verdict::hang; skip += all ? 7 : 97, ++hangs) {
        world.chips.nand.faults = {{.kind = NandFault::stays_busy, .skip = skip, .times = NandFault::kForever}};
        report = boot(world);
        EXPECT_EQ(report.place, report.verdict == Verdict::hang ? "PIOA.PDSR" : "reset controller") << skip;
    }
    EXPECT_GT(hangs, 2u);
}

// Either line held at any clock from power-up to launch, those of the parameters' reading and of the backlight's
// sequence: nothing is printed, the application is launched, the parameters are there whole or not at all. A clock that
// is stretched as long as it may be changes nothing, except before a start, which takes it for a busy bus: at the very
// first, and at the repeated ones; a stop before any other start waits for it. SDA held low in the address of a read
// makes it one of a write, and the EEPROM takes what the line shows then: two wires have no defence against that.
TEST_P(Boots, LaunchWhateverTheWiresDo) {
    struct Outcome {
        std::string console;
        Picoseconds time;
        std::uint64_t clocks;
        std::array<std::uint32_t, 4> network;
        UiState light;
    };
    const World world = with(nothing_new);
    std::optional<I2cMonitor> monitor;
    const auto boot_with = [&](std::optional<LineFault> fault) {
        Outcome outcome;
        prepare = [&](Machine &machine) {
            monitor.emplace(machine.board().net('B', 4), machine.board().net('B', 5));
            if (fault) machine.board().two_wire_trouble.inject(*fault);
        };
        const RunReport report = boot(world, [&](Machine &machine) {
            outcome.clocks = machine.board().two_wire_trouble.clocks();
            std::memcpy(&outcome.network, machine.object("NetDevs"), sizeof outcome.network);
            outcome.light = machine.board().ui.state;
        });
        EXPECT_EQ(report.verdict, Verdict::launched) << report.place;
        EXPECT_TRUE(flash_kept);
        outcome.console = console;
        outcome.time = report.time;
        return outcome;
    };
    const Outcome good = boot_with({});
    EXPECT_EQ(good.network, world.before.network);
    EXPECT_EQ(good.light, (UiState{true, true, 100}));
    std::size_t starts = 1;
    const std::string wire = monitor->take();
    for (std::size_t at = 0; (at = wire.find("Sr", at)) != std::string::npos; ++at) ++starts;
    const LineFault faults[] = {{Line::scl, 0, 100}, {Line::scl, 0, 150}, {Line::scl}, {Line::sda, 0, 30}, {Line::sda}};
    std::size_t lost = 0;
    for (std::uint64_t clock = 0; clock <= good.clocks; clock += all ? 1 : 97)
        for (LineFault fault : faults) {
            // Each start is counted by the first kind of trouble alone; of the others every third clock will do.
            if (all && fault.length != 100 && (clock + fault.length) % 3 != 0) continue;
            fault.clock = clock;
            SCOPED_TRACE(
                fmt::format("line {}, clock {}, length {}", static_cast<int>(fault.line), clock, fault.length));
            const Outcome outcome = boot_with(fault);
            EXPECT_EQ(outcome.console, good.console);
            EXPECT_LT(outcome.time, good.time + kSecond);
            EXPECT_TRUE(outcome.network == good.network || outcome.network == decltype(good.network){});
            EXPECT_TRUE(eeprom_kept || (fault.line == Line::sda && fault.length == 30));
            lost += fault.length == 100 && !(outcome.network == good.network && outcome.light == good.light);
            if (HasFailure()) return;
        }
    EXPECT_EQ(lost, all ? starts : 1);
}

} // namespace

} // namespace fixture
