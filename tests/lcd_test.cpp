// The panel's drivers on the board: what the start-up writes, what stands on the serial line, which pixels are drawn.
// Pixels are read from memory, not through the frame renderer.
#include "LCD.h"
#include "bench.h"
#include "frames.h"

#include <climits>
#include <cstring>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <memory_map.h>
#include <set>
#include <sstream>

using namespace fixture;

namespace {

constexpr std::size_t kRegionPixels = kVideoRegionSize / 2;
constexpr std::uint32_t kGuardPixels = 0x10000; // on either side of the region
constexpr std::uint16_t kPaint = 0x5AA5;        // in all pixels before a drawing

// The video region with its guards, as pixels.
using Pixels = std::vector<std::uint16_t>;

class Lcd : public testing::TestWithParam<Processor> {
protected:
    Bench bench{GetParam()};
    const std::uint32_t region = static_cast<std::uint32_t>(
        GetParam() == Processor::host ? reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer)
                                      : bench.machine().symbol("__ghsbegin_mr_rwec__videobuffer"));

    std::uint8_t *guarded() { return bench.at(region - kGuardPixels * 2); }
    Pixels painted() { return Pixels(kRegionPixels + 2 * kGuardPixels, kPaint); }
    void paint() { std::memcpy(guarded(), painted().data(), painted().size() * 2); }
    Pixels drawn() {
        Pixels pixels(kRegionPixels + 2 * kGuardPixels);
        std::memcpy(pixels.data(), guarded(), pixels.size() * 2);
        return pixels;
    }
    // The writes to the registers that belong to the panel alone, as "LCDCON1=5000" words.
    std::string writes_of(const char *routine) {
        std::string text;
        Bus &bus = bench.board().bus;
        bus.observer = [&](const BusAccess &access) {
            const std::string name = bus.name_of(access.address);
            const bool two_wire_or_serial = name.starts_with("PIOB") && access.value != 0x200;
            if (!access.is_write || two_wire_or_serial || name.starts_with("PIT")) return;
            text += fmt::format("{}={:X} ", name, access.value);
        };
        result = bench.call(routine);
        bus.observer = nullptr;
        return text;
    }
    std::uint32_t result = 0;
};
BOTH_PROCESSORS(Lcd);

// --- start-up

const std::string kClockAndPins = "PMC.PCER=4000000 PIOB.PDR=200 PIOB.BSR=200 PIOC.BSR=7BDB0 PIOC.PDR=FFFFFFF "
                                  "PIOA.PER=40000000 PIOA.OER=40000000 PIOA.CODR=40000000 ";

std::string Controller(std::uint32_t base) {
    return fmt::format("LCDC.LCDCON1=5000 LCDC.LCDCON2=80009E82 LCDC.LCDMVAL=0 LCDC.LCDTIM1=20E04 "
                       "LCDC.CONTRAST_CTR=C LCDC.LCDTIM2=2601D25 LCDC.LCDFRMCFG=27E000EF LCDC.CONTRAST_VAL=80 "
                       "LCDC.LCDFIFO=1F5 LCDC.DMABADDR1={:X} LCDC.DMAFRMCFG=3009600 LCDC.DMACON=3 ",
                       base);
}

TEST_P(Lcd, StartUpWritesRegistersInOrder) {
    bench.call("Spi_Init");
    EXPECT_EQ(writes_of("LCD_Init"), "PIOD.SODR=4000 PIOD.PER=4000 PIOD.OER=4000 " + kClockAndPins + "LCDC.PWRCON=C " +
                                         Controller(region) + "LCDC.PWRCON=D ");
    EXPECT_EQ(bench.board().panel.resets(), 0u) << "the line never went low";
    std::uint64_t pointer = 0;
    std::memcpy(&pointer, bench.object("videoregisters"), GetParam() == Processor::arm ? 4 : sizeof pointer);
    EXPECT_EQ(pointer, 0x00700800u);
    EXPECT_TRUE(bench.board().journal.violations().empty());
}

