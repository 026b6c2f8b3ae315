// Pin set-up: which registers a table of pins writes, in which order. The NAND driver's tests have a pulled-up input.
#include "tests/processors.h"

#include <cstring>
#include <fmt/format.h>

namespace fixture {

namespace {

struct Pin {
    std::uint32_t pin, value, attribute, kind;
};

class PinSetup : public testing::TestWithParam<Processor> {
protected:
    // Places a table in SDRAM as the processor lays it out, with a pointer to the name before each pin.
    std::uint32_t place(const std::vector<Pin> &pins) {
        const std::size_t pointer = GetParam() == Processor::arm ? 4 : sizeof(void *);
        const std::size_t bytes = (pins.size() + 1) * (pointer + sizeof(Pin));
        const std::uint32_t table = started.scratch(bytes);
        const std::uint32_t name = started.scratch_text("PIN");
        std::uint8_t *at = started.at(table);
        std::memset(at, 0, bytes);
        for (const Pin &pin : pins) {
            std::memcpy(at, &name, sizeof name);
            std::memcpy(at + pointer, &pin, sizeof pin);
            at += pointer + sizeof pin;
        }
        return table;
    }
    StartedBoard started{GetParam()};
};
BOTH_PROCESSORS(PinSetup);

TEST_P(PinSetup, WritesTheRegistersOfEachPin) {
    const struct {
        std::vector<Pin> pins;
        std::uint32_t result;
        const char *writes;
    } rows[] = {
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
    for (const auto &row : rows) {
        writes.clear();
        EXPECT_EQ(started.call("pio_setup", place(row.pins)), row.result);
        EXPECT_EQ(writes, row.writes);
    }
    writes.clear();
    EXPECT_EQ(started.call("pio_setup", 0), 0u) << "no table";
    EXPECT_EQ(writes, "");
    // Controllers that the chip does not have are not refused; the tenth's registers would lie at the address 0.
    started.board().bus.unmapped = [&](std::uint32_t address, bool) { writes += fmt::format("{:08X} ", address); };
    if (GetParam() == Processor::arm) return; // there this ends in a data abort
    EXPECT_EQ(started.call("pio_setup", place({{159 * 32, 0, 0, 0}})), 1u);
    EXPECT_EQ(writes, "00013044 00013060 00013070 00013004 ");
}

} // namespace

} // namespace fixture
