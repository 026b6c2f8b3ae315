// The link to the user-interface controller: frames on the wire, what the caller is told.
#include "tests/processors.h"

namespace fixture {

namespace {

using At = SlaveFault::At;

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
    {"reply held for good", true, 0x63, 2, 4, nullptr, {}, {}, {{LineFault::Line::scl, 48}}},
    {"request refused", true, 0x63, 2, 7, "S 20+ 63+ 9D-", {}, {{At::data, 1}}},
    {"no reply", true, 0x63, 2, 5, "S 20+ 63+ 9D+ P S 21-", {}, {{At::address, 1}}},

    {"no data", false, 0x05, 0, 0, "S 20+ 05+ FB+ P"},
    {"longest write", false, 0x60, 14, 0, "S 20+ 60+ 64+ 01+ 02+ 03+ 04+ 05+ 06+ 07+ 08+ 09+ 0A+ 0B+ 0C+ 0D+ E1+ P"},
    {"write too long", false, 0x60, 15, 1, ""},
    {"data refused", false, 0x60, 1, 7, "S 20+ 60-", {}, {{At::data}}},
};

class UiLink : public OnBoard {
protected:
    UiController &ui = started.board().ui;
    LineTrouble &trouble = started.board().two_wire_trouble;
    I2cMonitor monitor{started.board().net('B', 4), started.board().net('B', 5)};
};

TEST_P(UiLink, Exchanges) {
    const std::uint32_t data = started.scratch(32);
    const std::uint32_t length = started.scratch(2);
    ui.starting_time = 0;
    for (const Exchange &x : kExchanges) {
        SCOPED_TRACE(x.name);
        trouble.clear();
        ui.clear_faults();
        ui.state = UiState{};
        for (int i = 0; i < 9; ++i) started.call("I2C_SendNack");
        for (int i = 0; i < 2; ++i) started.call("I2C_Stop");
        monitor.take();
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
        trouble.inject({LineFault::Line::scl, 57, 150});
        ASSERT_EQ(started.call("uiReadCmd", 0x63, data, length), 1u) << flip;
    }
    EXPECT_EQ(started.call("checkCheckSum", length, 1, 1), 1u);
}

BOTH_PROCESSORS(UiLink);

} // namespace

} // namespace fixture
