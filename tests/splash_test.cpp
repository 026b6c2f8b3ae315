// The start-up picture: the committed array, its figures, and the encoder that made it.
#include "Images.h"
#include "bench.h"
#include "command.h"
#include "commands.h"
#include "picture.h"
#include "splash_codec.h"

#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <random>

using namespace fixture;

namespace {

const std::filesystem::path kSource = std::filesystem::path(SOURCE_DIR);

std::string TextOf(const std::filesystem::path &file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct Box {
    unsigned left = ~0u, right = 0, top = ~0u, bottom = 0;
    void take(unsigned column, unsigned row) {
        left = std::min(left, column), right = std::max(right, column);
        top = std::min(top, row), bottom = std::max(bottom, row);
    }
    bool within(const Box &other) const {
        return left >= other.left && right <= other.right && top >= other.top && bottom <= other.bottom;
    }
};

TEST(Splash, ArrayIsMadeFromThePicture) {
    const TemporaryDirectory directory;
    const std::string array = directory.path() / "Images.cpp";
    const std::string back = directory.path() / "back.png";
    const std::string picture = kSource / "assets" / "splash.png";
    const CommandResult encoded = RunCommand(AddSplashCommand, {"splash", "encode", picture, array});
    EXPECT_EQ(encoded.exit_status, 0) << encoded.error;
    EXPECT_THAT(encoded.output,
                testing::HasSubstr("11594 of 12732 bytes in 1475 repeat and 1171 literal runs, 33 colours"));
    EXPECT_EQ(TextOf(array), TextOf(kSource / "src" / "Images.cpp"));
    EXPECT_EQ(RunCommand(AddSplashCommand, {"splash", "decode", array, back}).exit_status, 0);
    EXPECT_EQ(ReadPng(back), ReadPng(picture));
}

TEST(Splash, PictureHasItsFigures) {
    const Picture picture = DecodeSplash(BootImageBitmap, "array");
    std::map<std::uint16_t, unsigned> colours;
    Box drawn, accent;
    for (unsigned row = 0; row < picture.height; row++)
        for (unsigned column = 0; column < picture.width; column++) {
            const std::uint16_t pixel = SplashPixel(picture.at(column, row));
            colours[pixel]++;
            if (pixel != 0) drawn.take(column, row);
            if (pixel == 0x037F) accent.take(column, row);
            EXPECT_TRUE(pixel == 0x037F || (pixel >> 10 == (pixel & 31) && (pixel >> 5 & 31) == (pixel & 31)));
        }
    EXPECT_EQ(colours.size(), 33u);
    EXPECT_EQ(colours[0x7FFF], 13317u);
    EXPECT_EQ(colours[0x037F], 1589u);
    EXPECT_EQ(colours[0x0000], 60237u);
    EXPECT_TRUE(drawn.within({2, 317, 16, 132}));
    EXPECT_TRUE(accent.within({217, 297, 18, 67}));
    EXPECT_EQ(std::size(BootImageBitmap), 12732u);
    for (std::size_t i = 11594; i < std::size(BootImageBitmap); i++) EXPECT_EQ(BootImageBitmap[i], 0) << i;
}

// A picture of `colours` colours in stretches of up to `longest` pixels, which fits the array or not.
Picture Stretches(std::mt19937 &random, unsigned colours, unsigned longest) {
    Picture picture(kSplashWidth, kSplashHeight);
    const std::size_t drawn = std::size_t{kSplashWidth} * kSplashFirstBlackRow;
    std::vector<std::uint16_t> palette(colours);
    for (std::uint16_t &pixel : palette) pixel = static_cast<std::uint16_t>(random() & 0x7FFF);
    for (std::size_t i = 0; i < drawn;) {
        const Colour colour = SplashColour(palette[random() % colours]);
        for (std::size_t left = random() % longest + 1; left > 0 && i < drawn; left--) picture.pixels[i++] = colour;
    }
    return picture;
}

// Whether runs end where rows end, read without the decoder.
void ExpectRunsWithinRows(const SplashStream &stream) {
    std::size_t pixels = 0;
    unsigned runs = 0;
    for (std::size_t at = 0; at < stream.bytes.size(); runs++) {
        const unsigned header = stream.bytes[at] | static_cast<unsigned>(stream.bytes[at + 1]) << 8;
        const unsigned count = (header & 0x7FFF) + 1;
        ASSERT_EQ(pixels / kSplashWidth, (pixels + count - 1) / kSplashWidth) << "run at byte " << at;
        pixels += count;
        at += header & 0x8000 ? 2 + 2 * count : 4;
    }
    EXPECT_EQ(pixels, 76800u);
    EXPECT_EQ(runs, stream.repeats + stream.literals);
}

TEST(Splash, RoundTripIsExact) {
    std::mt19937 random(6);
    for (const auto &[colours, longest] : {std::pair{1u, 1u}, {2u, 2000u}, {3u, 700u}, {40u, 200u}, {300u, 150u}}) {
        SCOPED_TRACE(colours);
        const Picture picture = Stretches(random, colours, longest);
        const SplashStream stream = EncodeSplash(picture, "picture");
        EXPECT_EQ(DecodeSplash(stream.bytes, "stream"), picture);
        EXPECT_EQ(ReadSplashSource(SplashSource(stream), "source"), stream.bytes);
        ExpectRunsWithinRows(stream);
    }
    // Single pixels at both ends of a row, single pixels side by side, and a row of nothing else.
    Picture picture(kSplashWidth, kSplashHeight);
    for (const unsigned column : {0u, 2u, 3u, 318u, 319u}) picture.at(column, 0) = SplashColour(1);
    for (unsigned column = 0; column < kSplashWidth; column++)
        picture.at(column, 1) = SplashColour(static_cast<std::uint16_t>(column));
    const SplashStream stream = EncodeSplash(picture, "picture");
    EXPECT_EQ(DecodeSplash(stream.bytes, "stream"), picture);
    ExpectRunsWithinRows(stream);
}

TEST(Splash, EncoderSaysWhatItRefuses) {
    const TemporaryDirectory directory;
    const std::string png = directory.path() / "picture.png";
    std::mt19937 random(7);
    Picture stained(kSplashWidth, kSplashHeight), stained_below(kSplashWidth, kSplashHeight);
    stained.at(17, 219) = {0, 8, 0};
    stained.at(17, 218) = stained_below.at(319, 239) = {255, 255, 255};
    const std::pair<Picture, const char *> cases[] = {
        {Picture(319, 240), "319 x 240 pixels; expected 320 x 240"},
        {Picture(320, 480), "320 x 480 pixels; expected 320 x 240"},
        {stained, "row 219, column 17 is 0x0020; expected black in rows 219 to 239"},
        {stained_below, "row 239, column 319 is 0x7FFF; expected black in rows 219 to 239"},
        {Stretches(random, 32768, 1), "compressed to 14[0-9]{4} bytes; expected at most 12732"},
    };
    for (const auto &[picture, message] : cases) {
        WritePng(png, picture);
        const CommandResult refused = RunCommand(AddSplashCommand, {"splash", "encode", png, directory.path() / "out"});
        EXPECT_EQ(refused.exit_status, 1);
        EXPECT_THAT(refused.error, testing::MatchesRegex("[^:]*picture.png: " + std::string(message)));
    }
    stained.at(17, 219) = {7, 7, 7}; // black in 5-bit colours
    WritePng(png, stained);
    EXPECT_EQ(RunCommand(AddSplashCommand, {"splash", "encode", png, directory.path() / "fine"}).exit_status, 0);
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "out"));
    EXPECT_EQ(RunCommand(AddSplashCommand, {"splash", "encode", directory.path() / "none", "out"}).exit_status, 2);
}

