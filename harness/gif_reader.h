// The frames of a GIF file as another reader has them.
#pragma once

#include "formats/picture.h"

#include <gif_lib.h>
#include <stdexcept>

namespace fixture {

inline std::vector<GifFrame> ReadGif(const std::filesystem::path &file) {
    int error = 0;
    GifFileType *const gif = DGifOpenFileName(file.c_str(), &error);
    if (!gif || DGifSlurp(gif) != GIF_OK) throw std::runtime_error(file.string() + ": no GIF");
    std::vector<GifFrame> frames;
    for (int n = 0; n < gif->ImageCount; ++n) {
        GraphicsControlBlock control{};
        DGifSavedExtensionToGCB(gif, n, &control);
        const SavedImage &image = gif->SavedImages[n];
        Picture picture(static_cast<unsigned>(image.ImageDesc.Width), static_cast<unsigned>(image.ImageDesc.Height));
        for (std::size_t p = 0; p < picture.pixels.size(); ++p) {
            const GifColorType colour = image.ImageDesc.ColorMap->Colors[image.RasterBits[p]];
            picture.pixels[p] = {colour.Red, colour.Green, colour.Blue};
        }
        frames.push_back({picture, static_cast<unsigned>(control.DelayTime)});
    }
    DGifCloseFile(gif, &error);
    return frames;
}

} // namespace fixture
