// The serial DataFlash driver against its chip: what goes over the wire, what ends up in the chip, what is printed.
#include "harness/dataflash_log.h"
#include "harness/noise.h"
#include "tests/processors.h"

#include <cstring>

namespace fixture {

namespace {

// A board with a DataFlash, and a log of what the last call sent to it. Violations fail the test.
struct Dataflash {
    Dataflash(Processor processor, Chips with) : chips(std::move(with)), started(processor, chips, {}) {}
    Dataflash(Processor processor, const char *part)
        : Dataflash(processor, Chips{.eeprom = {}, .nand = {}, .dataflash = At45Contents(*FindAt45Part(part))}) {}
    ~Dataflash() {
        for (const JournalEntry &entry : board.journal.violations()) ADD_FAILURE() << entry.where << ": " << entry.what;
    }

    int init() { return call("SDFlash_Init"); }
    int read(std::uint32_t address, std::uint32_t length) { return call("SDFlash_Read", address, buffer, length); }
    int write(std::uint32_t address, const Bytes &bytes) {
        std::copy(bytes.begin(), bytes.end(), started.at(buffer));
        return call("SDFlash_Write", address, buffer, bytes.size());
    }
    Bytes received(std::uint32_t length) { return Bytes(started.at(buffer), started.at(buffer) + length); }
    template <typename... Arguments> int call(const char *routine, Arguments... arguments) {
        log.clear();
        return static_cast<int>(started.call(routine, arguments...));
    }