TEST_P(Lcd, BoardStartUpPowersThePanelLast) {
    EXPECT_EQ(writes_of("AT91SAM926X_InitializeLCD"), kClockAndPins + Controller(region) + "LCDC.PWRCON=D ");
    EXPECT_EQ(result, 0u);
}

// The first thing that anybody sees is the whole picture with its line and the empty bar.
TEST_P(Lcd, PictureIsCompleteBeforeItIsLit) {
    Board &board = bench.board();
    std::optional<Pixels> first;
    board.bus.observer = [&](const BusAccess &) {
        if (!first && board.picture_lit()) first = drawn();
    };
    paint();
    bench.call("Spi_Init");
    bench.call("LCD_Init");
    ASSERT_TRUE(first);
    EXPECT_EQ(*first, drawn());
    const std::uint16_t *const frame = first->data() + kGuardPixels;
    std::map<std::uint16_t, unsigned> colours;
    for (std::size_t i = 0; i < 219 * 320; i++) colours[frame[i]]++;
    EXPECT_EQ(colours.size(), 33u);
    EXPECT_EQ(colours[0x7FFF], 13317u);
    EXPECT_EQ(colours[0x037F], 1589u);
    for (std::size_t i = 219 * 320; i < 240 * 320; i++) ASSERT_EQ(frame[i], i < 220 * 320 ? 0x4210 : 0) << i;
    EXPECT_EQ(frame[240 * 320], kPaint) << "nothing behind the frame";
    EXPECT_EQ(board.ui.state, (UiState{true, true, 100}));
}

// The controller reads memory behind the data cache, so the region must be neither cached nor buffered. The processor's
// translation table is found in memory by what it says of SDRAM and of the controller itself.
TEST(LcdMemory, RegionIsUncached) {
    Bench bench(Processor::arm);
    const std::uint32_t region = bench.machine().symbol("__ghsbegin_mr_rwec__videobuffer");
    const auto entry = [&](std::uint32_t table, std::uint32_t address) {
        std::uint32_t word = 0;
        std::memcpy(&word, bench.at(table + (address >> 20) * 4), sizeof word);
        return word;
    };
    constexpr std::uint32_t kSection = 2, kCachedAndBuffered = 0xC, kTableBytes = 0x4000;
    const auto maps = [&](std::uint32_t table, std::uint32_t address) {
        return (entry(table, address) & 0xFFF00003) == (address | kSection);
    };
    std::vector<std::uint32_t> tables;
    for (std::uint32_t table = kSdramBase; table < kSdramBase + kSdramSize; table += kTableBytes)
        if (maps(table, kSdramBase) && maps(table, 0x00700000)) tables.push_back(table);
    ASSERT_EQ(tables.size(), 1u);
    const std::uint32_t megabyte = region & 0xFFF00000;
    EXPECT_GE(megabyte + 0x100000, region + kVideoRegionSize) << "one entry for all of it";
    EXPECT_TRUE(maps(tables[0], megabyte));
    EXPECT_EQ(entry(tables[0], region) & kCachedAndBuffered, 0u);
    EXPECT_EQ(entry(tables[0], kSdramBase) & kCachedAndBuffered, kCachedAndBuffered) << "other memory is cached";
}

// --- serial line

TEST_P(Lcd, SerialLineCarriesTwoTransfers) {
    bench.call("Spi_Init");
    const std::size_t before = bench.board().panel.transfers().size(); // the lines coming up may look like one
    bench.call("LCD_WriteRegister", 0x001E, 0x00DF);
    const auto transfers = std::span(bench.board().panel.transfers()).subspan(before);
    ASSERT_EQ(transfers.size(), 2u);
    EXPECT_THAT(transfers[0].bytes, testing::ElementsAre(0x70, 0x00, 0x1E));
    EXPECT_THAT(transfers[1].bytes, testing::ElementsAre(0x72, 0x00, 0xDF));
    EXPECT_THAT(bench.board().panel.registers(), testing::ElementsAre(testing::Pair(0x1E, 0xDF)));
    // 1 us before the first bit, two halves of 1 us a bit, 10 us behind each byte, 10 us between the transfers.
    for (const Panel::Transfer &t : transfers) EXPECT_GE(t.end - t.start, (1 + 3 * (16 + 10)) * kMicrosecond);
    EXPECT_GE(transfers[1].start - transfers[0].end, 10 * kMicrosecond);
}

