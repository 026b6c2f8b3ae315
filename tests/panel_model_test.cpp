// The panel's serial line, the LCD controller, what they show together, and the files that it is kept in.
#include "fixture/parts/panel.h"
#include "harness/started_board.h"
#include "machine/frames.h"
#include "tools/terminal_preview.h"

#include <gif_lib.h>
#include <gmock/gmock.h>

namespace fixture {

namespace {

// --- serial line

struct SerialLine {
    Clock clock;
    Journal journal{clock};
    Net data{"data", journal}, bit{"clock", journal}, select{"select", journal}, reset{"reset", journal};
    Net::Driver &drive_data = data.attach("test"), &drive_bit = bit.attach("test");
    Net::Driver &drive_select = select.attach("test"), &drive_reset = reset.attach("test");
    std::unique_ptr<Panel> panel;

    SerialLine() {
        for (Net::Driver *driver : {&drive_bit, &drive_select, &drive_reset}) driver->set(Drive::high);
        panel = std::make_unique<Panel>(clock, journal, Panel::Line{data, bit, select, reset});
    }
    // Hexadecimal digits are shifted, '.' is a single bit; '(' and ')' select and deselect; '!' and '+' begin and end a
    // reset; '_' leaves the clock low.
    void send(std::string_view script) {
        for (const char c : script) {
            if (const std::size_t edge = std::string_view("()!+_").find(c); edge != std::string_view::npos) {
                (edge < 2   ? drive_select
                 : edge < 4 ? drive_reset
                            : drive_bit)
                    .set(edge % 2 == 0 ? Drive::low : Drive::high);
                continue;
            }
            const int bits = c == '.' ? 0 : std::stoi(std::string(1, c), nullptr, 16);
            for (int left = c == '.' ? 0 : 3; left >= 0; left--) {
                drive_bit.set(Drive::low);
                drive_data.set(bits >> left & 1 ? Drive::high : Drive::low);
                drive_bit.set(Drive::high);
            }
        }
    }
};

TEST(PanelModel, TakesWholeRegisterWritesOnlyAndFindsMisuse) {
    const struct {
        const char *name, *script; // register 7 is selected
        std::map<std::uint16_t, std::uint16_t> expected;
        std::size_t violations = 0;
    } cases[] = {
        {"value", "(721234)", {{7, 0x1234}}},
        {"two values", "(720001)(720002)", {{7, 2}}},
        {"other index", "(700102)(720005)", {{0x102, 5}}},
        {"other panel", "(761234)", {}},
        {"a read", "(731234)", {}},
        {"short", "(7212)", {}},
        {"cut short", "(7212.......)", {}},
        {"stray bit", "(721234.)", {}},
        {"too long", "(72123456)", {}},
        {"not selected", "721234", {}},
        {"in reset", "!(721234)", {}},
        {"reset clears", "(721234)!+(720009)", {{0, 9}}}, // index 0 again
        {"pixels", "(700022)(72FFFF)", {{0x22, 0xFFFF}}, 1},
        {"clock not idle", "_(72)", {}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SerialLine line;
        line.send("(700007)");
        line.send(c.script);
        EXPECT_EQ(line.panel->registers(), c.expected);
        EXPECT_EQ(line.journal.violations().size(), c.violations);
    }
}

// --- controller and frame

struct Screen {
    Clock clock;
    Journal journal{clock};
    bool clocked = true, backlight = true;
    Lcdc lcdc{journal, [this] { return clocked; }};
    std::vector<std::uint8_t> sdram = std::vector<std::uint8_t>(0x1000);

    // A panel of 4 x 2 pixels at 0x20000100.
    Screen() {
        constexpr std::uint32_t kSettings[][2] = {{0x000, 0x20000100},    {0x018, 4},   {0x01C, 1}, {0x804, 0x80000082},
                                                  {0x810, 3u << 21 | 1u}, {0x83C, 0x0D}};
        for (const auto &[offset, value] : kSettings) lcdc.write(offset, 4, value);
    }
    void pixel(unsigned index, unsigned value) {
        sdram[0x100 + index * 2] = static_cast<std::uint8_t>(value);
        sdram[0x101 + index * 2] = static_cast<std::uint8_t>(value >> 8);
    }
};

TEST(LcdController, ScansOnlyWhatIsProgrammedAndOn) {
    const struct {
        const char *name;
        std::uint32_t offset, value;
        bool scanning, picture;
    } cases[] = {
        {"as it is", 0x844, 0, true, true},
        {"DMA off", 0x01C, 0, false, true},
        {"panel power off", 0x83C, 0x0C, false, true},
        {"8 bits a pixel", 0x804, 0x80000062, true, false},
        {"no TFT", 0x804, 0x80000081, true, false},
        {"frame of another size", 0x018, 5, true, false},
        {"panel of another size", 0x810, 3u << 21 | 2u, true, false},
        {"before SDRAM", 0x000, 0x1FFFFFF8, true, false},
        {"up to the end of SDRAM", 0x000, 0x20000FF0, true, true},
        {"past the end of SDRAM", 0x000, 0x20000FF4, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Screen screen;
        screen.lcdc.write(c.offset, 4, c.value);
        EXPECT_EQ(screen.lcdc.scanning(), c.scanning);
        EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, PanelWiring::bgr).has_value(), c.picture);
        EXPECT_TRUE(screen.journal.violations().empty());
    }
    Screen screen;
    screen.lcdc.write(0x018, 4, 5);
    screen.lcdc.write(0x83C, 4, 0x8000000D);
    EXPECT_EQ(screen.journal.violations().size(), 1u) << "power on without a picture";
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
        Screen screen;
        screen.pixel(6, c.pixel); // second row, third column
        for (const auto &[wiring, colour] :
             {std::pair{PanelWiring::bgr, c.bgr}, {PanelWiring::rgb, c.rgb}, {PanelWiring::rgb565, c.rgb565}}) {
            Picture expected(4, 2);
            expected.at(2, 1) = colour;
            EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, wiring), expected) << std::hex << c.pixel;
        }
        screen.lcdc.write(0x804, 4, 0x00000082); // big-endian words: bytes and pixel pairs turned round
        const auto turned = static_cast<std::uint16_t>(c.pixel << 8 | c.pixel >> 8);
        EXPECT_EQ(RenderFrame(screen.lcdc, screen.sdram, PanelWiring::bgr)->at(3, 1),
                  PixelColour(turned, PanelWiring::bgr));
    }
}

