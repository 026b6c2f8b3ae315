// Picture files, read back here and by another reader.
#include "formats/picture.h"
#include "harness/started_board.h"

#include <gif_lib.h>
#include <gtest/gtest.h>

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

TEST_F(PictureFiles, GifKeepsFramesAndDelays) {
    const std::vector<GifFrame> frames = {{colourful(2), 5}, {Picture(20, 20), 300}, {colourful(1), 2}};
    WriteGif(file, frames);
    int error = 0; // of another reader of the format
    GifFileType *const gif = DGifOpenFileName(file.c_str(), &error);
    ASSERT_TRUE(gif && DGifSlurp(gif) == GIF_OK);
    ASSERT_EQ(gif->ImageCount, 3);
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