TEST(Splash, DecoderSaysWhatItRefuses) {
    const std::string black = "0xFF, 0x7F, 0x00, 0x00, 0xFF, 0x7F, 0x00, 0x00, ";
    const std::pair<std::string, const char *> cases[] = {
        {"no array at all", "no array"},
        {"{0x01", "no array"},
        {"{0x01, 12}", "\"12\" at offset 7"},
        {"{0x100}", "\"0x100\" at offset 1"},
        {"{0x}", "\"0x\" at offset 1"},
        {"{}", "the stream ends at byte 0"},
        {"{" + black + "0xFF, 0x2B, 0x00}", "the stream ends at byte 11"},
        {"{" + black + "0x01, 0x80, 0x00, 0x00}", "the stream ends at byte 12"},
        {"{" + black + "0x00, 0x2C, 0x00, 0x00}", "the run at byte 8 has 11265 pixels"},
    };
    for (const auto &[source, message] : cases) {
        try {
            DecodeSplash(ReadSplashSource(source, "array"), "array");
            ADD_FAILURE() << source;
        } catch (const Refusal &refusal) {
            EXPECT_THAT(refusal.what(), testing::StartsWith(std::string("array: ") + message)) << source;
        }
    }
    EXPECT_EQ(DecodeSplash(ReadSplashSource("{" + black + "0xFF, 0x2B, 0x00, 0x00, 0x55}", "array"), "array"),
              Picture(kSplashWidth, kSplashHeight));
}

} // namespace
