// The image records and their texts, the boot straps and the reset: what can be tried routine by routine.
#include "tests/processors.h"

#include <at91sam9263.h>
#include <cstring>
#include <fmt/format.h>

namespace fixture {

namespace {

class Records : public testing::TestWithParam<Processor> {
protected:
    std::uint32_t call(const std::string &routine) { return running.call(routine.c_str()); }
    void set(const std::string &routine, const std::string &text) {
        running.call(routine.c_str(), running.scratch_text(text));
    }
    // A field of a record, by the routine that returns its address.
    std::string field(const std::string &routine, std::size_t bytes) {
        const std::uint32_t address = call(routine);
        const void *const place = GetParam() == Processor::arm
                                      ? running.at(address)
                                      : reinterpret_cast<const void *>(std::uintptr_t{address});
        return {static_cast<const char *>(place), bytes};
    }

    StartedBoard running{GetParam()};
};
BOTH_PROCESSORS(Records);

TEST_P(Records, HoldTextsOfTheirFieldsAndNoMore) {
    const struct {
        const char *module, *text;
        std::size_t bytes, longest;
    } rows[] = {
        {"App", "PathFilename", 256, 256}, {"Rescue", "PathFilename", 256, 256}, {"Boot", "PathFilename", 256, 255},
        {"Rescue", "Version", 16, 16},     {"Boot", "Version", 16, 16},
    };
    for (const auto &row : rows) {
        const std::string module = row.module, get = module + "_Get" + row.text, set_text = module + "_Set" + row.text;
        call(module + "_Init");
        for (const std::size_t length : {row.bytes + 50, row.bytes, row.bytes - 1, std::size_t{3}, std::size_t{0}}) {
            const std::string text(length, static_cast<char>('a' + length % 26));
            std::string kept = text.substr(0, row.longest);
            kept.resize(row.bytes);
            set(set_text, text);
            EXPECT_EQ(field(get, row.bytes), kept) << set_text << ' ' << length;
            // Whoever reads the path as a text finds its end.
            EXPECT_TRUE(row.bytes != 256 || field(get, row.longest + 1).back() == '\0') << get;
        }
        set(set_text, "left over");
        for (const char *number : {"_SetSize", "_SetCheckSum"}) running.call((module + number).c_str(), 0xF0000001);
        call(module + "_Init");
        EXPECT_EQ(field(get, row.bytes), std::string(row.bytes, '\0')) << get;
        EXPECT_EQ(call(module + "_GetSize") | call(module + "_GetCheckSum"), 0u) << module;
    }
}

// Every access of the strap test, in its order, and what it makes of each board.
TEST_P(Records, FindTheStraps) {
    const struct {
        Straps straps;
        std::uint32_t found;
        const char *ends; // from the first reading on
    } rows[] = {
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
    for (const auto &row : rows) {
        BoardOptions board;
        board.straps = row.straps;
        StartedBoard started(GetParam(), board);
        std::string log;
        started.board().bus.observer = [&](const BusAccess &access) {
            log += ' ' + name(access.address) + (access.is_write ? fmt::format("={:X}", access.value) : "");
        };
        EXPECT_EQ(started.call("GetHardwarePinConfig"), row.found);
        EXPECT_EQ(log, std::string(" SPI1=2 44=47000 60=FFFFAFFF 64=5000 14=5000 0=5000 0=42000 10=42000 10=42000 "
                                   "0=47000 34=42000 ") +
                           row.ends);
        std::uint32_t medium;
        std::memcpy(&medium, started.object("nandBoot"), sizeof medium);
        EXPECT_EQ(medium, row.found != 0 ? 1u : 0u) << "as the flash layer's call before main left it";
    }
}

TEST_P(Records, ResetTheProcessorAlone) {
    for (const char *routine : {"App_Reset", "Rescue_Reset", "Boot_Reset"}) {
        StartedBoard started(GetParam());
        std::vector<std::uint32_t> written;
        started.board().bus.observer = [&](const BusAccess &access) {
            if (access.is_write) written.insert(written.end(), {access.address, access.value});
        };
        std::uint32_t result = 0;
        EXPECT_EQ(started.try_call(routine, {}, result).end, StageEnd::reset) << routine;
        const std::vector<std::uint32_t> expected = {RSTC.MR().address, 0xA5000001, RSTC.CR().address, 0xA5000001};
        EXPECT_EQ(written, expected) << routine;
    }
}

} // namespace

} // namespace fixture
