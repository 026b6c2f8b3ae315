// The panel's drivers on the board: what the start-up writes, what stands on the serial line, which pixels are drawn.
// Pixels are read from memory, not through the frame renderer.
#include "tests/processors.h"

#include <climits>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <memory_map.h>

namespace fixture {

namespace {

using At = SlaveFault::At;

constexpr std::size_t kRegionPixels = kVideoRegionSize / 2;
constexpr std::uint32_t kGuardPixels = 0x10000; // on either side of the region
constexpr std::uint16_t kPaint = 0x5AA5;        // in all pixels before a drawing

// The video region with its guards, as pixels.
using Pixels = std::vector<std::uint16_t>;

class Lcd : public OnBoard {
protected:
    const std::uint32_t region = static_cast<std::uint32_t>(
        GetParam() == Processor::host ? reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer)
                                      : started.machine().symbol("__ghsbegin_mr_rwec__videobuffer"));

    static Pixels painted() { return Pixels(kRegionPixels + 2 * kGuardPixels, kPaint); }
    // What a call makes of painted pixels.
    template <typename... Arguments> Pixels drawn_by(const char *routine, Arguments... arguments) {
        Pixels pixels = painted();
        std::uint8_t *const guarded = started.at(region - kGuardPixels * 2);
        std::memcpy(guarded, pixels.data(), pixels.size() * 2);
        started.call(routine, arguments...);
        std::memcpy(pixels.data(), guarded, pixels.size() * 2);
        return pixels;
    }
    // The writes to the registers that belong to the panel alone, as "LCDCON1=5000" words.
    std::string writes_of(const char *routine) {
        std::string text;
        Bus &bus = started.board().bus;
        bus.observer = [&](const BusAccess &access) {
            const std::string name = bus.name_of(access.address);
            const bool two_wire_or_serial = name.starts_with("PIOB") && access.value != 0x200;
            if (!access.is_write || two_wire_or_serial || name.starts_with("PIT")) return;
            text += fmt::format("{}={:X} ", name, access.value);
        };
        result = started.call(routine);
        bus.observer = nullptr;
        return text;
    }
    std::uint32_t result = 0;
};
BOTH_PROCESSORS(Lcd);

// --- start-up

TEST_P(Lcd, StartUpWritesRegistersInOrder) {
    const std::string pins = "PMC.PCER=4000000 PIOB.PDR=200 PIOB.BSR=200 PIOC.BSR=7BDB0 PIOC.PDR=FFFFFFF "
                             "PIOA.PER=40000000 PIOA.OER=40000000 PIOA.CODR=40000000 ";
    const std::string controller =
        "LCDC.LCDCON1=5000 LCDC.LCDCON2=80009E82 LCDC.LCDMVAL=0 LCDC.LCDTIM1=20E04 LCDC.CONTRAST_CTR=C "
        "LCDC.LCDTIM2=2601D25 LCDC.LCDFRMCFG=27E000EF LCDC.CONTRAST_VAL=80 LCDC.LCDFIFO=1F5 " +
        fmt::format("LCDC.DMABADDR1={:X} LCDC.DMAFRMCFG=3009600 LCDC.DMACON=3 LCDC.PWRCON=D ", region);
    started.call("Spi_Init");
    EXPECT_EQ(writes_of("LCD_Init"),
              "PIOD.SODR=4000 PIOD.PER=4000 PIOD.OER=4000 " + pins + "LCDC.PWRCON=C " + controller);
    EXPECT_EQ(started.board().panel.resets(), 0u) << "the line never went low";
    std::uint64_t pointer = 0;
    std::memcpy(&pointer, started.object("videoregisters"), GetParam() == Processor::arm ? 4 : sizeof pointer);
    EXPECT_EQ(pointer, 0x00700800u);
    EXPECT_TRUE(started.board().journal.violations().empty());
    EXPECT_EQ(writes_of("AT91SAM926X_InitializeLCD"), pins + controller);
    EXPECT_EQ(result, 0u);
}

// The controller reads memory behind the data cache, so the region must be neither cached nor buffered. The processor's
// translation table is found in memory by what it says of SDRAM and of the controller itself.
TEST(LcdMemory, RegionIsUncached) {
    StartedBoard started(Processor::arm);
    const std::uint32_t region = started.machine().symbol("__ghsbegin_mr_rwec__videobuffer");
    constexpr std::uint32_t kSection = 2, kCachedAndBuffered = 0xC, kTableBytes = 0x4000;
    const auto entry = [&](std::uint32_t table, std::uint32_t address) {
        std::uint32_t word = 0;
        std::memcpy(&word, started.at(table + (address >> 20) * 4), sizeof word);
        return word;
    };
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
    std::string text;
    Bus &bus = started.board().bus;
    bus.observer = [&](const BusAccess &access) {
        const std::string name = bus.name_of(access.address);
        if (access.is_write && name.starts_with("PIO")) text += fmt::format("{}={:X} ", name.substr(3), access.value);
    };
    started.call("Spi_Init");
    const std::size_t before = started.board().panel.transfers().size(); // the lines coming up may look like one
    started.call("LCD_WriteRegister", 0x001E, 0x00DF);
    const auto transfers = std::span(started.board().panel.transfers()).subspan(before);
    ASSERT_EQ(transfers.size(), 2u);
    EXPECT_THAT(transfers[0].bytes, testing::ElementsAre(0x70, 0x00, 0x1E));
    EXPECT_THAT(transfers[1].bytes, testing::ElementsAre(0x72, 0x00, 0xDF));
    EXPECT_THAT(started.board().panel.registers(), testing::ElementsAre(testing::Pair(0x1E, 0xDF)));
    std::string expected = "B.PER=E000 B.OER=E000 B.SODR=E000 ";
    for (const Panel::Transfer &t : transfers) {
        // 1 us before the first bit, two halves of 1 us a bit, 10 us after each byte, 10 us between the transfers.
        EXPECT_GE(t.end - t.start, (1 + 3 * (16 + 10)) * kMicrosecond);
        expected += "B.CODR=8000 ";
        for (const unsigned byte : t.bytes)
            for (unsigned bit = 0x80; bit != 0; bit >>= 1)
                expected += fmt::format("B.{}ODR=2000 B.CODR=4000 B.SODR=4000 ", byte & bit ? 'S' : 'C');
        expected += "B.SODR=8000 ";
    }
    EXPECT_EQ(text, expected);
    EXPECT_GE(transfers[1].start - transfers[0].end, 10 * kMicrosecond);
}

// --- backlight

TEST_P(Lcd, BacklightBranches) {
    // Addresses are asked for in the order of the transfers.
    const std::tuple<const char *, bool, bool, unsigned, std::vector<SlaveFault>, std::vector<std::string>> cases[] = {
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
    UiController &ui = started.board().ui;
    for (const auto &[name, awake, on, level, faults, log] : cases) {
        SCOPED_TRACE(name);
        ui.clear_faults();
        ui.log.clear();
        ui.state = {awake, on, 33};
        for (const SlaveFault &fault : faults) ui.inject(fault);
        const Picoseconds start = started.board().clock.now();
        started.call("LCD_SetBackLiteIntensity", level);
        const bool starts = std::count(log.begin(), log.end(), "05") != 0;
        EXPECT_GE(started.board().clock.now() - start, (starts ? 400 : 100) * kMillisecond);
        EXPECT_EQ(ui.log, log);
    }
}

// --- drawing

// The bar by its definition, pixel by pixel, on the region with its guards.
void ExpectedLine(Pixels &pixels, std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour) {
    for (std::int32_t i = 0, count = static_cast<std::int16_t>(x1 - x0); i < count; ++i) {
        const std::size_t at = std::size_t{y} * 320 + x0 + static_cast<std::size_t>(i);
        if (at < kRegionPixels) pixels[kGuardPixels + at] = colour;
    }
}

TEST_P(Lcd, BarFillsColumnsAndStaysInTheRegion) {
    started.call("LCD_InitGraphics");
    for (const int percent : {0,   5,   12,  25,    40,      50,      70, 99,  100,  1,      0,
                              101, 150, 200, 10000, 6710887, INT_MAX, -1, -10, -100, -10000, INT_MIN}) {
        SCOPED_TRACE(percent);
        Pixels expected = painted();
        const auto filled = static_cast<std::uint16_t>(std::int64_t{percent} * 320 / 100);
        for (std::uint16_t y = 220; y < 240; ++y) {
            ExpectedLine(expected, 0, filled, y, 0x035F);
            ExpectedLine(expected, filled, 320, y, 0x0000);
        }
        EXPECT_EQ(drawn_by("LCD_DrawProgressBar", percent), expected);
    }
}

TEST_P(Lcd, LinesOfAnyKind) {
    constexpr std::uint16_t kLines[][3] = {
        {0, 320, 0},      {10, 10, 5},      {20, 10, 5},       {1, 2, 7},         {3, 17, 7},     {5, 319, 8},
        {319, 320, 239},  {300, 340, 9},    {0, 0x7FFF, 100},  {0, 0x7FFF, 239},  {0, 0x8000, 0}, {0xFFF0, 0x10, 0},
        {65504, 320, 10}, {40000, 100, 12}, {3071, 3073, 239}, {3072, 3080, 239}, {0, 320, 240},  {0, 320, 0xFFFF},
    };
    for (const bool ready : {false, true}) {
        if (ready) started.call("LCD_InitGraphics");
        for (const auto &[x0, x1, y] : kLines) {
            SCOPED_TRACE(fmt::format("{} to {} in row {}", x0, x1, y));
            Pixels expected = painted();
            if (ready && y < 240) ExpectedLine(expected, x0, x1, y, 0x1234);
            EXPECT_EQ(drawn_by("LCD_DrawHLine", x0, x1, y, 0x1234), expected);
        }
    }
}

// --- decoding

TEST_P(Lcd, DecoderAtItsLimits) {
    // The stream follows two longest runs; its last run must not be decoded. After the stretches there is paint.
    const std::tuple<const char *, Pixels, std::vector<std::pair<std::size_t, std::uint16_t>>> cases[] = {
        {"repeat at the end", {0x2BFF, 3, 0, 4}, {{11264, 3}}},
        {"literals of one", {0x8000, 0x11, 0x8000, 0x12, 0x2BFD, 3, 0, 4}, {{1, 0x11}, {1, 0x12}, {11262, 3}}},
        {"literal at the end",
         {0x2BFC, 3, 0x8002, 0x21, 0x22, 0x23, 0, 4},
         {{11261, 3}, {1, 0x21}, {1, 0x22}, {1, 0x23}}},
        {"repeat past the frame", {0x2C00, 3, 0, 4}, {{11265, 3}}},
        {"repeat past the region", {0x7FFF, 3, 0, 4}, {{14336, 3}}},
        {"literal past the frame", {0x2BFE, 3, 0x8001, 0x21, 0x22, 0, 4}, {{11263, 3}, {1, 0x21}, {1, 0x22}}},
    };
    for (const auto &[name, stream, stretches] : cases)
        for (const std::uint32_t odd : {0u, 1u}) {
            SCOPED_TRACE(fmt::format("{} at {}", name, odd ? "an odd address" : "a word"));
            Pixels words = {0x7FFF, 1, 0x7FFF, 2};
            words.insert(words.end(), stream.begin(), stream.end());
            const std::uint32_t place = started.scratch(words.size() * 2 + 1) + odd;
            std::memcpy(started.at(place), words.data(), words.size() * 2);
            Pixels expected = painted();
            auto at = std::fill_n(expected.begin() + kGuardPixels, 32768, std::uint16_t{1});
            at = std::fill_n(at, 32768, std::uint16_t{2});
            for (const auto &[count, pixel] : stretches) at = std::fill_n(at, count, pixel);
            EXPECT_EQ(drawn_by("LCD_InsertImage", place), expected);
        }
}

// A literal run that would pass the region's end: what is stored comes from the stream, the rest is not read.
TEST_P(Lcd, DecoderReadsNoMoreThanItStores) {
    Pixels words = {0x7FFF, 1, 0x7FFF, 2, 0x2BFE, 3, 0xFFFF}; // 76,799 pixels, then a literal run of 32,768
    for (std::size_t i = 0; i < kRegionPixels - 76799; ++i) words.push_back(static_cast<std::uint16_t>(i));
    const std::uint32_t stream = kSdramBase + kSdramSize - static_cast<std::uint32_t>(words.size()) * 2;
    std::memcpy(started.at(stream), words.data(), words.size() * 2); // memory ends with it
    const Pixels pixels = drawn_by("LCD_InsertImage", stream);
    EXPECT_TRUE(std::equal(words.begin() + 7, words.end(), pixels.begin() + kGuardPixels + 76799));
    EXPECT_EQ(pixels[kGuardPixels + kRegionPixels], kPaint);
}

} // namespace

} // namespace fixture
