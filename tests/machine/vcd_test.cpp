// What a boot leaves to look at. Value change dumps: the format, and what an independent logic analyser makes of the
// file from a boot. The text trace.
#include "formats/parameter_store.h"
#include "harness/logic_analyser.h"
#include "harness/started_board.h"
#include "machine/board_vcd.h"
#include "machine/trace.h"
#include "machine/vcd.h"

#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>

namespace fixture {

namespace {

TEST(Vcd, HeaderLevelsAndEdges) {
    Clock clock;
    Journal journal(clock);
    Net a("PB4", journal), b("PB5", journal);
    Net::Driver &driver_a = a.attach("a"), &driver_b = b.attach("b");
    std::ostringstream out;
    clock.advance(7 * kNanosecond);
    driver_a.set(Drive::high);
    {
        VcdWriter vcd(out, clock);
        vcd.add("SDA", a);
        vcd.add("SCL", b);
        driver_b.set(Drive::high); // before the beginning: only its level counts
        vcd.begin();
        clock.advance(3 * kNanosecond);
        driver_a.set(Drive::low);
        driver_b.set(Drive::low);
        driver_b.set(Drive::high);
        clock.advance(kMicrosecond + 1);
        driver_a.set(Drive::high);
        clock.advance(kNanosecond);
    }
    driver_a.set(Drive::low); // the writer has gone
    EXPECT_EQ(out.str(), "$timescale 1 ns $end\n$scope module fixture $end\n"
                         "$var wire 1 ! SDA $end\n$var wire 1 \" SCL $end\n$upscope $end\n$enddefinitions $end\n"
                         "#7\n$dumpvars\n1!\n1\"\n$end\n#10\n0!\n0\"\n1\"\n#1010\n1!\n#1011\n");
}

// A board whose events are traced while somebody works on its registers.
class TraceTest : public testing::Test {
protected:
    std::string traced(const TraceFilter &filter, std::size_t last, const std::function<void(Machine &)> &work) {
        std::stringstream stream;
        Chips chips;
        Machine machine(chips, {});
        {
            EventStream events(machine);
            Trace trace(stream, filter, last);
            events.sinks.push_back([&](const Event &event) { trace.add(event); });
            work(machine);
            for (const char c : std::string("hello\nthere")) events.console(c);
            events.finish();
        }
        machine.board().bus.read(0xFFFFF418, 4); // nobody looks any more
        std::string text;
        for (std::string line; std::getline(stream, line);) text += line.substr(30) + "\n"; // without time and kind
        return text;
    }
    static void work(Machine &machine) {
        Bus &bus = machine.board().bus;
        for (const std::uint32_t value : {1u, 2u, 2u, 2u, 1u}) bus.write(0xFFFFF434, 4, value);
        for (const std::uint32_t value : {3u, 4u, 5u}) bus.write(0x40000000, 1, value); // not connected yet
        bus.read(0xFFFFF418, 4);
        machine.board().journal.note("panel", [] { return "lit"; });
        machine.board().journal.violation("NAND", "too soon");
    }
};

TEST_F(TraceTest, EveryEventOnce) {
    EXPECT_EQ(traced({}, 0, work), "W PIOB.CODR <- 0x00000001\nW PIOB.CODR <- 0x00000002, and 2 more\n"
                                   "W PIOB.CODR <- 0x00000001\nW NAND.DATA <- 0x03, and 2 more\n"
                                   "R PIOB.OSR -> 0x00000000\npanel: lit\nNAND: too soon\n"
                                   "console: hello\nconsole: there\n");
}

TEST_F(TraceTest, Filters) {
    EXPECT_EQ(traced({}, 2, work), "console: hello\nconsole: there\n");
    EXPECT_EQ(traced({.kinds = EventKinds("chip,violation")}, 0, work), "panel: lit\nNAND: too soon\n");
    EXPECT_EQ(traced({.peripherals = Words("NAND,con*")}, 0, work),
              "W NAND.DATA <- 0x03, and 2 more\nNAND: too soon\nconsole: hello\nconsole: there\n");
    EXPECT_EQ(traced({.functions = Words("main")}, 0, work), "") << "no routine is at work";
    EXPECT_EQ(traced({.until = 15 * kNanosecond}, 0, work), "W PIOB.CODR <- 0x00000001\n");
    EXPECT_EQ(traced({.from = kSecond}, 0, work), "");
    EXPECT_THROW(EventKinds("chips"), Refusal);
}

// Whoever looks on, and at whatever: the run is the same to the last instruction.
TEST(Observers, ChangeNoCount) {
    const TemporaryDirectory here;
    Chips dataflash;
    BootCase boot;
    boot.chips = &dataflash;
    boot.board.straps.pins_12_13 = false;
    const RunReport plain = RunBoot(boot).report;
    std::optional<EventStream> events;
    std::ofstream levels(here.path() / "all.vcd");
    std::optional<BoardVcd> vcd;
    boot.prepare = [&](Machine &machine) {
        events.emplace(machine);
        vcd.emplace(levels, "", machine);
    };
    boot.inspect = [&](Machine &) {
        vcd.reset();
        events.reset();
    };
    const RunReport watched = RunBoot(boot).report;
    EXPECT_EQ(watched.time, plain.time);
    EXPECT_EQ(watched.instructions, plain.instructions);
}

TEST(Vcd, SignalLists) {
    const auto names = [](std::string_view list) {
        std::string text;
        for (const VcdSignal &signal : VcdSignals(list))
            if (signal.port) text += fmt::format("{}=P{}{} ", signal.name, signal.port, signal.bit);
        return text;
    };
    EXPECT_EQ(names("SCL,SDA"), "SCL=PB5 SDA=PB4 ");
    EXPECT_EQ(names("PANEL*,NAND*,SPI_CS"),
              "PANEL_DATA=PB13 PANEL_CLOCK=PB14 PANEL_CS=PB15 NAND_RB=PA22 NAND_CE=PD15 SPI_CS=PA5 ");
    EXPECT_EQ(VcdSignals("").size(), 20u);
    for (const char *wrong : {"SCK", "SDA,", "SDA, SCL", "scl"}) EXPECT_THROW(VcdSignals(wrong), Refusal) << wrong;
}

TEST(Vcd, WholeBootAsAnotherProgramReadsIt) {
    const TemporaryDirectory directory;
    const std::filesystem::path file = directory.path() / "bus.vcd";
    std::ofstream out(file);
    std::optional<VcdWriter> vcd;
    Chips chips; // sector 0 is current; sector 1 is to be cleaned by the start-up
    for (const int sector : {0, 1})
        PlaceStoreImage(chips.eeprom.bytes, sector, MakeStoreImage(1, {{9, {10, 0, 0, 2}}}));
    BootCase boot;
    boot.chips = &chips;
    boot.prepare = [&](Machine &machine) {
        Board &board = machine.board();
        vcd.emplace(out, board.clock);
        for (const VcdSignal &signal : VcdSignals("SDA,SCL")) vcd->add(signal.name, board.net(signal.port, signal.bit));
        vcd->begin();
    };
    boot.inspect = [&](Machine &) { vcd.reset(); };
    RunBoot(boot);
    // A chip of 256 bytes with one address byte, at either block's address.
    const auto transfers = [&](unsigned address) {
        return DecodeTwoWire(file,
                             fmt::format(",i2cfilter:address={},eeprom24xx:chip=generic -A eeprom24xx=ops", address));
    };
    EXPECT_EQ(transfers(0x50),
              "eeprom24xx-1: Sequential random read (addr=00, 6 bytes): 00 01 00 0E FD 53\n"
              "eeprom24xx-1: Sequential random read (addr=00, 14 bytes): 00 01 00 0E FD 53 00 94 0A 00 00 02 FF FF\n");
    EXPECT_EQ(transfers(0x52), "eeprom24xx-1: Sequential random read (addr=00, 6 bytes): 00 01 00 0E FD 53\n"
                               "eeprom24xx-1: Page write (addr=00, 6 bytes): FF FF FF FF FF FF\n");
    EXPECT_EQ(TwoWireTraffic(file, 0x10), "W 01 FF R 00 00 00 W 05 FB W 63 9D R 00 00 00 W 62 01 9D W 60 64 3C ")
        << "awake? start; on? switch on; level 100";
}

} // namespace

} // namespace fixture
