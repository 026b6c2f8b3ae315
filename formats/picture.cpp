#include "formats/picture.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <fmt/format.h>
#include <gif_lib.h>
#include <memory>
#include <new>
#include <png.h>
#include <stdexcept>

namespace fixture {

namespace {

// Room enough for any panel. A header of a few bytes may claim pixels for all of this machine's memory.
constexpr unsigned kLargest = 4096;
constexpr std::uintmax_t kLargestFile = 256u << 20;

// What the library found, in this tool's words where it says no more than a name of its own.
[[noreturn]] void RefusePng(const std::filesystem::path &file) {
    throw Refusal(file, "not an intact PNG picture", "a PNG file", "bad-picture");
}

} // namespace

Picture ReadPng(const std::filesystem::path &file) {
    const Bytes bytes = ReadFile(file, kLargestFile);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, decltype(&png_image_free)> guard(&image, png_image_free);
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) RefusePng(file);
    if (image.width > kLargest || image.height > kLargest)
        throw Refusal(file, fmt::format("{} x {} pixels", image.width, image.height),
                      fmt::format("at most {} x {}", kLargest, kLargest), "too-large");
    image.format = PNG_FORMAT_RGB;
    Picture picture(image.width, image.height);
    // What a transparent picture is laid on: a cleared panel is black.
    const png_color black{0, 0, 0};
    if (!png_image_finish_read(&image, &black, picture.pixels.data(), 0, nullptr)) RefusePng(file);
    return picture;
}

Bytes PngOf(const Picture &picture) {
    assert(!picture.pixels.empty() && "a picture has pixels");
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    Bytes bytes(size);
    // Fails for want of memory alone, since the buffer takes the largest file that such a picture can give.
    if (!png_image_write_to_memory(&image, bytes.data(), &size, 0, picture.pixels.data(), 0, nullptr))
        throw std::bad_alloc();
    bytes.resize(size);
    return bytes;
}

void WritePng(const std::filesystem::path &file, const Picture &picture) { WriteFile(file, PngOf(picture)); }

namespace {

struct Indexed {
    std::vector<GifByteType> pixels;
    std::vector<GifColorType> palette; // a power of two of them
};

void CheckGif(int result, const GifFileType *gif) {
    if (result != GIF_ERROR) return;
    const char *const reason = GifErrorString(gif ? gif->Error : E_GIF_ERR_OPEN_FAILED);
    throw Refusal("animation", fmt::format("cannot be made: {}", reason ? reason : "unknown reason"));
}

// More than 256 colours: the nearest that the library's median cut finds.
Indexed Quantized(const Picture &picture) {
    std::array<std::vector<GifByteType>, 3> planes;
    for (const Colour &pixel : picture.pixels) {
        planes[0].push_back(pixel.red);
        planes[1].push_back(pixel.green);
        planes[2].push_back(pixel.blue);
    }
    Indexed indexed{std::vector<GifByteType>(picture.pixels.size()), std::vector<GifColorType>(256)};
    int colours = 256;
    CheckGif(GifQuantizeBuffer(picture.width, picture.height, &colours, planes[0].data(), planes[1].data(),
                               planes[2].data(), indexed.pixels.data(), indexed.palette.data()),
             nullptr);
    return indexed;
}

Indexed ToIndexed(const Picture &picture) {
    std::vector<Colour> colours = picture.pixels;
    std::sort(colours.begin(), colours.end());
    colours.erase(std::unique(colours.begin(), colours.end()), colours.end());
    // The panel shows so many only in a photograph; a boot's frames keep their exact colours.
    if (colours.size() > 256) return Quantized(picture);
    Indexed indexed;
    for (const Colour &pixel : picture.pixels) {
        const auto place = std::lower_bound(colours.begin(), colours.end(), pixel);
        indexed.pixels.push_back(static_cast<GifByteType>(place - colours.begin()));
    }
    for (const Colour &colour : colours) indexed.palette.push_back({colour.red, colour.green, colour.blue});
    // The format counts a palette in bits, so its length is a power of two, and at least two.
    std::size_t size = 2;
    while (size < indexed.palette.size()) size *= 2;
    indexed.palette.resize(size);
    return indexed;
}

void PutFrame(GifFileType *gif, const GifFrame &frame) {
    // Every frame is whole, so nothing of the one before has to be taken away.
    const GraphicsControlBlock control{DISPOSE_DO_NOT, false, static_cast<int>(frame.centiseconds),
                                       NO_TRANSPARENT_COLOR};
    std::array<GifByteType, 4> extension{};
    EGifGCBToExtension(&control, extension.data());
    CheckGif(EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, extension.size(), extension.data()), gif);

    Indexed indexed = ToIndexed(frame.picture);
    const std::unique_ptr<ColorMapObject, decltype(&GifFreeMapObject)> map(
        GifMakeMapObject(static_cast<int>(indexed.palette.size()), indexed.palette.data()), GifFreeMapObject);
    const int width = static_cast<int>(frame.picture.width);
    const int height = static_cast<int>(frame.picture.height);
    CheckGif(EGifPutImageDesc(gif, 0, 0, width, height, false, map.get()), gif);
    for (int row = 0; row < height; ++row)
        CheckGif(EGifPutLine(gif, indexed.pixels.data() + std::ptrdiff_t{row} * width, width), gif);
}

// Viewers know this extension by the name of the program that had it first. Without it they stop at the last frame.
void PutLoop(GifFileType *gif) {
    constexpr std::array<GifByteType, 3> kForEver = {1, 0, 0};
    CheckGif(EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE), gif);
    CheckGif(EGifPutExtensionBlock(gif, 11, "NETSCAPE2.0"), gif);
    CheckGif(EGifPutExtensionBlock(gif, kForEver.size(), kForEver.data()), gif);
    CheckGif(EGifPutExtensionTrailer(gif), gif);
}

int Append(GifFileType *gif, const GifByteType *bytes, int length) {
    auto *const all = static_cast<Bytes *>(gif->UserData);
    all->insert(all->end(), bytes, bytes + length);
    return length;
}

struct CloseGif {
    void operator()(GifFileType *gif) const {
        int error = 0;
        EGifCloseFile(gif, &error);
    }
};

} // namespace

Bytes GifOf(std::span<const GifFrame> frames) {
    if (frames.empty()) throw std::runtime_error("an animation needs a frame");
    Bytes bytes;
    int error = 0;
    std::unique_ptr<GifFileType, CloseGif> gif(EGifOpen(&bytes, Append, &error));
    if (!gif) CheckGif(GIF_ERROR, nullptr);
    // Without it the older form is written, which has no times for frames.
    EGifSetGifVersion(gif.get(), true);
    const Picture &first = frames.front().picture;
    CheckGif(EGifPutScreenDesc(gif.get(), static_cast<int>(first.width), static_cast<int>(first.height), 8, 0, nullptr),
             gif.get());
    PutLoop(gif.get());
    for (const GifFrame &frame : frames) PutFrame(gif.get(), frame);
    // Closing writes the end of the file; before that `bytes` is not whole.
    gif.reset();
    return bytes;
}

void WriteGif(const std::filesystem::path &file, std::span<const GifFrame> frames) { WriteFile(file, GifOf(frames)); }

} // namespace fixture
