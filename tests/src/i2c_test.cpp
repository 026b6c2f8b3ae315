// The software two-wire bus, edge by edge: what a device on the wire saw, and what the caller was told.
#include "tests/processors.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <optional>

namespace fixture {

namespace {

using At = SlaveFault::At;
using Line = LineFault::Line;

// Takes everything, answers with bytes that count up.
class Recorder : public I2cSlave {
public:
    Recorder(Net &sda, Net &scl) : I2cSlave(sda, scl, "recorder") {}
    unsigned sub_addresses = 0;
    std::uint8_t next_reply = 0;

private:
    bool addressed(std::uint8_t address) override { return (address & 0xFE) == 0x30; }
    bool written(std::uint8_t) override { return true; }
    std::uint8_t next() override { return next_reply++; }
    void ended(bool) override {}
    unsigned sub_address_bytes() const override { return sub_addresses; }
};

struct Conversation {
    const char *name, *routine;
    unsigned address;
    std::optional<unsigned> sub;
    unsigned count; // bytes A1 A2 A3 ... to write, or to read
    const char *wire;
    unsigned result, counted;
    std::vector<SlaveFault> device = {};
    std::vector<LineFault> lines = {};
    std::uint8_t reply = 0xF1; // the first one, the next counts up
};

// SCL falls once after the start and once after each bit: the 9 clocks of the first byte follow falls 1 to 9, those of
// the second falls 10 to 18, and so on; the stop's rise follows the last fall of all.
const Conversation kConversations[] = {
    {"write", "TWIWrite", 0x31, {}, 2, "S 30+ A1+ A2+ P", 0, 2},
    {"write nothing", "TWIWrite", 0x30, {}, 0, "S 30+ P", 0, 0},
    {"write, sub-address of 1", "TWIWriteSub1", 0x30, 0xAB, 1, "S 30+ AB+ A1+ P", 0, 1},
    {"write, sub-address of 2", "TWIWriteSub2", 0x30, 0xABCD, 1, "S 30+ AB+ CD+ A1+ P", 0, 1},
    {"write, sub-address of 3", "TWIWriteSub3", 0x30, 0x12ABCD, 1, "S 30+ 12+ AB+ CD+ A1+ P", 0, 1},
    {"read", "TWIRead", 0x30, {}, 3, "S 31+ F1+ F2+ F3- P", 0, 3},
    {"read nothing", "TWIRead", 0x30, {}, 0, "S 31+ P", 0, 0},
    // The device is about to send zeros: it holds SDA, and is clocked on to its first 1.
    {"read nothing, bits due", "TWIRead", 0x30, {}, 0, "S 31+", 0, 0, {}, {}, 0x11},
    {"read, sub-address of 1", "TWIReadSub1", 0x30, 0xAB, 2, "S 30+ AB+ Sr 31+ F1+ F2- P", 0, 2},
    {"read, sub-address of 2", "TWIReadSub2", 0x31, 0xABCD, 1, "S 30+ AB+ CD+ Sr 31+ F1- P", 0, 1},
    {"read, sub-address of 3", "TWIReadSub3", 0x30, 0x12ABCD, 1, "S 30+ 12+ AB+ CD+ Sr 31+ F1- P", 0, 1},

    {"nobody there", "TWIWrite", 0x52, {}, 2, "S 52-", 5, 2},
    {"nobody to read", "TWIRead", 0x52, {}, 2, "S 53-", 5, 2},
    // The data follows, but one bit late: the refusal left SCL high, and its fall is a clock more.
    {"sub-address of 1 refused", "TWIWriteSub1", 0x30, 0xAB, 1, "S 30+ AB- D0+", 7, 1, {{At::sub_address}}},
    {"sub-address of 2 refused", "TWIWriteSub2", 0x30, 0xABCD, 1, "S 30+ AB+ CD-", 6, 1, {{At::sub_address, 1}}},
    {"sub-address of 3 refused", "TWIWriteSub3", 0x30, 0x12ABCD, 1, "S 30+ 12-", 6, 1, {{At::sub_address}}},
    {"sub-address to read refused", "TWIReadSub1", 0x30, 0xAB, 1, "S 30+ AB-", 6, 1, {{At::sub_address}}},
    {"read address refused", "TWIReadSub1", 0x30, 0xAB, 1, "S 30+ AB+ Sr 31-", 5, 1, {{At::address, 1}}},
    {"data refused", "TWIWrite", 0x30, {}, 3, "S 30+ A1+ A2-", 7, 3, {{At::data, 1}}},
    {"data after sub-address refused", "TWIWriteSub1", 0x30, 0xAB, 1, "S 30+ AB+ A1-", 7, 1, {{At::data}}},

    {"SCL held", "TWIWrite", 0x30, {}, 1, "", 3, 1, {}, {{Line::scl}}},
    {"SCL held at repeated start", "TWIReadSub1", 0x30, 0xAB, 1, "S 30+ AB+", 3, 1, {}, {{Line::scl, 19}}},
    {"first bit stretched", "TWIWrite", 0x30, {}, 1, "S 30+ A1+ P", 0, 1, {}, {{Line::scl, 1, 100}}},
    {"first bit too long", "TWIWrite", 0x30, {}, 1, "S", 2, 1, {}, {{Line::scl, 1, 101}}},
    {"acknowledge stretched", "TWIWrite", 0x30, {}, 1, "S 30+ A1+ P", 0, 1, {}, {{Line::scl, 9, 100}}},
    {"acknowledge too long", "TWIWrite", 0x30, {}, 1, "S 30", 2, 1, {}, {{Line::scl, 9, 101}}},
    {"stop stretched", "TWIWrite", 0x30, {}, 1, "S 30+ A1+ P", 0, 1, {}, {{Line::scl, 19, 100}}},
    {"stop too long", "TWIWrite", 0x30, {}, 1, "S 30+ A1+", 4, 1, {}, {{Line::scl, 19, 101}}},
    // The byte is lost after 101 readings, and the stop waits for the rest.
    {"read bit too long", "TWIRead", 0x30, {}, 2, "S 31+ (2) P", 0, 0, {}, {{Line::scl, 12, 150}}},
    {"own acknowledge too long", "TWIRead", 0x30, {}, 3, "S 31+ F1 (8) P", 0, 1, {}, {{Line::scl, 18, 150}}},
    {"read held for good", "TWIRead", 0x30, {}, 2, "S 31+ F1+", 4, 1, {}, {{Line::scl, 21}}},

    // The stop's own rise is the first clock; recovery clocks follow: the 101st still helps.
    {"SDA held for 101 clocks", "TWIWrite", 0x30, {}, 1, "S 30+ A1+", 0, 1, {}, {{Line::sda, 19, 101}}},
    {"SDA held for 102 clocks", "TWIWrite", 0x30, {}, 1, "S 30+ A1+", 1, 1, {}, {{Line::sda, 19, 102}}},
    {"both held", "TWIWrite", 0x30, {}, 1, "S 30+ A1+", 1, 1, {}, {{Line::sda, 19}, {Line::scl, 20}}},
};

class TwoWireBus : public OnBoard {
protected:
    Net &sda = started.board().net('B', 4);
    Net &scl = started.board().net('B', 5);
    I2cMonitor monitor{sda, scl};
    Recorder device{sda, scl};

