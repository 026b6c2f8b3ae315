// The 24LC16's model by its datasheet, driven by a plain bus master of the test's own.
#include "fixture/parts/eeprom_24lc16.h"

#include <gtest/gtest.h>
#include <tuple>
#include <vector>

namespace fixture {

namespace {

using Bytes = std::vector<std::uint8_t>;

class Eeprom : public testing::Test {
protected:
    Clock clock;
    Journal journal{clock};
    PowerSupply supply;
    Net sda{"PB4", journal};
    Net scl{"PB5", journal};
    Net::Driver &data = sda.attach("master");
    Net::Driver &tick = scl.attach("master");
    EepromContents contents;
    Eeprom24lc16 chip{sda, scl, clock, journal, supply, contents};

    Eeprom() {
        for (Net *line : {&sda, &scl}) line->attach("pull-up").set(Drive::pull_high);
    }
    bool bit(bool value) {
        data.set(value ? Drive::released : Drive::low);
        tick.set(Drive::released);
        const bool level = sda.high();
        tick.set(Drive::low);
        return level;
    }
    void start() {
        data.set(Drive::released);
        tick.set(Drive::released);
        data.set(Drive::low);
        tick.set(Drive::low);
    }
    void stop() {
        data.set(Drive::low);
        tick.set(Drive::released);
        data.set(Drive::released);
    }
    bool put(unsigned byte) {
        for (int shift = 7; shift >= 0; shift--) bit(byte >> shift & 1);
        return !bit(true);
    }
    unsigned get(bool more) {
        unsigned byte = 0;
        for (int i = 0; i < 8; i++) byte = byte << 1 | (bit(true) ? 1u : 0u);
        bit(!more);
        return byte;
    }
    // A page write of `count` bytes 1, 2, 3 ...; whether every byte was acknowledged.
    bool write(unsigned address, unsigned count) {
        start();
        bool all = put(0xA0 | (address >> 7 & 0xE)) && put(address & 0xFF);
        for (unsigned i = 1; i <= count; i++) all = put(i) && all;
        stop();
        return all;
    }
    Bytes stored(unsigned address, unsigned count) const {
        return {contents.bytes.begin() + address, contents.bytes.begin() + address + count};
    }
};

TEST_F(Eeprom, PageWriteWrapsInItsPage) {
    EXPECT_TRUE(write(0x31E, 5));
    EXPECT_EQ(stored(0x31E, 3), (Bytes{1, 2, 0xFF}));
    EXPECT_EQ(stored(0x310, 4), (Bytes{3, 4, 5, 0xFF}));
    clock.advance(chip.write_time);
    EXPECT_TRUE(write(0x040, 17)) << "the 17th byte takes the place of the first";
    EXPECT_EQ(stored(0x040, 2), (Bytes{17, 2}));
}

TEST_F(Eeprom, AnswersToNobodyWhileItWrites) {
    EXPECT_TRUE(write(0, 1));
    clock.advance(chip.write_time - 1);
    EXPECT_FALSE(write(0, 1));
    clock.advance(1);
    EXPECT_TRUE(write(0, 0)) << "an address alone starts no write";
    EXPECT_TRUE(write(0, 1));
    start();
    EXPECT_FALSE(put(0xB0)) << "not its control code";
}

TEST_F(Eeprom, ReadsOnAcrossBlocksAndTheEnd) {
    for (const auto &[address, next, byte] : {std::tuple{0x0FFu, 0x100u, 0xA2u}, std::tuple{0x7FFu, 0u, 0xA4u}}) {
        contents.bytes[address] = 0xA1;
        contents.bytes[next] = static_cast<std::uint8_t>(byte);
        write(address, 0);
        start();
        EXPECT_TRUE(put(0xA1 | (address >> 7 & 0xE)));
        EXPECT_EQ(get(true), 0xA1u);
        EXPECT_EQ(get(false), byte);
        stop();
    }
    start();
    EXPECT_TRUE(put(0xA1)); // goes on behind the last access
    EXPECT_EQ(get(false), 0xFFu);
    stop();
    EXPECT_TRUE(journal.violations().empty());
    start();
    for (const unsigned byte : {0xA0u, 0x00u}) put(byte);
    start();
    put(0xA3);
    EXPECT_EQ(get(false), 0xA2u) << "the read's block bits replace the address's";
    EXPECT_EQ(journal.violations().size(), 1u) << "and that is worth a word";
}

TEST_F(Eeprom, StoresOnlyAtAProperStop) {
    for (const bool restart : {true, false}) {
        start();
        for (const unsigned byte : {0xA0u, 0x10u, 0x55u}) put(byte);
        for (int i = 0; i < 4 && !restart; i++) bit(false);
        restart ? start() : stop();
        EXPECT_EQ(contents, EepromContents{});
        stop();
    }
    EXPECT_EQ(supply.operations(), 0u);
}

TEST_F(Eeprom, PowerFailsDuringAWrite) {
    supply.plan(PowerCut{0, CutMoment::torn, 1});
    chip.torn_bytes = 2;
    write(0x10E, 4);
    EXPECT_EQ(stored(0x10E, 2), (Bytes{1, 2}));
    EXPECT_EQ(stored(0x100, 1), Bytes{0xFF});
    clock.advance(chip.write_time);
    EXPECT_FALSE(write(0x000, 1)) << "no power, no answer";
}

} // namespace

} // namespace fixture
