// The picture that controller and memory make together, and the frames that are kept of it.
#include "harness/small_screen.h"
#include "machine/frames.h"

#include <gmock/gmock.h>

namespace fixture {

namespace {

TEST(LcdController, ScansOnlyWhatIsProgrammedAndOn) {
    const struct {
        const char *name;
        std::uint32_t offset, value;
        bool scanning, picture;
    } cases[] = {
        {"as it is", 0x844, 0, true, true},
        {"DMA off", 0x01C, 0, false, true},
        {"panel power off", 0x83C, 0x0C, false, true},
        {"8 bits a pixel", 0x804, 0x80009E62, true, false},
        {"no TFT", 0x804, 0x80009E81, true, false},
        {"frame of another size", 0x018, 5, true, false},
        {"panel of another size", 0x810, 3u << 21 | 2u, true, false},
        {"sync not inverted", 0x804, 0x80009882, false, true},
        {"no vertical porch", 0x808, 0x00020E00, false, true},
        {"no line timing", 0x80C, 0, false, true},
        {"pixel clock not divided", 0x800, 0x00005001, false, true},
        {"before SDRAM", 0x000, 0x1FFFFFF8, true, false},
        {"up to the end of SDRAM", 0x000, 0x20000FF0, true, true},
        {"past the end of SDRAM", 0x000, 0x20000FF4, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SmallScreen screen;
        screen.lcdc.write(c.offset, 4, c.value);
        EXPECT_EQ(screen.lcdc.scanning(), c.scanning);
        EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, PanelWiring::bgr).has_value(), c.picture);
        EXPECT_TRUE(screen.journal.violations().empty());
    }
    SmallScreen screen;
    screen.lcdc.write(0x018, 4, 5);
    screen.lcdc.write(0x83C, 4, 0x8000000D);
    EXPECT_EQ(screen.journal.violations().size(), 1u) << "power on without a picture";
    screen.pins = false;
    EXPECT_FALSE(screen.lcdc.scanning()) << "pins of somebody else";
    screen.pins = true;
    EXPECT_EQ(screen.lcdc.read(0x83C, 4), 0x0Du) << "busy cannot be written";
    screen.clocked = false;
    screen.lcdc.write(0x018, 4, 4);
    EXPECT_EQ(screen.journal.violations().size(), 2u) << "written without clock";
    EXPECT_EQ(screen.lcdc.value(0x018), 5u);
    EXPECT_FALSE(screen.lcdc.scanning());
}

TEST(LcdController, ColoursFollowTheWiring) {
    const struct {
        unsigned pixel;
        Colour bgr, rgb, rgb565;
    } cases[] = {
        {0x0000, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}},
        {0x001F, {251, 0, 0}, {0, 0, 251}, {0, 0, 255}},
        {0x03E0, {0, 251, 0}, {0, 251, 0}, {0, 125, 0}},
        {0x7C00, {0, 0, 251}, {251, 0, 0}, {123, 130, 0}},
        {0x8000, {4, 4, 4}, {4, 4, 4}, {132, 0, 0}},
        {0xFFFF, {255, 255, 255}, {255, 255, 255}, {255, 255, 255}},
        {0x4210, {130, 130, 130}, {130, 130, 130}, {66, 65, 132}},
    };
    for (const auto &c : cases) {
        SmallScreen screen;
        screen.pixel(6, c.pixel); // second row, third column
        for (const auto &[wiring, colour] :
             {std::pair{PanelWiring::bgr, c.bgr}, {PanelWiring::rgb, c.rgb}, {PanelWiring::rgb565, c.rgb565}}) {
            Picture expected(4, 2);
            expected.at(2, 1) = colour;
            EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, wiring), expected) << std::hex << c.pixel;
        }
        screen.lcdc.write(0x804, 4, 0x00009E82); // big-endian words: bytes and pixel pairs turned round
        const auto turned = static_cast<std::uint16_t>(c.pixel << 8 | c.pixel >> 8);
        EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, PanelWiring::bgr)->at(3, 1),
                  PixelColour(turned, PanelWiring::bgr));
    }
}

TEST(FrameRecording, KeepsEachFrameThatCouldBeSeen) {
    SmallScreen screen;
    screen.backlight = false;
    const auto lit = [&] { return screen.lcdc.scanning() && screen.backlight; };
    FrameRecorder recorder(screen.clock, screen.lcdc, screen.sdram, lit, PanelWiring::bgr, 1);
    const auto after = [&](auto change) {
        screen.clock.advance(100 * kMillisecond);
        change();
        recorder.glance();
        return recorder.frames().size();
    };
    EXPECT_EQ(after([&] { screen.pixel(0, 0x7FFF); }), 0u) << "dark";
    EXPECT_EQ(recorder.shown(), Picture(4, 2));
    EXPECT_EQ(after([&] { screen.backlight = true; }), 1u);
    EXPECT_EQ(after([&] {}), 1u);
    EXPECT_EQ(after([&] { screen.pixel(1, 0x7FFF); }), 1u) << "not the watched row";
    EXPECT_EQ(after([&] { screen.pixel(7, 0x7FFF); }), 2u);
    EXPECT_EQ(after([&] { screen.lcdc.write(0x83C, 4, 0x0C); }), 3u) << "dark again";
    EXPECT_EQ(after([&] { screen.pixel(6, 0x7FFF); }), 3u);
    EXPECT_EQ(after([&] { screen.lcdc.write(0x83C, 4, 0x0D); }), 4u);
    screen.pixel(2, 1);
    recorder.look();
    recorder.look();
    ASSERT_EQ(recorder.frames().size(), 5u);

    EXPECT_EQ(recorder.frames()[0].time, 200 * kMillisecond);
    EXPECT_EQ(recorder.frames()[1].picture.at(1, 0), (Colour{251, 251, 251})) << "seen late, but seen";
    EXPECT_FALSE(recorder.frames()[2].lit);
    EXPECT_EQ(recorder.frames()[2].picture, Picture(4, 2));
    EXPECT_EQ(recorder.frames()[4].picture, recorder.shown());

    std::vector<unsigned> delays;
    for (const GifFrame &frame : Animation(recorder.frames(), 900 * kMillisecond)) delays.push_back(frame.centiseconds);
    EXPECT_THAT(delays, testing::ElementsAre(30, 10, 20, 2, 100));

    const auto slow = Animation(recorder.frames(), 900 * kMillisecond, {3, [](const auto &) { return "I"; }});
    EXPECT_EQ(slow[0].centiseconds, 90u);
    const Picture &captioned = slow[0].picture;
    EXPECT_EQ(captioned.height, 2u + 15u);
    EXPECT_TRUE(std::equal(recorder.frames()[0].picture.pixels.begin(), recorder.frames()[0].picture.pixels.end(),
                           captioned.pixels.begin()));
}

} // namespace

} // namespace fixture
