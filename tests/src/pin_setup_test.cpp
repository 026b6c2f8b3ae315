// Pin set-up: which registers a table of pins writes, in which order. The NAND driver's tests have a pulled-up input.
#include "tests/processors.h"

#include <fmt/format.h>

namespace fixture {

namespace {

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