TEST(FrameRecording, KeepsEachFrameThatCouldBeSeen) {
    Screen screen;
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
    EXPECT_THAT(delays, testing::ElementsAre(30, 10, 20, 2, 10));
}

// --- files

class PictureFiles : public testing::Test {
protected:
    TemporaryDirectory directory;
    const std::filesystem::path file = directory.path() / "picture";
    Picture colourful(unsigned step) {
        Picture picture(20, 20);
        for (unsigned i = 0; i < 400; i++)
            picture.pixels[i] = {static_cast<std::uint8_t>(i / step * step), static_cast<std::uint8_t>(i >> 8), 7};
        return picture;
    }
};

TEST_F(PictureFiles, PngComesBackExactly) {
    WritePng(file, colourful(1));
    EXPECT_EQ(ReadPng(file), colourful(1));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1) << "nothing beside it";

    EXPECT_THROW(ReadPng(directory.path() / "missing"), std::runtime_error);
    EXPECT_THROW(ReadPng(directory.write("noise", "no picture at all")), std::runtime_error);
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
    EXPECT_THROW(ReadPng(file), std::runtime_error);
    EXPECT_THROW(WritePng(directory.path() / "none" / "picture", colourful(1)), std::runtime_error);
}

TEST_F(PictureFiles, GifKeepsFramesAndDelays) {
    const std::vector<GifFrame> frames = {{colourful(2), 5}, {Picture(20, 20), 300}, {colourful(1), 2}};
    WriteGif(file, frames);
    int error = 0; // of another reader of the format
    GifFileType *const gif = DGifOpenFileName(file.c_str(), &error);
    ASSERT_TRUE(gif && DGifSlurp(gif) == GIF_OK);
    ASSERT_EQ(gif->ImageCount, 3);
    for (int i = 0; i < 3; i++) {
        const GifFrame &frame = frames[static_cast<std::size_t>(i)];
        GraphicsControlBlock control{};
        DGifSavedExtensionToGCB(gif, i, &control);
        EXPECT_EQ(static_cast<unsigned>(control.DelayTime), frame.centiseconds);
        const SavedImage &image = gif->SavedImages[i];
        Picture picture(20, 20);
        for (std::size_t p = 0; p < picture.pixels.size(); p++) {
            const GifColorType colour = image.ImageDesc.ColorMap->Colors[image.RasterBits[p]];
            picture.pixels[p] = {colour.Red, colour.Green, colour.Blue};
            EXPECT_NEAR(colour.Red, frame.picture.pixels[p].red, 16) << "400 colours become 256, and stay near";
        }
        if (i < 2) {
            EXPECT_EQ(picture, frame.picture) << "200 colours stay, frame " << i;
        }
    }
    DGifCloseFile(gif, &error);
    EXPECT_THROW(WriteGif(file, {}), std::runtime_error);
}

TEST(Preview, NeedsATerminalWithColours) {
    const auto preview = [](const char *term, int columns) {
        const char *const environment[] = {term, nullptr};
        return TerminalPreview(Picture(320, 240), columns, 24, environment);
    };
    EXPECT_THAT(preview("TERM=xterm-256color", 80), testing::HasSubstr("\x1b["));
    EXPECT_LT(preview("TERM=xterm-256color", 20).size(), preview("TERM=xterm-256color", 60).size());
    for (const char *term : {"TERM=dumb", "TERM=", "LANG=C"}) EXPECT_EQ(preview(term, 80), "") << term;
    testing::internal::CaptureStdout();
    PrintPreview(stdout, Picture(320, 240));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "no terminal";
}

} // namespace

} // namespace fixture
