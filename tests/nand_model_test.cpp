// The NAND chip's model and the bus it hangs on, from the datasheets' facts alone.
#include "fixture/chip/nand_latches.h"
#include "machine/chip_store.h"

#include <gtest/gtest.h>

#include <fmt/format.h>
#include <fstream>
#include <sstream>

namespace fixture {

namespace {

using Fault = NandFault;

// A chip at its pins. A conversation is a text of steps:
//   cXX command, aXX address cycle, wXX data in (words as wXXXX), rXX data out with what is expected, sXX status,
//   l and h the level of chip enable, "." waits until the chip is ready, ? gives the ready/busy level as ?0 or ?1
struct Pins {
    explicit Pins(NandContents &on) : contents(on), chip(clock, journal, supply, contents, enable_net, ready_net) {
        ready_net.attach("pull-up").set(Drive::pull_high);
        enable.set(Drive::low);
    }

    // Holds a conversation; gives it back with what the chip said in place of what was expected.
    std::string talk(const std::string &script) {
        std::string said;
        std::istringstream steps(script);
        for (std::string step; steps >> step;) said += (said.empty() ? "" : " ") + take(step);
        return said;
    }
    std::string take(const std::string &step) {
        const auto value = static_cast<std::uint16_t>(step.size() > 1 ? std::stoul(step.substr(1), nullptr, 16) : 0);
        const int digits = static_cast<int>(step.size()) - 1;
        switch (step[0]) {
        case 'c': chip.command(static_cast<std::uint8_t>(value)); break;
        case 'a': chip.address(static_cast<std::uint8_t>(value)); break;
        case 'w': chip.write(value); break;
        case 's': chip.command(0x70); [[fallthrough]];
        case 'r': return fmt::format("{}{:0{}X}", step[0], digits == 2 ? chip.read() & 0xFF : chip.read(), digits);
        case 'l': enable.set(Drive::low); break;
        case 'h': enable.set(Drive::high); break;
        case '?': return ready_net.high() ? "?1" : "?0";
        default:
            while (!ready_net.high() && clock.skip_to_next()) {
            }
        }
        return step;
    }
    std::string violations() {
        std::string all;
        for (const JournalEntry &entry : journal.violations()) all += entry.what + ";";
        journal.clear();
        return all;
    }

