// The software two-wire bus, edge by edge, and the link on it: what a device on the wire saw, and what the caller was
// told.
#include "tests/processors.h"

#include <fmt/format.h>
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

class TwoWire : public OnBoard {
protected:
    LineTrouble &trouble = started.board().two_wire_trouble;
    Net &sda = started.board().net('B', 4);
    Net &scl = started.board().net('B', 5);
    I2cMonitor monitor{sda, scl};

    // Idle lines: nine clocks with SDA high end whatever a device was about to say; the first stop may meet its last
    // acknowledge.
    void begin_again(I2cSlave &device) {
        trouble.clear();
        device.clear_faults();
        for (int clock = 0; clock < 9; ++clock) started.call("I2C_SendNack");
        for (int stop = 0; stop < 2; ++stop) started.call("I2C_Stop");
        monitor.take();
    }
};

class TwoWireBus : public TwoWire {
protected:
    Recorder device{sda, scl};

    // The register accesses of a call, with the units waited for before them: "CODR=20 d1 PER=20 PDSR ".
    template <typename... Arguments> std::string accesses(const char *routine, Arguments... arguments) {
        constexpr Picoseconds kUnit = 300 * kNanosecond;
        std::string text;
        Picoseconds last = started.board().clock.now();
        const auto wait = [&] {
            const Picoseconds units = (started.board().clock.now() - last) / kUnit;
            if (units > 0) text += fmt::format("d{} ", units);
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
        begin_again(device);
        const std::string routine = c.routine;
        const bool reads = routine.starts_with("TWIRead");
        device.next_reply = c.reply;
        device.sub_addresses = std::isdigit(routine.back()) ? static_cast<unsigned>(routine.back() - '0') : 0;
        for (unsigned i = 0; i < 16; ++i) started.at(data)[i] = reads ? 0xEE : static_cast<std::uint8_t>(0xA1 + i);
        started.at(count)[0] = static_cast<std::uint8_t>(c.count);
        started.at(count)[1] = 0;
        for (const SlaveFault &fault : c.device) device.inject(fault);
        for (const LineFault &fault : c.lines) trouble.inject(fault);

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

// Lines are pulled low or let go, never driven high; levels are read from released lines.
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

BOTH_PROCESSORS(TwoWireBus);

// The link to the user-interface controller: frames on the wire, what the caller is told.

struct Exchange {
    const char *name;
    bool reads;
    unsigned command, length;
    std::uint32_t result;
    const char *wire; // null: not looked at
    std::vector<std::uint8_t> reply = {};
    std::vector<SlaveFault> device = {};
    std::vector<LineFault> lines = {};
};

const std::vector<std::uint8_t> kLongestReply = {0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                                 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// Data to write: 64 01 02 ... The controller is asleep, its backlight at level 0, so that a reply is 00 00 and 00.
const Exchange kExchanges[] = {
    {"ask", true, 0x63, 2, 0, "S 20+ 63+ 9D+ P S 21+ 00+ 00+ 00- P", {0, 0}},
    {"reply of no byte", true, 0x01, 0, 0, "S 20+ 01+ FF+ P S 21+ 00- P", {}},
    // The controller has less to say: FF follow, the last one made into a checksum.
    {"longest reply", true, 0x01, 16, 0, nullptr, kLongestReply, {{At::reply, 16, 1, 0xFF ^ 13}}},
    {"no checksum after it", true, 0x01, 16, 1, nullptr},
    {"reply too long", true, 0x01, 17, 1, ""},
    {"bad reply", true, 0x63, 2, 1, "S 20+ 63+ 9D+ P S 21+ 00+ 01+ 00- P", {}, {{At::reply, 1, 1, 0x01}}},
    {"bad checksum", true, 0x63, 2, 1, "S 20+ 63+ 9D+ P S 21+ 00+ 00+ 80- P", {}, {{At::reply, 2, 1, 0x80}}},
    {"other bytes, good sum", true, 0x63, 2, 0, nullptr, {1, 0xFF}, {{At::reply, 0, 1, 0x01}, {At::reply, 1, 1}}},
    {"reply held for good", true, 0x63, 2, 4, nullptr, {}, {}, {{Line::scl, 48}}},
    {"request refused", true, 0x63, 2, 7, "S 20+ 63+ 9D-", {}, {{At::data, 1}}},
    {"no reply", true, 0x63, 2, 5, "S 20+ 63+ 9D+ P S 21-", {}, {{At::address, 1}}},

    {"no data", false, 0x05, 0, 0, "S 20+ 05+ FB+ P"},
    {"longest write", false, 0x60, 14, 0, "S 20+ 60+ 64+ 01+ 02+ 03+ 04+ 05+ 06+ 07+ 08+ 09+ 0A+ 0B+ 0C+ 0D+ E1+ P"},
    {"write too long", false, 0x60, 15, 1, ""},
    {"data refused", false, 0x60, 1, 7, "S 20+ 60-", {}, {{At::data}}},
};

class UiLink : public TwoWire {
protected:
    UiController &ui = started.board().ui;
};

TEST_P(UiLink, Exchanges) {
    const std::uint32_t data = started.scratch(32);
    const std::uint32_t length = started.scratch(2);
    ui.starting_time = 0;
    for (const Exchange &x : kExchanges) {
        SCOPED_TRACE(x.name);
        ui.state = UiState{};
        begin_again(ui);
        for (unsigned i = 0; i < 32; ++i) started.at(data)[i] = static_cast<std::uint8_t>(i == 0 ? 0x64 : i);
        std::vector<std::uint8_t> expected(started.at(data), started.at(data) + 32);
        std::copy(x.reply.begin(), x.reply.end(), expected.begin());
        started.at(length)[0] = static_cast<std::uint8_t>(x.length);
        started.at(length)[1] = 0;
        for (const SlaveFault &fault : x.device) ui.inject(fault);
        for (const LineFault &fault : x.lines) trouble.inject(fault);

        const Picoseconds before = started.board().clock.now();
        const std::uint32_t buffer = x.reads || x.length != 0 ? data : 0; // no data need no place
        EXPECT_EQ(started.call(x.reads ? "uiReadCmd" : "uiWriteCmd", x.command, buffer, length), x.result);
        EXPECT_GE(started.board().clock.now() - before, 5 * kMillisecond) << "every call ends with a pause";
        const std::string wire = monitor.take();
        EXPECT_EQ(wire, x.wire ? x.wire : wire);
        EXPECT_EQ(std::vector<std::uint8_t>(started.at(data), started.at(data) + 32), expected);
        EXPECT_EQ(started.at(length)[0], x.length);
    }
}

// Without its last byte a reply is no reply, whatever lies in memory where the checksum would be.
TEST_P(UiLink, ReplyWithoutChecksum) {
    const std::uint32_t data = started.scratch(2);
    const std::uint32_t length = started.scratch_text(std::string("\2\0", 2));
    for (unsigned flip = 0; flip < 256; ++flip) {
        ui.inject({At::reply, 0, 1, static_cast<std::uint8_t>(flip)});
        trouble.inject({Line::scl, 57, 150});
        ASSERT_EQ(started.call("uiReadCmd", 0x63, data, length), 1u) << flip;
    }
    EXPECT_EQ(started.call("checkCheckSum", length, 1, 1), 1u);
}

BOTH_PROCESSORS(UiLink);

} // namespace

} // namespace fixture
