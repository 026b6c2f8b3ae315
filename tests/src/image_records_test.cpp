// The image records and their texts, the boot straps, the reset and the pins: what can be tried routine by routine.
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

// Every access of the strap test, in its order, what it makes of each board, and what the file system is then told of
// the NAND: from which address and block on it is free, and the device's name.
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
        const bool strapped = found != 0;
        EXPECT_EQ(stored<std::uint32_t>(fresh.object("nandBoot")), strapped) << "as the call before main left it";
        const std::uint32_t count = fresh.scratch(4);
        const char *const range = given(fresh.call("User_GetFlashDeviceRanges", count), &fresh);
        using Words = std::array<std::uint32_t, 5>;
        EXPECT_EQ(stored<Words>(range), (Words{strapped ? 0x01000000u : 0, strapped ? 128u : 0, 0xFFFFFFFF, 2, 0}));
        EXPECT_EQ(*fresh.at(count), 1);
        const std::size_t name_at = GetParam() == Processor::arm ? 20 : 24;
        EXPECT_STREQ(given(stored<std::uint32_t>(range + name_at), &fresh), "K9Fx NAND Flash Chip");
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

// Which registers a table of pins writes, in which order. The NAND driver's tests have a pulled-up input.
struct Pin {
    std::uint32_t pin, value, attribute, kind;
};

class PinSetup : public OnBoard {
protected:
    // Places a table in SDRAM as the processor lays it out, with a pointer to the name before each pin.
    std::uint32_t place(const std::vector<Pin> &pins) {
        const std::uint32_t pointer = GetParam() == Processor::arm ? 4 : sizeof(void *), entry = pointer + sizeof(Pin);
        const std::uint32_t table = started.scratch((pins.size() + 1) * entry), name = started.scratch_text("PIN");
        std::memset(started.at(table), 0, (pins.size() + 1) * entry);
        for (std::uint32_t n = 0; n < pins.size(); ++n) {
            store(table + n * entry, name);
            store(table + n * entry + pointer, pins[n]);
        }
        return table;
    }
};
BOTH_PROCESSORS(PinSetup);

TEST_P(PinSetup, WritesTheRegistersOfEachPin) {
    const std::tuple<std::vector<Pin>, int, const char *> rows[] = {
        {{}, 0, ""},
        {{{159, 7, 4, 3}, {32, 0, 2, 2}, {64, 1, 1, 0}, {65, 1, 6, 1}},
         4,
         "PIOE.MDER=80000000 PIOE.IDR=80000000 PIOE.PUDR=80000000 PIOE.SODR=80000000 PIOE.OER=80000000 "
         "PIOE.PER=80000000 PIOB.IFER=1 PIOB.IDR=1 PIOB.PUDR=1 PIOB.ODR=1 PIOB.PER=1 "
         "PIOC.IDR=1 PIOC.PUER=1 PIOC.ASR=1 PIOC.PDR=1 PIOC.IDR=2 PIOC.PUDR=2 PIOC.BSR=2 PIOC.PDR=2 "},
        {{{64, 0, 0, 0}, {65, 0, 0, 4}, {66, 0, 0, 0}}, 0, "PIOC.IDR=1 PIOC.PUDR=1 PIOC.ASR=1 PIOC.PDR=1 "},
        {{{160 * 32, 0, 0, 0}, {64, 0, 0, 0}}, 0, ""},
        {{{0xFFFFFFFF, 0, 0, 3}}, 0, ""},
    };
    std::string writes;
    started.board().bus.observer = [&](const BusAccess &access) {
        if (access.is_write)
            writes += fmt::format("{}={:X} ", started.board().bus.name_of(access.address), access.value);
    };
    for (const auto &[pins, result, expected] : rows) {
        writes.clear();
        EXPECT_EQ(call("pio_setup", place(pins)), result);
        EXPECT_EQ(writes, expected);
    }
    EXPECT_EQ(call("pio_setup", 0), 0) << "no table";
    EXPECT_EQ(writes, "");
    // Controllers that the chip does not have are not refused; the tenth's registers would lie at the address 0.
    started.board().bus.unmapped = [&](std::uint32_t address, bool) { writes += fmt::format("{:08X} ", address); };
    if (GetParam() == Processor::arm) return; // there this ends in a data abort
    EXPECT_EQ(call("pio_setup", place({{159 * 32, 0, 0, 0}})), 1);
    EXPECT_EQ(writes, "00013044 00013060 00013070 00013004 ");
}

} // namespace

} // namespace fixture
