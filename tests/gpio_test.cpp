// Pin set-up: which registers a table of pins writes, in which order.
#include "bench.h"

#include <cstring>
#include <fmt/format.h>

using namespace fixture;

namespace {

struct Pin {
    std::uint32_t pin, value, attribute, kind;
};

// Places a table in SDRAM as the processor lays it out: the name is a pointer.
std::uint32_t PlaceTable(Bench &bench, Processor processor, const std::vector<Pin> &pins) {
    const std::size_t pointer = processor == Processor::arm ? 4 : sizeof(void *);
    const std::uint32_t table = bench.scratch((pins.size() + 1) * (pointer + sizeof(Pin)));
    const std::uint32_t name = bench.scratch_text("PIN");
    std::uint8_t *at = bench.at(table);
    std::memset(at, 0, (pins.size() + 1) * (pointer + sizeof(Pin)));
    for (const Pin &pin : pins) {
        std::memcpy(at, &name, sizeof name);
        std::memcpy(at + pointer, &pin, sizeof pin);
        at += pointer + sizeof pin;
    }
    return table;
}

class PinSetup : public testing::TestWithParam<Processor> {};
BOTH_PROCESSORS(PinSetup);

TEST_P(PinSetup, WritesTheRegistersOfEachPin) {
    struct Row {
        std::vector<Pin> pins;
        int result;
        const char *writes;
    };
    const Row rows[] = {
        {{}, 0, ""},
        {{{22, 0, 1, 2}, {111, 0, 1, 3}},
         2,
         "PIOA.IFDR=00400000 PIOA.IDR=00400000 PIOA.PUER=00400000 PIOA.ODR=00400000 PIOA.PER=00400000 "
         "PIOD.MDDR=00008000 PIOD.IDR=00008000 PIOD.PUDR=00008000 PIOD.CODR=00008000 PIOD.OER=00008000 "
         "PIOD.PER=00008000"},
        {{{159, 7, 4, 3}},
         1,
         "PIOE.MDER=80000000 PIOE.IDR=80000000 PIOE.PUDR=80000000 PIOE.SODR=80000000 PIOE.OER=80000000 "
         "PIOE.PER=80000000"},
        {{{32, 0, 2, 2}},
         1,
         "PIOB.IFER=00000001 PIOB.IDR=00000001 PIOB.PUDR=00000001 PIOB.ODR=00000001 PIOB.PER=00000001"},
        {{{64, 1, 1, 0}, {65, 1, 6, 1}},
         2,
         "PIOC.IDR=00000001 PIOC.PUER=00000001 PIOC.ASR=00000001 PIOC.PDR=00000001 "
         "PIOC.IDR=00000002 PIOC.PUDR=00000002 PIOC.BSR=00000002 PIOC.PDR=00000002"},
        {{{64, 0, 0, 0}, {65, 0, 0, 5}, {66, 0, 0, 0}},
         0,
         "PIOC.IDR=00000001 PIOC.PUDR=00000001 PIOC.ASR=00000001 PIOC.PDR=00000001"},
        {{{160 * 32, 0, 0, 0}, {64, 0, 0, 0}}, 0, ""},
        {{{0xFFFFFFFF, 0, 0, 3}}, 0, ""},
    };
    Bench bench(GetParam());
    std::string writes;
    bench.board().bus.observer = [&](const BusAccess &access) {
        if (access.is_write)
            writes += fmt::format("{}{}={:08X}", writes.empty() ? "" : " ", bench.board().bus.name_of(access.address),
                                  access.value);
    };
    for (const Row &row : rows) {
        writes.clear();
        EXPECT_EQ(static_cast<int>(bench.call("pio_setup", PlaceTable(bench, GetParam(), row.pins))), row.result);
        EXPECT_EQ(writes, row.writes);
    }
    writes.clear();
    EXPECT_EQ(bench.call("pio_setup", 0), 0u) << "no table";
    EXPECT_EQ(writes, "");
    // Controllers that the chip does not have are not refused; the tenth's registers would lie at the address 0.
    bench.board().bus.unmapped = [&](std::uint32_t address, bool) { writes += fmt::format("{:08X} ", address); };
    if (GetParam() == Processor::arm) return; // there this ends in a data abort
    EXPECT_EQ(bench.call("pio_setup", PlaceTable(bench, GetParam(), {{159 * 32, 0, 0, 0}})), 1u);
    EXPECT_EQ(writes, "00013044 00013060 00013070 00013004 ");
}

} // namespace
