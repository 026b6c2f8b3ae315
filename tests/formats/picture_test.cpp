// Picture files, read back here and by another reader.
#include "formats/caption.h"
#include "formats/picture.h"
#include "harness/started_board.h"

#include <gif_lib.h>
#include <gtest/gtest.h>
#include <set>
#include <string_view>

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
    int error = 0; // of another reader of the format
    GifFileType *const gif = DGifOpenFileName(file.c_str(), &error);
    ASSERT_TRUE(gif && DGifSlurp(gif) == GIF_OK);
    ASSERT_EQ(gif->ImageCount, 3);
    const Bytes bytes = ReadFile(file, 1u << 20);
    const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    EXPECT_NE(text.find(std::string_view("NETSCAPE2.0\3\1\0\0\0", 16)), text.npos) << "for ever";
    for (int i = 0; i < 3; ++i) {
        const GifFrame &frame = frames[static_cast<std::size_t>(i)];
        GraphicsControlBlock control{};
        DGifSavedExtensionToGCB(gif, i, &control);
        EXPECT_EQ(static_cast<unsigned>(control.DelayTime), frame.centiseconds);
        const SavedImage &image = gif->SavedImages[i];
        Picture picture(20, 20);
        for (std::size_t p = 0; p < picture.pixels.size(); ++p) {
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

} // namespace

} // namespace fixture
