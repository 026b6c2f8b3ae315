// The SPI controller's model, from the datasheet's facts alone.
#include "fixture/chip/spi_controller.h"

#include <gtest/gtest.h>

namespace fixture {

namespace {

enum Register : std::uint32_t { CR = 0x00, MR = 0x04, RDR = 0x08, TDR = 0x0C, SR = 0x10, CSR0 = 0x30 };
constexpr std::uint32_t kMaster0 = 0x000E0011; // master, no mode fault, line 0
constexpr std::uint32_t kMode0 = 0x00000302;   // divider 3, 8 bits, captured on the leading edge
constexpr std::uint32_t kStay = 1u << 3;

// Answers every byte with its complement and writes down what it sees: '(' selected, ')' released, '.' a byte.
struct Listener : SpiDevice {
    void select() override { log += '('; }
    void deselect() override { log += ')'; }
    std::uint8_t exchange(std::uint8_t sent) override {
        log += '.';
        return static_cast<std::uint8_t>(~sent);
    }
    std::string log;
};

struct SpiModel : testing::Test {
    SpiModel() {
        bus.map(0, 0x4000, spi, "SPI0");
        spi.attach(0, device);
    }
    void enable(std::uint32_t settings, std::uint32_t mode = kMaster0) {
        bus.write(MR, 4, mode);
        bus.write(CSR0, 4, settings);
        bus.write(CR, 4, 1);
    }
    Picoseconds wait(std::uint32_t bit) {
        while (!(bus.read(SR, 4) & bit)) continue;
        return clock.now();
    }
    std::uint32_t send(std::uint32_t byte) {
        bus.write(TDR, 4, byte);
        wait(1);
        return bus.read(RDR, 4);
    }