    // Idle lines: nine clocks with SDA high end whatever a device was about to say; the first stop may meet its last
    // acknowledge.
    void begin_again() {
        started.board().two_wire_trouble.clear();
        device.clear_faults();
        for (int clock = 0; clock < 9; ++clock) started.call("I2C_SendNack");
        for (int stop = 0; stop < 2; ++stop) started.call("I2C_Stop");
        monitor.take();
    }
    // The register accesses of a call, natively with the units waited for before them: "CODR=20 d1 PER=20 PDSR ".
    template <typename... Arguments> std::string accesses(const char *routine, Arguments... arguments) {
        constexpr Picoseconds kUnit = 300 * kNanosecond;
        std::string text;
        Picoseconds last = started.board().clock.now();
        const auto wait = [&] {
            const Picoseconds units = (started.board().clock.now() - last) / kUnit;
            if (units > 0 && GetParam() == Processor::host) text += fmt::format("d{} ", units);
            last = started.board().clock.now();
        };
        started.board().bus.observer = [&](const BusAccess &access) {
            wait();
            const std::string name = started.board().bus.name_of(access.address);
            if (!name.starts_with("PIOB.")) return;
            text += name.substr(5) + (access.is_write ? fmt::format("={:X} ", access.value) : " ");
        };
        started.call(routine, arguments...);
        wait();
        started.board().bus.observer = nullptr;
        return text;
    }
};

TEST_P(TwoWireBus, Conversations) {
    const std::uint32_t data = started.scratch(16);
    const std::uint32_t count = started.scratch(2);
    for (const Conversation &c : kConversations) {
        SCOPED_TRACE(c.name);
        begin_again();
        const std::string routine = c.routine;
        const bool reads = routine.starts_with("TWIRead");
        device.next_reply = c.reply;
        device.sub_addresses = std::isdigit(routine.back()) ? static_cast<unsigned>(routine.back() - '0') : 0;
        for (unsigned i = 0; i < 16; ++i) started.at(data)[i] = reads ? 0xEE : static_cast<std::uint8_t>(0xA1 + i);
        started.at(count)[0] = static_cast<std::uint8_t>(c.count);
        started.at(count)[1] = 0;
        for (const SlaveFault &fault : c.device) device.inject(fault);
        for (const LineFault &fault : c.lines) started.board().two_wire_trouble.inject(fault);

        EXPECT_EQ(c.sub ? started.call(c.routine, c.address, *c.sub, data, count)
                        : started.call(c.routine, c.address, data, count),
                  c.result);
        EXPECT_EQ(started.at(count)[0], c.counted);
        std::string wire = monitor.take();
        while (wire.ends_with(" 00+")) wire.resize(wire.size() - 4); // the clocks of a recovery look like bytes
        EXPECT_EQ(wire, c.wire);
        const unsigned stored = reads && c.result != 5 && c.result != 6 && c.result != 3 ? c.counted : 0;
        for (unsigned i = 0; reads && i < 16; ++i)
            EXPECT_EQ(started.at(data)[i], i < stored ? c.reply + i : 0xEE) << "byte " << i;
    }
    EXPECT_TRUE(started.board().journal.violations().empty());
}

// A failed transaction leaves the bus so that the next one works.
TEST_P(TwoWireBus, GoesOnAfterAFailure) {
    for (const LineFault &fault : {LineFault{Line::scl, 4, 101}, LineFault{Line::scl, 19, 101},
                                   LineFault{Line::sda, 19, 150}, LineFault{Line::scl, 14, 101}}) {
        begin_again();
        started.board().two_wire_trouble.inject(fault);
        const std::uint32_t data = started.scratch_text("ab");
        const std::uint32_t count = started.scratch_text("\1");
        EXPECT_NE(started.call("TWIWrite", 0x30, data, count), 0u);
        started.board().two_wire_trouble.clear();
        monitor.take();
        EXPECT_EQ(started.call("TWIWrite", 0x30, data, count), 0u);
        EXPECT_THAT(monitor.take(), testing::EndsWith("30+ 61+ P"));
    }
}

// Lines are pulled low or let go, never driven high; levels are read from released lines.
TEST_P(TwoWireBus, RegisterSequences) {
    EXPECT_EQ(accesses("I2C_GetSCL"), "ODR=20 PER=20 PDSR ");
    EXPECT_EQ(accesses("I2C_GetSDA"), "ODR=10 PER=10 PDSR ");
    EXPECT_EQ(accesses("I2C_SetSCL", 0), "CODR=20 PER=20 OER=20 CODR=20 ");
    EXPECT_EQ(accesses("I2C_SetSDA", 0), "CODR=10 PER=10 OER=10 CODR=10 ");
    EXPECT_EQ(accesses("TWIInit"), "ODR=20 PER=20 ODR=10 PER=10 ");
    started.call("I2C_SetSCL", 0);
    EXPECT_EQ(started.call("SCLSTAT"), 0u);
    EXPECT_EQ(started.call("I2C_GetSCL"), 1u);
    EXPECT_EQ(started.call("SCLSTAT"), 0x20u);
    EXPECT_EQ(started.call("SDASTAT"), 0x10u);

    started.board().two_wire_trouble.inject({Line::scl});
    EXPECT_EQ(accesses("I2C_Start"), "ODR=20 PER=20 PDSR ") << "a busy bus: SDA is left alone";
}

TEST_P(TwoWireBus, WaitsBetweenEdges) {
    if (GetParam() == Processor::arm) return; // there the accesses take a share of each wait
    const std::string scl1 = "ODR=20 PER=20 ", scl0 = "CODR=20 PER=20 OER=20 CODR=20 ";
    const std::string sda1 = "ODR=10 PER=10 ", sda0 = "CODR=10 PER=10 OER=10 CODR=10 ";
    const std::string up = scl1 + "PDSR ", end = "d1 " + scl0 + "d1 ";
    const auto bit = [&](const std::string &data) { return "d1 " + scl0 + "d1 " + data + "d1 " + scl1 + "d1 " + up; };
    EXPECT_EQ(accesses("I2C_Start"), up + "d1 " + sda1 + "d1 " + scl1 + "d1 " + sda0 + "d20 " + scl0);
    EXPECT_EQ(accesses("I2C_WriteBit", 1), bit(sda1) + end);
    EXPECT_EQ(accesses("I2C_WriteBit", 0), bit(sda0) + end);
    EXPECT_EQ(accesses("I2C_ReadBit", started.scratch(4)), bit(sda1) + "d1 " + sda1 + "PDSR " + scl0 + "d1 ");
    EXPECT_EQ(accesses("I2C_Stop"), "d1 " + scl0 + "d1 " + sda0 + "d1 " + scl1 + up + "d20 " + sda1 + sda1 + "PDSR ");
}

TEST_P(TwoWireBus, DelayTakesTime) {
    const auto time_of = [this](unsigned units) {
        const Picoseconds before = started.board().clock.now();
        started.call("I2C_Delay", units);
        return started.board().clock.now() - before;
    };
    const Picoseconds nothing = time_of(0), twenty = time_of(20) - nothing;
    EXPECT_GT(twenty, 200 * 10 * kNanosecond);
    EXPECT_NEAR(static_cast<double>(time_of(200) - nothing), 10.0 * static_cast<double>(twenty), 1e6);
}

BOTH_PROCESSORS(TwoWireBus);

} // namespace

} // namespace fixture