    Chips chips;
    StartedBoard started;
    Board &board = started.board();
    DataflashLog log{board, chips.dataflash.part().address_bytes};
    const std::uint32_t buffer = started.scratch(256 * 1024);
};

class DataflashDriver : public testing::TestWithParam<Processor> {};
BOTH_PROCESSORS(DataflashDriver);

TEST_P(DataflashDriver, IdentifiesTheFourDensities) {
    for (const At45Part &part : At45Parts()) {
        Dataflash flash(GetParam(), part.name);
        EXPECT_EQ(flash.init(), 0) << part.name;
        EXPECT_EQ(flash.log.polls(), 1u);
        for (const auto &[at, value] :
             {std::pair{0xFFFA4004u, 0x000E0011u}, {0xFFFA4030, 0x011A0302}, {0xFFFA403C, 0x280A6C02}})
            EXPECT_EQ(flash.board.bus.read(at, 4), value) << std::hex << at;
        for (const unsigned line : {0u, 1u})
            EXPECT_TRUE(flash.board.net('B', line).driven() && flash.board.net('B', line).high()) << line;
        EXPECT_EQ(flash.read(part.bytes() - 4, 4), 0);
        EXPECT_EQ(flash.started.console(), "");
    }
}

TEST_P(DataflashDriver, WithoutAKnownChipEverythingFails) {
    At45Part unknown = *FindAt45Part("AT45DB321");
    unknown.density = 0x30;
    Chips odd, none;
    odd.dataflash = At45Contents(unknown);
    none.dataflash.absent = true;
    for (const Chips &chips : {odd, none}) {
        Dataflash flash(GetParam(), chips);
        EXPECT_EQ(flash.init(), -1);
        EXPECT_EQ(flash.read(0, 0), -1);
        EXPECT_EQ(flash.write(0, {1}), -1);
        EXPECT_EQ(flash.log.commands(), "");
        EXPECT_EQ(flash.started.console(), "\tAT91SAM926X_ReadDataflash : Failed with Error=1\n"
                                           "\tAT91SAM926X_WriteDataflash : Failed with Error=1\n");
    }
}

// After each, every byte of the chip is as in a plain array, and the bytes concerned read back.
TEST_P(DataflashDriver, SendsTheseCommands) {
    const Bytes noise = Noise(FindAt45Part("AT45DB1282")->bytes());
    const std::tuple<const char *, bool, std::uint32_t, std::uint32_t, const char *> rows[] = {
        {"AT45DB161", false, 0, 0, ""},
        {"AT45DB161", true, 528, 0, ""},
        {"AT45DB161", false, 5 * 528 + 7, 100'000,
         "E800140700000000+32768 E8010C2700000000+32768 E802044700000000+32768 E802FC6700000000+1696"},
        {"AT45DB161", true, 518, 600,
         "53000000 84000206+10 83000000 84000000+528 81000400 88000400 53000800 84000000+62 83000800"},
        {"AT45DB161", true, 4096 * 528 - 1, 1, "533FFC00 8400020F+1 833FFC00"},
        {"AT45DB161", true, 300, 4, "53000000 8400012C+4 83000000"},
        {"AT45DB321", true, 300, 4, "53000000 8400012C+4 83000000"},
        {"AT45DB321", true, 518, 4, "53000000 84000206+4 83000000"},
        {"AT45DB321", true, 8191 * 528, 528, "84000000+528 817FFC00 887FFC00"},
        {"AT45DB642", true, 3 * 1056 + 1000, 8, "53001800 840003E8+8 83001800"},
        {"AT45DB642", true, 3 * 1056 + 1050, 8, "53001800 8400041A+6 83001800 53002000 84000000+2 83002000"},
        {"AT45DB642", false, 8191 * 1056 + 1055, 1, "E8FFFC1F00000000+1"},
        {"AT45DB1282", true, 16383 * 1056 + 1, 1055, "5301FFF800 8400000001+1055 8101FFF800 8301FFF800"},
        {"AT45DB1282", true, 9000 * 1056 + 1000, 8, "5301194000 84000003E8+8 8101194000 8301194000"},
        {"AT45DB1282", true, 9000 * 1056 + 1050, 6, "5301194000 840000041A+6 8101194000 8301194000"},
        {"AT45DB1282", true, 9000 * 1056, 1056, "8400000000+1056 8101194000 8801194000"},
        {"AT45DB1282", false, 9000 * 1056 + 2, 3, "E801194002000000+3"},
    };
    for (const auto &[part, is_write, address, length, log] : rows) {
        Chips chips;
        At45Contents &expected = chips.dataflash = At45Contents(*FindAt45Part(part));
        expected.write(0, std::span(noise).first(expected.bytes()));
        Dataflash flash(GetParam(), chips);
        ASSERT_EQ(flash.init(), 0);
        if (is_write) {
            const Bytes bytes = Noise(length, 1);
            EXPECT_EQ(flash.write(address, bytes), 0);
            EXPECT_EQ(flash.log.commands(), log) << part << ' ' << address;
            expected.write(address, bytes);
            EXPECT_TRUE(flash.chips.dataflash == expected) << part << ' ' << address;
        }
        EXPECT_EQ(flash.read(address, length), 0);
        EXPECT_TRUE(is_write || flash.log.commands() == log) << flash.log.commands();
        EXPECT_EQ(flash.received(length), expected.read(address, length)) << part << ' ' << address;
    }
}

TEST_P(DataflashDriver, RangesEndWithTheChip) {
    constexpr std::uint32_t kTotal = 4096 * 528;
    const std::tuple<std::uint32_t, std::uint32_t, int> rows[] = {
        {kTotal - 1, 1, 0},  {kTotal, 0, 0},       {kTotal, 1, -1},     {kTotal - 1, 2, -1}, {kTotal + 1, 0, -1},
        {0, kTotal + 1, -1}, {16, 0xFFFFFFFF, -1}, {0x0FFFFFFF, 4, -1}, {0x10000000, 4, -1}, {0x20000000, 4, -1},
        {0x3FFFFFFF, 1, -1}, {0xFFFFFFFF, 0, -1},  {0xC0000000, 4, 0},
    };
    Dataflash flash(GetParam(), "AT45DB161");
    ASSERT_EQ(flash.init(), 0);
    for (const auto &[address, length, result] : rows)
        for (const char *routine : {"SDFlash_Read", "SDFlash_Write"}) {
            EXPECT_EQ(flash.call(routine, address, flash.buffer, length), result) << std::hex << address;
            EXPECT_EQ(flash.log.polls() + flash.log.commands().size() == 0, result != 0) << routine;
        }
    EXPECT_EQ(flash.call("AT91SAM926X_ReadDataflash", 0u, 4u, flash.buffer), 1) << "an address without its base";
}

TEST_P(DataflashDriver, AChipThatStaysBusyFailsReadsAndIsNotHeardByWrites) {
    Dataflash flash(GetParam(), "AT45DB161");
    ASSERT_EQ(flash.init(), 0);
    flash.chips.dataflash.never_ready = true;
    EXPECT_EQ(flash.read(0, 4), -1);
    EXPECT_EQ(flash.log.polls(), 200'000u);
    EXPECT_EQ(flash.log.commands(), "");
    EXPECT_EQ(flash.started.console(), "\tAT91SAM926X_ReadDataflash : Failed with Error=1\n");
    if (GetParam() == Processor::arm) return; // four times the polls again
    EXPECT_EQ(flash.write(100, {1, 2}), 0);
    EXPECT_EQ(flash.log.polls(), 4 * 200'000u);
    EXPECT_EQ(flash.log.commands(), "53000000 84000064+2 83000000");
    EXPECT_EQ(flash.started.console(), "");
}

TEST_P(DataflashDriver, LeavesABusyDescriptorAlone) {
    Dataflash flash(GetParam(), kDefaultAt45);
    ASSERT_EQ(flash.init(), 0);
    std::memset(flash.started.at(flash.buffer), 1, 128); // the busy flag among them
    const std::uint64_t accesses = flash.board.bus.accesses();
    EXPECT_EQ(flash.call("AT91SAM926X_SpiWrite", flash.buffer), 1);
    EXPECT_EQ(flash.board.bus.accesses(), accesses);
}

} // namespace

} // namespace fixture
