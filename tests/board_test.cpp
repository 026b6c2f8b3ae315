// The board around the bootloader: keys, the watchdog, waits that can never end.
#include "bench.h"

using namespace fixture;

namespace {

TEST(Board, ResetsNeedTheirKey) {
    Chips chips;
    Board board(chips, {});
    int resets = 0;
    board.reset_controller.processor_reset = [&] { resets++; };
    board.bus.write(0xFFFFFD00, 4, 0x5A000001);
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(board.journal.violations().size(), 1u);
    board.bus.write(0xFFFFFD00, 4, 0xA5000001);
    EXPECT_EQ(resets, 1);
}

class Boots : public testing::TestWithParam<Processor> {};
BOTH_PROCESSORS(Boots);

TEST_P(Boots, EndInAVerdict) {
    struct Case {
        const char *name;
        std::optional<Picoseconds> watchdog;
        bool nand_stays_busy;
        Verdict verdict;
        const char *place;
    };
    const Case cases[] = {
        {"no watchdog", {}, false, Verdict::idle, ""},
        {"patient watchdog", 16 * kSecond, false, Verdict::idle, ""},
        {"impatient watchdog", 100 * kMillisecond, false, Verdict::reset_loop, ""},
        {"busy chip", {}, true, Verdict::hang, "PIOA.PDSR"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Chips chips;
        if (c.nand_stays_busy)
            chips.nand.faults.push_back({.kind = NandFault::stays_busy, .times = NandFault::kForever});
        BootCase boot;
        boot.processor = GetParam();
        boot.chips = &chips;
        boot.board.straps.pins_12_13 = true; // the rescue image is looked for in NAND
        boot.board.watchdog = c.watchdog;
        boot.most_resets = 2;
        const RunReport report = RunBoot(boot).report;
        EXPECT_EQ(VerdictName(report.verdict), std::string(VerdictName(c.verdict))) << report.place;
        EXPECT_EQ(report.place, c.place);
    }
}

} // namespace
