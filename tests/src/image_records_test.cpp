// The image records and their texts, the boot straps and the reset: what can be tried routine by routine.
#include "tests/processors.h"

#include <at91sam9263.h>
#include <fmt/format.h>

namespace fixture {

namespace {

class Records : public OnBoard {
protected:
    // A field of a record, by the routine that returns its address.
    std::string field(const std::string &routine, std::size_t bytes) { return {given(call(routine)), bytes}; }
};
BOTH_PROCESSORS(Records);

TEST_P(Records, HoldTextsOfTheirFieldsAndNoMore) {
    const std::tuple<const char *, const char *, std::size_t, std::size_t> rows[] = {
        {"App", "PathFilename", 256, 256}, {"Rescue", "PathFilename", 256, 256}, {"Boot", "PathFilename", 256, 255},
        {"Rescue", "Version", 16, 16},     {"Boot", "Version", 16, 16},
    };
    for (const auto &[of, field_name, bytes, longest] : rows) {
        const std::string module = of, get = module + "_Get" + field_name, set_text = module + "_Set" + field_name;
        call(module + "_Init");
        for (const std::size_t length : {bytes + 50, bytes, bytes - 1, std::size_t{3}, std::size_t{0}}) {
            const std::string text(length, static_cast<char>('a' + length % 26));
            std::string kept = text.substr(0, longest);
            kept.resize(bytes);
            call_with(set_text, text);
            EXPECT_EQ(field(get, bytes), kept) << set_text << ' ' << length;
            // Whoever reads the path as a text finds its end.
            EXPECT_TRUE(bytes != 256 || field(get, longest + 1).back() == '\0') << get;
        }
        call_with(set_text, "left over");
        for (const char *number : {"_SetSize", "_SetCheckSum"}) call(module + number, 0xF0000001);
        call(module + "_Init");
        EXPECT_EQ(field(get, bytes), std::string(bytes, '\0')) << get;
        EXPECT_EQ(call(module + "_GetSize") | call(module + "_GetCheckSum"), 0) << module;
    }
}

// Every access of the strap test, in its order, and what it makes of each board.
TEST_P(Records, FindTheStraps) {
    const std::tuple<Straps, std::uint32_t, const char *> rows[] = {
        // the accesses from the first reading on
        {{}, 0, "PDSR PDSR"},
        {{.pins_12_13 = true}, 1, "PDSR SODR=2000 PDSR PDSR"},
        {{.pins_14_18 = true}, 2, "PDSR PDSR SODR=40000 PDSR"},
        {{.pins_12_13 = true, .pins_14_18 = true}, 3, "PDSR SODR=2000 PDSR PDSR SODR=40000 PDSR"},
        {{.pin_12_low = true}, 0, "PDSR SODR=2000 PDSR PDSR"},
    };
    const auto name = [](std::uint32_t address) -> std::string {
        if (address == SPI1.CR().address) return "SPI1";
        if (address == PIOB.PDSR().address) return "PDSR";
        if (address == PIOB.SODR().address) return "SODR";
        return fmt::format("{:X}", address & 0xFF);
    };
    for (const auto &[straps, found, ends] : rows) {
        BoardOptions board;
        board.straps = straps;
        StartedBoard fresh(GetParam(), board);
        std::string log;
        fresh.board().bus.observer = [&](const BusAccess &access) {
            log += ' ' + name(access.address) + (access.is_write ? fmt::format("={:X}", access.value) : "");
        };
        EXPECT_EQ(fresh.call("GetHardwarePinConfig"), found);
        EXPECT_EQ(log, std::string(" SPI1=2 44=47000 60=FFFFAFFF 64=5000 14=5000 0=5000 0=42000 10=42000 10=42000 "
                                   "0=47000 34=42000 ") +
                           ends);
        EXPECT_EQ(stored<std::uint32_t>(fresh.object("nandBoot")), found != 0 ? 1u : 0u)
            << "as the flash layer's call before main left it";
    }
}

TEST_P(Records, ResetTheProcessorAlone) {
    for (const char *routine : {"App_Reset", "Rescue_Reset", "Boot_Reset"}) {
        StartedBoard fresh(GetParam());
        std::vector<std::uint32_t> written;
        fresh.board().bus.observer = [&](const BusAccess &access) {
            if (access.is_write) written.insert(written.end(), {access.address, access.value});
        };
        std::uint32_t result = 0;
        EXPECT_EQ(fresh.try_call(routine, {}, result).end, StageEnd::reset) << routine;
        const std::vector<std::uint32_t> expected = {RSTC.MR().address, 0xA5000001, RSTC.CR().address, 0xA5000001};
        EXPECT_EQ(written, expected) << routine;
    }
}

} // namespace

} // namespace fixture