    Clock clock;
    Journal journal{clock};
    PowerSupply supply;
    Net enable_net{"PD15", journal}, ready_net{"PA22", journal};
    Net::Driver &enable = enable_net.attach("driver");
    NandContents &contents;
    Nand chip;
};

#define EXPECT_TALK(pins, script) EXPECT_EQ((pins).talk(script), script)

TEST(NandModel, HoldsConversations) {
    NandContents contents;
    Pins pins(contents);
    for (const std::string script :
         {"c80 a00 a00 a41 a01 a00 wF0 w12 c85 a3E a08 w56 w78 c10 ?0 . ?1 sE0", // page 1 of block 5
          "c00 a00 a00 a41 a01 a00 c30 . rF0 r12 rFF c05 a3E a08 cE0 r56 r78",
          "c80 a00 a00 a41 a01 a00 w3F c10 . sE0 c00 a00 a00 a41 a01 a00 c30 . r30 r12",     // bits are only cleared
          "c60 a7F a01 a00 cD0 . sE0 c00 a00 a00 a41 a01 a00 c30 s80 s80 . sE0 c00 rFF rFF", // back from the status
          "c80 a00 a08 a40 a01 a00 w00 c10 . c80 a00 a08 a40 a01 a00 w00 c10 . c80",         // marks a block, twice
          "cFF ?0 . sE0"}) {
        EXPECT_TALK(pins, script);
        const bool overwrites = script.find("w3F") != std::string::npos;
        EXPECT_EQ(pins.violations(), overwrites ? "block 5 page 1 programmed without an erase;" : "") << script;
    }
    NandContents wide(FindNandPart("MT29F2G16AAB"));
    EXPECT_TALK(Pins(wide), "c80 a1F a04 a40 a01 a00 w00FF c10 . s00E0 c00 a1E a04 a40 a01 a00 c30 . rFFFF r00FF");
}

TEST(NandModel, OperationsTakeTheirTime) {
    const std::pair<const char *, Picoseconds> rows[] = {{"c00 a00 a00 a00 a00 a00 c30", 25 * kMicrosecond},
                                                         {"c80 a00 a00 a00 a00 a00 w00 c10", 300 * kMicrosecond},
                                                         {"c60 a00 a00 a00 cD0", 2 * kMillisecond},
                                                         {"cFF", 5 * kMicrosecond}};
    for (const auto &[script, time] : rows) {
        NandContents contents;
        Pins pins(contents);
        pins.talk(script);
        EXPECT_TALK(pins, "h ?0 l s80"); // without the chip enabled too
        pins.talk(".");
        EXPECT_EQ(pins.clock.now(), time) << script;
        EXPECT_TALK(pins, "?1 sE0");
        EXPECT_EQ(pins.violations(), "");
    }
}

TEST(NandModel, WhatTheDatasheetForbidsIsRecorded) {
    const std::string read0 = "c00 a00 a00 a00 a00 a00 c30 ", load0 = "c80 a00 a00 a00 a00 a00 w00 c10 . ",
                      spare0 = "c80 a00 a08 a00 a00 a00 w00 c10 . ", page5 = "c80 a00 a00 a05 a00 a00 w00 c10 . ";
    const std::pair<std::string, const char *> rows[] = {
        {"c31", "unknown command 31;"},
        {"h c70 r00 l", "a command while the chip is not enabled;a read while the chip is not enabled;"},
        {read0 + "c00", "command 00 while busy;"},
        {read0 + "a00", "address cycle while busy;"},
        {read0 + "r00", "read while busy;"},
        {"c00 a00 a00 c30", "command 30 without its opening;"},
        {"c10", "command 10 without its opening;"},
        {"c60 a00 a00 cD0", "command D0 without its opening;"},
        {"c80 a00 a00 a00 a00 a00 c10", "program with nothing loaded;"},
        {"w00", "data without a program command;"},
        {"c80 a00 a00 w00", "data without a program command;"},
        {"a00", "address cycle that no command asked for;"},
        {"c60 a00 a00 a00 a00", "address cycle that no command asked for;"},
        {"c60 a00 a00 a02", "row 131072 beyond the chip;"},
        {"c00 a40 a08 a00 a00 a00", "column 2112 beyond the page;"},
        {"c80 a3F a08 a00 a00 a00 w00 w00", "data beyond the end of the page;"},
        {"c00 a3F a08 a00 a00 a00 c30 . rFF rFF", "read beyond the end of the page;"},
        {"rFF", "read that no command asked for;"},
        {"c90 a20", "identifier at address 20;"},
        {load0 + load0 + load0 + load0, ""},
        {load0 + load0 + load0 + load0 + load0, "block 0 page 0 programmed too often without an erase;"},
        {spare0 + spare0 + spare0 + spare0 + spare0, "block 0 page 0 programmed too often without an erase;"},
        {page5 + load0, "block 0 page 0 programmed after page 5;"},
        {page5 + spare0 + "c60 a00 a00 a00 cD0 . " + load0, ""},
        {"c60 a00 a00 a00 cD0 cFF", "reset in the middle of a program or erase;"},
        {"c00 h l c80 h l c70 rE0", ""}, // commands left hanging
    };
    for (const auto &[script, expected] : rows) {
        NandContents contents;
        Pins pins(contents);
        pins.talk(script);
        EXPECT_EQ(pins.violations(), expected) << script;
    }
    NandContents contents;
    contents.write(0, std::vector<std::uint8_t>{1});
    Pins pins(contents);
    pins.talk("c60 a00 a00 a02 cD0");
    EXPECT_TRUE(contents.erased(0)) << "a row beyond the chip answers for one at its start";
}

TEST(NandModel, FaultsStrikeInTheirPlaceAsOftenAsAsked) {
    const std::string erase2 = "c60 a80 a00 a00 cD0 . ", program2 = "c80 a00 a00 a80 a00 a00 w5A c10 . ",
                      read2 = "c00 a00 a00 a80 a00 a00 c30 . ";
    const std::pair<Fault, std::string> rows[] = {
        {{.kind = Fault::erase_fails, .block = 2, .times = 1},
         program2 + erase2 + "sE1 " + read2 + "r5A " + erase2 + "sE0"},
        {{.kind = Fault::erase_fails, .block = 3}, erase2 + "sE0"},
        {{.kind = Fault::erase_fails, .skip = 1}, erase2 + "sE0 " + erase2 + "sE1 " + erase2 + "sE0"},
        {{.kind = Fault::program_fails, .block = 2, .page = 0},
         program2 + "sE1 " + read2 + "rFF " + program2 + "sE0 " + read2 + "r5A"},
        {{.kind = Fault::program_fails, .block = 2, .page = 1}, program2 + "sE0 " + read2 + "r5A"},
        {{.kind = Fault::grown_bad, .block = 2, .skip = 2},
         erase2 + program2 + "sE0 " + erase2 + "sE1 " + erase2 + "sE1 " + program2 + "sE1"},
        {{.kind = Fault::wrong_bits, .block = 2, .mask = 0x81},
         program2 + "sE0 " + read2 + "rDB " + erase2 + program2 + read2 + "r5A"},
        {{.kind = Fault::stuck_low, .times = Fault::kForever, .mask = 0xF0}, read2 + "r0F " + program2 + read2 + "r0A"},
        {{.kind = Fault::stuck_high, .times = Fault::kForever, .mask = 0x01},
         program2 + read2 + "r5B " + read2 + "r5B"},
        {{.kind = Fault::flipped, .times = 1, .mask = 0x80}, read2 + "r7F " + read2 + "rFF"},
        {{.kind = Fault::stays_busy, .skip = 1}, read2 + "?1 " + erase2 + "?0 s80"},
    };
    for (const auto &[fault, script] : rows) {
        NandContents contents;
        contents.faults = {fault};
        Pins pins(contents);
        EXPECT_TALK(pins, script);
    }
    NandContents contents;
    contents.make_factory_bad(2);
    Pins pins(contents);
    EXPECT_TALK(pins, erase2 + "sE1 c00 a00 a08 a81 a00 a00 c30 . r00 rFF");
    EXPECT_TRUE(contents.marked_bad(2) && contents.factory_bad(2) && !contents.marked_bad(3));
}

TEST(NandModel, APowerCutTearsProgramsAndErases) {
    NandContents before;
    NandContents::Page old;
    old.fill(0xF5);
    for (std::uint32_t row = 0; row < kNandPagesPerBlock; row++) before.set_page(row, old);
    for (const int whole : {0x34, 0xFF}) { // what a program leaves, and an erase
        int kinds[3] = {};                 // torn by parts, torn by bits, not at all
        for (std::uint64_t seed = 0; seed < 20; seed++) {
            NandContents contents = before, again = before;
            for (NandContents *on : {&contents, &again}) {
                Pins pins(*on);
                pins.supply.plan(PowerCut{0, CutMoment::torn, seed});
                pins.talk(whole == 0xFF ? "c60 a00 a00 a00" : "c80 a00 a00 a00 a00 a00");
                for (unsigned i = 0; whole != 0xFF && i < old.size(); i++) pins.chip.write(0x3C);
                pins.talk(whole == 0xFF ? "cD0" : "c10");
                EXPECT_TALK(pins, "?1 c90 a00 rFF"); // nothing answers without power
            }
            EXPECT_EQ(contents, again);
            bool between = false;
            for (const std::uint8_t byte : contents.page(0)) {
                EXPECT_EQ((byte ^ 0xF5) & ~(whole ^ 0xF5), 0) << "a bit went the wrong way";
                between |= byte != 0xF5 && byte != whole;
            }
            kinds[contents == before ? 2 : between ? 1 : 0]++;
        }
        EXPECT_TRUE(kinds[0] > 2 && kinds[1] > 2 && kinds[2] < 3) << kinds[0] << kinds[1] << kinds[2];
    }
}

TEST(NandModel, CopiesAndFilesKeepTheCells) {
    using Bytes = std::vector<std::uint8_t>;
    const std::string file = testing::TempDir() + "nand-model-test.bin";
    std::remove(file.c_str());
    NandContents contents;
    LoadChip(contents, file); // none yet: erased
    contents.write(kNandPageBytes - 1, Bytes{0x11, 0x22});
    const NandContents snapshot = contents;
    contents.edit(1).bytes[kNandPageBytes + 3] = 0x33;
    EXPECT_NE(contents, snapshot);
    EXPECT_TRUE(snapshot.page(1)[kNandPageBytes + 3] == 0xFF && !contents.shares_block(snapshot, 0));
    EXPECT_EQ(contents.read(kNandPageBytes - 2, 4), (Bytes{0xFF, 0x11, 0x22, 0xFF}));
    EXPECT_EQ(contents.read(kNandBytes - 1, 2), Bytes(2, 0xFF));
    EXPECT_THROW(contents.write(kNandBytes - 1, Bytes{1, 2}), std::out_of_range);

    SaveChip(contents, file);
    EXPECT_EQ(std::filesystem::file_size(file), 2 * kNandRawPageBytes);
    NandContents loaded;
    loaded.write(kNandBytes - 1, Bytes{0});
    LoadChip(loaded, file);
    EXPECT_EQ(loaded, contents);
    std::filesystem::resize_file(file, kNandPageBytes); // a short file is erased from its end on
    LoadChip(loaded, file);
    EXPECT_TRUE(loaded.page(0)[kNandPageBytes - 1] == 0x11 && loaded.erased(1));
    std::filesystem::resize_file(file, std::uintmax_t{kNandRows} * kNandRawPageBytes + 1);
    EXPECT_THROW(LoadChip(loaded, file), std::runtime_error);
    std::remove(file.c_str());
    EXPECT_THROW(SaveChip(contents, testing::TempDir() + "no such directory/chip"), std::runtime_error);
}

// A chip on its bus; a write cycle takes 7 master clock cycles, a read cycle 5.
struct OnBus : Pins {
    OnBus(NandContents &on, std::uint32_t mode_register, std::uint32_t selects)
        : Pins(on), mode(mode_register), chip_selects(selects) {
        bus.map(0x40000000, NandLatches::kSize, latches, "NAND");
    }
    const std::uint32_t cycle = 0x00050007, mode, chip_selects;
    Bus bus{clock};
    NandLatches latches{clock, journal, bus, chip, {cycle, mode, chip_selects}};
};
constexpr std::uint32_t k8 = 0x20003, k16 = 0x21003, kNand = 0xA;

TEST(NandLatches, AccessesTakeTheProgrammedCyclesAndReachTheChip) {
    const struct {
        const char *part;
        std::uint32_t mode, chip_selects, command_offset;
        unsigned bytes;
        std::uint32_t first; // read of an identifier
        unsigned cycles;     // of that read
        const char *violations;
    } rows[] = {
        {"K9F2G08U0M", k8, kNand, 0x400000, 1, 0xEC, 5, ""},
        {"K9F2G08U0M", k16, kNand, 0x400000, 1, 0xEC, 5, ""},
        {"K9F2G08U0M", k16, kNand, 0x5FFFFE, 2, 0xFFEC, 5, ""},
        {"MT29F2G16AAB", k16, kNand, 0x400000, 2, 0x2C, 5, ""},
        {"MT29F2G16AAB", k16, kNand, 0x400000, 1, 0x2C, 5, ""},
        {"K9F2G08U0M", k8, kNand, 0x400000, 4, 0x1580DAEC, 20, "32-bit access to a data bus of 8 bits on a chip of 8;"},
        {"K9F2G08U0M", k8, 0x2, 0x400000, 1, 0xFF, 5, ""},
        {"K9F2G08U0M", k8, kNand, 0x600000, 1, 0xFF, 5,
         "8-bit write to the latch ADDRESS+COMMAND;"
         "address cycle that no command asked for;read that no command asked for;"},
    };
    for (const auto &row : rows) {
        NandContents contents(FindNandPart(row.part));
        OnBus pins(contents, row.mode, row.chip_selects);
        Bus &bus = pins.bus;
        bus.write(0x40000000 + row.command_offset, 1, 0x90);
        bus.write(0x40200000, 1, 0x00);
        EXPECT_EQ(pins.clock.now(), 14 * bus.cycle);
        EXPECT_EQ(bus.read(0x40000000, row.bytes), row.first) << row.part;
        EXPECT_EQ(pins.clock.now(), (14 + row.cycles) * bus.cycle);
        EXPECT_EQ(pins.violations(), row.violations);
    }
}

TEST(NandLatches, PageDataMoveInTheWidthOfTheChip) {
    const std::tuple<const char *, std::uint32_t, unsigned, bool> rows[] = {
        {"K9F2G08U0M", k8, 1, true},    {"K9F2G08U0M", k16, 1, true},   {"K9F2G08U0M", k16, 2, false},
        {"K9F2G08U0M", k8, 4, false},   {"MT29F2G16AAB", k16, 2, true}, {"MT29F2G16AAB", k16, 1, false},
        {"MT29F2G16AAB", k8, 2, false}, {"MT29F2G16AAB", k16, 4, false}};
    for (const auto &[part, mode, bytes, good] : rows) {
        NandContents contents(FindNandPart(part));
        OnBus pins(contents, mode, kNand);
        pins.talk("c80 a00 a00 a00 a00 a00");
        pins.latches.write(0, bytes, 0x12345678);
        EXPECT_EQ(pins.violations().empty(), good) << part << ' ' << bytes;
        pins.talk("c10 . c00 a00 a00 a00 a00 a00 c30 .");
        EXPECT_EQ(pins.latches.read(0, bytes) & 0xFF, 0x78u);
        EXPECT_EQ(pins.violations().empty(), good) << part << ' ' << bytes;
        pins.latches.read(0x200000, 1);
        EXPECT_EQ(pins.violations(), "read from the latch ADDRESS;");
    }
}

} // namespace

} // namespace fixture