    Clock clock;
    Journal journal{clock};
    Bus bus{clock};
    Net select{"PA5", journal}, spck{"PA2", journal}, mosi{"PA1", journal}, miso{"PA0", journal};
    bool pins = true, clocked = true;
    Listener device;
    SpiController spi{
        clock, journal, bus, {[this] { return pins; }, [this] { return clocked; }, &select, &spck, &mosi, &miso}};
};

TEST_F(SpiModel, FlagsFollowEnableAndReset) {
    EXPECT_EQ(bus.read(SR, 4), 0xF0u);
    enable(kMode0);
    EXPECT_EQ(bus.read(SR, 4), 0x102F2u);
    EXPECT_TRUE(select.high());
    bus.write(CR, 4, 0x80);
    EXPECT_EQ(bus.read(SR, 4), 0xF0u);
    EXPECT_EQ(bus.read(MR, 4) | bus.read(CSR0, 4), 0u);
    clocked = false;
    enable(kMode0);
    EXPECT_EQ(bus.read(SR, 4) | bus.read(MR, 4), 0xF0u);
}

TEST_F(SpiModel, CharactersTakeTheProgrammedTimes) {
    // The divider and the delays; master clock cycles from the write to RDRF, and from RDRF to RDRF of a prompt driver.
    using Row = std::array<std::uint32_t, 5>;
    for (const auto &[divider, before, after, to_first, period] :
         {Row{3, 26, 1, 26 + 24, 24 + 32}, {5, 0, 1, 2 + 40, 40 + 32}, {4, 1, 2, 1 + 32, 32 + 64}}) {
        enable(before << 16 | after << 24 | divider << 8 | kStay | 2);
        clock.advance(kMillisecond);
        bus.write(TDR, 4, 0x55);
        const Picoseconds written = clock.now(), first = wait(1) - bus.cycle;
        bus.read(RDR, 4);
        bus.write(TDR, 4, 0xAA);
        EXPECT_FALSE(bus.read(SR, 4) & 2) << "TDRE falls while the character waits for the delay";
        const Picoseconds second = wait(1) - bus.cycle;
        EXPECT_EQ((first - written) / bus.cycle, to_first);
        EXPECT_EQ((second - first) / bus.cycle, period);
        EXPECT_EQ((wait(1u << 9) - bus.cycle - second) / bus.cycle, after * 32);
        bus.read(RDR, 4);
        bus.write(CR, 4, 0x80);
    }
    EXPECT_TRUE(journal.violations().empty());
}

// Steps: 'k' keep the line low (CSAAT), 'r' let it rise, 'b' one byte and its answer, 'p' two bytes with the second
// waiting in the transmit register, 's' be slow, 'l' LASTXFER, 'd' disable.
TEST_F(SpiModel, TheSelectLineIsJudgedAtEachCharactersEnd) {
    const std::pair<const char *, const char *> rows[] = {
        {"rbsbs", "(.)(.)"},   // slow driver: each byte is a selection of its own
        {"rps", "(..)"},       // the second byte waited in time
        {"kbsbsrbs", "(...)"}, // released before the last byte starts
        {"kbrsbs", "(..)"},    // clearing the bit alone does not release: the line was judged before
        {"kbsbsls", "(..)"},   // LASTXFER releases an idle line
        {"kbsds", "(.)"},      // so does disabling
        {"rbkbs", "(.)(."},    // too late: the line is already on its way up
    };
    for (const auto &[steps, log] : rows) {
        device.log.clear();
        enable(0x01000000 | kMode0);
        for (const char step : std::string(steps)) {
            switch (step) {
            case 'k': bus.write(CSR0, 4, 0x01000000 | kMode0 | kStay); break;
            case 'r': bus.write(CSR0, 4, 0x01000000 | kMode0); break;
            case 'b': EXPECT_EQ(send(0x35), 0xE00CAu); break;
            case 'p':
                for (const std::uint32_t byte : {1u, 2u}) bus.write(TDR, 4, byte);
                for (int n = 0; n < 2; n++, bus.read(RDR, 4)) wait(1);
                break;
            case 's': clock.advance(kMicrosecond); break;
            case 'l': bus.write(CR, 4, 1u << 24); break;
            case 'd': bus.write(CR, 4, 2); break;
            }
        }
        EXPECT_EQ(device.log, log) << steps;
        bus.write(CR, 4, 0x80);
    }
    EXPECT_TRUE(journal.violations().empty());
}

TEST_F(SpiModel, WhoHearsDependsOnSelectFieldAndPins) {
    const std::tuple<std::uint32_t, bool, std::uint32_t> rows[] = {
        {0x000E0011, true, 0xF0}, {0x00000011, true, 0xF0},  {0x000D0011, true, 0xFF},
        {0x000F0011, true, 0xFF}, {0x000E0011, false, 0xFF}, {0x000E0091, false, 0x0F}};
    for (const auto &[mode, ready, answer] : rows) {
        pins = ready;
        enable(kMode0, mode);
        for (std::uint32_t n = 1; n < 4; n++) bus.write(CSR0 + 4 * n, 4, kMode0);
        EXPECT_EQ(send(0x0F) & 0xFF, answer) << std::hex << mode;
        wait(1u << 9);
    }
    EXPECT_EQ(device.log, "(.)(.)");
}

TEST_F(SpiModel, WhatTheDatasheetForbidsIsRecorded) {
    const std::pair<std::uint32_t, std::uint32_t> settings[] = {
        {kMaster0, 0x0002}, {kMaster0, 0x0382}, {kMaster0, 0x0300}, {kMaster0 | 2, kMode0}, {0x000E0010, kMode0}};
    for (const auto &[mode, csr] : settings) {
        journal.clear();
        enable(csr, mode);
        bus.write(TDR, 4, 0);
        EXPECT_EQ(journal.violations().size(), 1u) << std::hex << mode << ' ' << csr;
        bus.write(CR, 4, 0x80);
    }
    journal.clear();
    enable(kMode0 | kStay);
    for (const std::uint32_t byte : {1u, 2u}) {
        bus.write(TDR, 4, byte);
        clock.advance(kMicrosecond);
    }
    EXPECT_EQ(journal.violations().size(), 1u);
    EXPECT_EQ(bus.read(SR, 4) & 8u, 8u) << "overrun";
    EXPECT_EQ(bus.read(SR, 4) & 8u, 0u) << "cleared by reading the status";
    EXPECT_EQ(bus.read(RDR, 4) & 0xFF, 0xFDu) << "the later byte";
}

TEST_F(SpiModel, TheTraceShowsEveryBit) {
    unsigned sent = 0, answered = 0, edges = 0;
    spck.watch([&](bool high) {
        if (!high || select.high()) return;
        edges++;
        sent = sent << 1 | mosi.high();
        answered = answered << 1 | miso.high();
    });
    spi.trace_bits = true;
    enable(kMode0);
    send(0xA7);
    EXPECT_TRUE(edges == 8 && sent == 0xA7 && answered == 0x58) << edges << ' ' << sent << ' ' << answered;
}

} // namespace

} // namespace fixture
