// The start-up picture: the committed array and the encoder that made it.
#include "formats/picture.h"
#include "formats/splash.h"
#include "harness/command.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"

#include <gmock/gmock.h>
#include <random>

namespace fixture {

namespace {

TEST(Splash, ArrayIsMadeFromThePicture) {
    const TemporaryDirectory directory;
    const std::string array = directory.path() / "Images.cpp", back = directory.path() / "back.png";
    const std::string picture = SourceFile("assets/splash.png");
    const CommandResult encoded = RunFixture({"splash", "encode", picture, array});
    EXPECT_EQ(encoded.exit_status, 0) << encoded.error;
    EXPECT_THAT(encoded.output,
                testing::HasSubstr("11594 of 12732 bytes in 1475 repeat and 1171 literal runs, 33 colours"));
    EXPECT_EQ(ReadFile(array, 1 << 20), ReadFile(SourceFile("src/Images.cpp"), 1 << 20));
    EXPECT_EQ(RunFixture({"splash", "decode", array, back}).exit_status, 0);
    EXPECT_EQ(ReadPng(back), ReadPng(picture));
}

// A picture of `colours` colours in stretches of up to `longest` pixels, which fits the array or not.
Picture Stretches(std::mt19937 &random, unsigned colours, unsigned longest) {
    Picture picture(kSplashWidth, kSplashHeight);
    const std::size_t drawn = std::size_t{kSplashWidth} * kSplashFirstBlackRow;
    std::vector<std::uint16_t> palette(colours);
    for (std::uint16_t &pixel : palette) pixel = static_cast<std::uint16_t>(random() & 0x7FFF);
    for (std::size_t i = 0; i < drawn;) {
        const Colour colour = SplashColour(palette[random() % colours]);
        for (std::size_t left = random() % longest + 1; left > 0 && i < drawn; --left) picture.pixels[i++] = colour;
    }
    return picture;
}

TEST(Splash, RoundTripIsExact) {
    std::mt19937 random(6);
    std::vector<Picture> pictures;
    for (const auto &[colours, longest] : {std::pair{1u, 1u}, {2u, 2000u}, {3u, 700u}, {40u, 200u}, {300u, 150u}})
        pictures.push_back(Stretches(random, colours, longest));
    // Single pixels at both ends of a row, single pixels side by side, and a row of nothing else.
    Picture &single = pictures.emplace_back(kSplashWidth, kSplashHeight);
    for (const unsigned column : {0u, 2u, 3u, 318u, 319u}) single.at(column, 0) = SplashColour(1);
    for (unsigned column = 0; column < kSplashWidth; ++column)
        single.at(column, 1) = SplashColour(static_cast<std::uint16_t>(column));
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        SCOPED_TRACE(i);
        const SplashStream stream = EncodeSplash(pictures[i], "picture");
        EXPECT_EQ(DecodeSplash(stream.bytes, "stream"), pictures[i]);
        EXPECT_EQ(ReadSplashSource(SplashSource(stream), "source"), stream.bytes);
    }
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
        const CommandResult refused = RunFixture({"splash", "encode", png, directory.path() / "out"});
        EXPECT_EQ(refused.exit_status, 1);
        EXPECT_THAT(refused.error, testing::MatchesRegex("fixture: [^:]*picture.png: " + std::string(message) + "\n"));
    }
    stained.at(17, 219) = {7, 7, 7}; // black in 5-bit colours
    WritePng(png, stained);
    EXPECT_EQ(RunFixture({"splash", "encode", png, directory.path() / "fine"}).exit_status, 0);
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "out"));
    EXPECT_EQ(RunFixture({"splash", "encode", directory.path() / "none", "out"}).exit_status, 2);
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
        EXPECT_THAT([text = source] { DecodeSplash(ReadSplashSource(text, "array"), "array"); },
                    testing::ThrowsMessage<Refusal>(testing::StartsWith(std::string("array: ") + message)))
            << source;
    }
    EXPECT_EQ(DecodeSplash(ReadSplashSource("{" + black + "0xFF, 0x2B, 0x00, 0x00, 0x55}", "array"), "array"),
              Picture(kSplashWidth, kSplashHeight));
}

} // namespace

} // namespace fixture