TEST_P(Lcd, SerialRegisterWrites) {
    std::string text;
    Bus &bus = bench.board().bus;
    bus.observer = [&](const BusAccess &access) {
        const std::string name = bus.name_of(access.address);
        if (access.is_write && name.starts_with("PIO")) text += fmt::format("{}={:X} ", name.substr(3), access.value);
    };
    const auto writes = [&](const char *routine, unsigned argument = 0) {
        text.clear();
        bench.call(routine, argument);
        return text;
    };
    EXPECT_EQ(writes("Spi_Init"), "B.PER=E000 B.OER=E000 B.SODR=E000 ");
    EXPECT_EQ(writes("Spi_EnableLCD"), "B.CODR=8000 ");
    EXPECT_EQ(writes("Spi_DisableLCD"), "B.SODR=8000 ");
    EXPECT_EQ(writes("LCD_RESETSET"), "D.SODR=4000 ");
    EXPECT_EQ(writes("LCD_RESETOUTPUT"), "D.PER=4000 D.OER=4000 ");
    std::string expected;
    for (const char *data : {"S", "C", "S", "C", "C", "S", "C", "S"}) // 0xA5
        expected += fmt::format("B.{}ODR=2000 B.CODR=4000 B.SODR=4000 ", data);
    EXPECT_EQ(writes("Spi_WriteByte", 0xA5), expected);
}

// --- backlight

TEST_P(Lcd, BacklightBranches) {
    using At = SlaveFault::At;
    struct Case {
        const char *name;
        bool awake, on;
        unsigned level;
        std::vector<SlaveFault> faults; // addresses are asked for in the order of the transfers
        std::vector<std::string> log;
    };
    const Case cases[] = {
        {"asleep and dark", false, false, 100, {}, {"01", "05", "63", "62 01", "60 64"}},
        {"awake", true, false, 100, {}, {"01", "63", "62 01", "60 64"}},
        {"on already", true, true, 55, {}, {"01", "63", "60 37"}},
        {"asleep, on already", false, true, 1, {}, {"01", "05", "63", "60 01"}},
        {"too bright", true, true, 250, {}, {"01", "63", "60 64"}},
        {"far too bright", true, true, 0xFFFFFFFF, {}, {"01", "63", "60 64"}},
        {"no brightness", true, false, 0, {}, {"01", "63", "62 01", "60 00"}},
        {"first question refused", false, false, 7, {{At::address, 0}}, {"63", "bad 62 01 9D", "bad 60 07 99"}},
        {"first reply garbled", false, true, 7, {{At::reply, 2, 1, 0x01}}, {"01", "63", "bad 60 07 99"}},
        {"second question refused", true, false, 7, {{At::address, 2}}, {"01", "60 07"}},
        {"second reply garbled", true, false, 7, {{At::reply, 5, 1, 0x01}}, {"01", "63", "60 07"}},
        {"switching refused", true, false, 7, {{At::address, 4}}, {"01", "63", "60 07"}},
        {"nobody there", true, true, 7, {{At::address, 0, 9}}, {}},
    };
    UiController &ui = bench.board().ui;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ui.clear_faults();
        ui.log.clear();
        ui.state = {c.awake, c.on, 33};
        for (const SlaveFault &fault : c.faults) ui.inject(fault);
        const Picoseconds start = bench.board().clock.now();
        bench.call("LCD_SetBackLiteIntensity", c.level);
        const bool starts = std::count(c.log.begin(), c.log.end(), "05") != 0;
        EXPECT_GE(bench.board().clock.now() - start, (starts ? 400 : 100) * kMillisecond);
        EXPECT_EQ(ui.log, c.log);
    }
}

