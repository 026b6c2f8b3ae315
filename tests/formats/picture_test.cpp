// Picture files, read back here and by another reader.
#include "formats/caption.h"
#include "formats/picture.h"
#include "harness/gif_reader.h"
#include "harness/started_board.h"
#include "harness/texts.h"

#include <gtest/gtest.h>
#include <set>

namespace fixture {

namespace {

class PictureFiles : public testing::Test {
protected:
    TemporaryDirectory directory;
    const std::filesystem::path file = directory.path() / "picture";
    Picture colourful(unsigned step) {
        Picture picture(20, 20);
        for (unsigned i = 0; i < 400; ++i)
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

// Each character as it stands on the panel's strip: told apart, cut off at the edge, never outside.
TEST(Captions, AreReadable) {
    std::set<std::vector<Colour>> seen;
    for (char c = ' '; c < 0x7F; ++c) {
        const Picture picture = WithCaption(Picture(14, 1), std::string(3, c));
        ASSERT_EQ(picture.height, 16u);
        EXPECT_TRUE(seen.insert(picture.pixels).second) << c;
    }
    EXPECT_EQ(WithCaption(Picture(14, 1), "\x07\xE9"), WithCaption(Picture(14, 1), "??"));
    const Picture one = WithCaption(Picture(14, 1), "L");
    EXPECT_EQ(one.at(4, 5), one.at(4, 11)) << "the stem";
    EXPECT_EQ(one.at(8, 11), one.at(4, 11)) << "the foot";
    EXPECT_NE(one.at(8, 5), one.at(4, 5));
    EXPECT_NE(one.at(4, 12), one.at(4, 11));
}

TEST_F(PictureFiles, GifKeepsFramesAndDelays) {
    const std::vector<GifFrame> frames = {{colourful(2), 5}, {Picture(20, 20), 300}, {colourful(1), 2}};
    WriteGif(file, frames);
    const std::string text = AsText(ReadFile(file, 1u << 20));
    EXPECT_NE(text.find(std::string("NETSCAPE2.0\3\1\0\0\0", 16)), text.npos) << "for ever";
    const std::vector<GifFrame> read = ReadGif(file);
    ASSERT_EQ(read.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(read[i].centiseconds, frames[i].centiseconds);
        for (std::size_t p = 0; p < read[i].picture.pixels.size(); ++p)
            EXPECT_NEAR(read[i].picture.pixels[p].red, frames[i].picture.pixels[p].red, 16) << "400 colours become 256";
        EXPECT_EQ(read[i].picture == frames[i].picture, i < 2) << "200 colours stay, frame " << i;
    }
    EXPECT_THROW(WriteGif(file, {}), std::runtime_error);
}

} // namespace

} // namespace fixture