// --- drawing

// The bar by its definition, pixel by pixel, on the region with its guards.
void ExpectedLine(Pixels &pixels, std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour) {
    for (std::int32_t i = 0, count = static_cast<std::int16_t>(x1 - x0); i < count; i++) {
        const std::size_t at = std::size_t{y} * 320 + x0 + static_cast<std::size_t>(i);
        if (at < kRegionPixels) pixels[kGuardPixels + at] = colour;
    }
}

TEST_P(Lcd, BarFillsColumns) {
    bench.call("LCD_InitGraphics");
    constexpr std::pair<int, unsigned> kColumns[] = {{0, 0},    {5, 16},   {12, 38},   {25, 80}, {40, 128}, {50, 160},
                                                     {70, 224}, {99, 316}, {100, 320}, {1, 3},   {0, 0}};
    for (const auto &[percent, columns] : kColumns) {
        SCOPED_TRACE(percent);
        paint();
        bench.call("LCD_DrawProgressBar", percent);
        Pixels expected = painted();
        for (std::size_t row = 220; row < 240; row++)
            for (std::size_t column = 0; column < 320; column++)
                expected[kGuardPixels + row * 320 + column] = column < columns ? 0x035F : 0x0000;
        EXPECT_EQ(drawn(), expected);
    }
}

TEST_P(Lcd, BarOutOfRangeStaysInTheRegion) {
    bench.call("LCD_InitGraphics");
    for (const int percent : {101, 150, 200, 10000, 6710887, INT_MAX, -1, -10, -100, -10000, INT_MIN}) {
        SCOPED_TRACE(percent);
        paint();
        bench.call("LCD_DrawProgressBar", percent);
        Pixels expected = painted();
        const auto filled = static_cast<std::uint16_t>(std::int64_t{percent} * 320 / 100);
        for (std::uint16_t y = 220; y < 240; y++) {
            ExpectedLine(expected, 0, filled, y, 0x035F);
            ExpectedLine(expected, filled, 320, y, 0x0000);
        }
        EXPECT_EQ(drawn(), expected);
        const auto behind = std::count(expected.begin() + kGuardPixels + 76800, expected.end(), 0x035F);
        EXPECT_EQ(behind, percent == 150 ? 160 : behind);
    }
}

TEST_P(Lcd, LinesOfAnyKind) {
    constexpr std::uint16_t kLines[][3] = {
        {0, 320, 0},      {10, 10, 5},      {20, 10, 5},       {1, 2, 7},         {3, 17, 7},     {5, 319, 8},
        {319, 320, 239},  {300, 340, 9},    {0, 0x7FFF, 100},  {0, 0x7FFF, 239},  {0, 0x8000, 0}, {0xFFF0, 0x10, 0},
        {65504, 320, 10}, {40000, 100, 12}, {3071, 3073, 239}, {3072, 3080, 239}, {0, 320, 240},  {0, 320, 0xFFFF},
    };
    const auto expect_lines = [&](bool ready) {
        for (const auto &[x0, x1, y] : kLines) {
            SCOPED_TRACE(fmt::format("{} to {} in row {}", x0, x1, y));
            paint();
            bench.call("LCD_DrawHLine", x0, x1, y, 0x1234);
            Pixels expected = painted();
            if (ready && y < 240) ExpectedLine(expected, x0, x1, y, 0x1234);
            EXPECT_EQ(drawn(), expected);
        }
    };
    expect_lines(false);
    bench.call("LCD_InitGraphics");
    expect_lines(true);
}

// --- decoding

Pixels Words(const std::string &hex) {
    Pixels words;
    std::istringstream stream(hex);
    for (unsigned word = 0; stream >> std::hex >> word;) words.push_back(static_cast<std::uint16_t>(word));
    return words;
}

TEST_P(Lcd, DecoderAtItsLimits) {
    struct Case {
        const char *name;
        const char *stream;                                           // words; the last is one that must not be decoded
        std::vector<std::pair<std::size_t, std::uint16_t>> stretches; // then paint
    };
    const Case cases[] = {
        {"three runs", "7FFF 1 7FFF 2 2BFF 3 0 4", {{32768, 1}, {32768, 2}, {11264, 3}}},
        {"literals of one",
         "8000 11 8000 12 7FFF 1 7FFF 2 2BFD 3 0 4",
         {{1, 0x11}, {1, 0x12}, {32768, 1}, {32768, 2}, {11262, 3}}},
        {"literal at the end",
         "7FFF 1 7FFF 2 2BFC 3 8002 21 22 23 0 4",
         {{32768, 1}, {32768, 2}, {11261, 3}, {1, 0x21}, {1, 0x22}, {1, 0x23}}},
        {"repeat past the frame", "7FFF 1 7FFF 2 2C00 3 0 4", {{32768, 1}, {32768, 2}, {11265, 3}}},
        {"repeat past the region", "7FFF 1 7FFF 2 7FFF 3 0 4", {{32768, 1}, {32768, 2}, {14336, 3}}},
        {"literal past the frame",
         "7FFF 1 7FFF 2 2BFE 3 8001 21 22 0 4",
         {{32768, 1}, {32768, 2}, {11263, 3}, {1, 0x21}, {1, 0x22}}},
    };
    for (const Case &c : cases)
        for (const std::uint32_t odd : {0u, 1u}) {
            SCOPED_TRACE(fmt::format("{} at {}", c.name, odd ? "an odd address" : "a word"));
            const Pixels words = Words(c.stream);
            const std::uint32_t stream = bench.scratch(words.size() * 2 + 1) + odd;
            std::memcpy(bench.at(stream), words.data(), words.size() * 2);
            paint();
            bench.call("LCD_InsertImage", stream);
            Pixels expected = painted();
            auto at = expected.begin() + kGuardPixels;
            for (const auto &[count, pixel] : c.stretches) at = std::fill_n(at, count, pixel);
            EXPECT_EQ(drawn(), expected);
        }
}

// A literal run that would pass the region's end: what is stored comes from the stream, the rest is not read.
TEST_P(Lcd, DecoderReadsNoMoreThanItStores) {
    const Pixels head = Words("7FFF 1 7FFF 2 2BFE 3 FFFF"); // 76,799 pixels, then a literal run of 32,768
    const std::size_t room = kRegionPixels - 76799;
    Pixels words = head;
    for (std::size_t i = 0; i < room; i++) words.push_back(static_cast<std::uint16_t>(i));
    const std::uint32_t stream = kSdramBase + kSdramSize - static_cast<std::uint32_t>(words.size()) * 2;
    std::memcpy(bench.at(stream), words.data(), words.size() * 2); // memory ends with it
    paint();
    bench.call("LCD_InsertImage", stream);
    const Pixels pixels = drawn();
    EXPECT_TRUE(std::equal(words.begin() + 7, words.end(), pixels.begin() + kGuardPixels + 76799));
    EXPECT_EQ(pixels[kGuardPixels + kRegionPixels], kPaint);
}

// The picture's stream is 11,594 bytes: with anything else behind them it decodes the same.
TEST_P(Lcd, PictureEndsWhereItShould) {
    bench.call("LCD_Init");
    const Pixels shown = drawn();
    constexpr std::uint32_t kStreamBytes = 11594;
    const std::uint32_t copy = bench.scratch(12732);
    std::memset(bench.at(copy), 0xFF, 12732);
    std::memcpy(bench.at(copy), bench.object("BootImageBitmap"), kStreamBytes);
    paint();
    bench.call("LCD_InsertImage", copy);
    const Pixels again = drawn();
    EXPECT_TRUE(std::equal(shown.begin() + kGuardPixels, shown.begin() + kGuardPixels + 219 * 320,
                           again.begin() + kGuardPixels));
    EXPECT_EQ(again[kGuardPixels + 76800], kPaint);
}

} // namespace
