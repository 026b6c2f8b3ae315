#include "formats/picture.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <gif_lib.h>
#include <memory>
#include <png.h>
#include <stdexcept>
#include <string>

namespace fixture {

namespace {

constexpr unsigned kLargest = 4096;

[[noreturn]] void Refuse(const std::filesystem::path &file, const std::string &what) {
    throw std::runtime_error(fmt::format("{}: {}", file.string(), what));
}

void WriteWhole(const std::filesystem::path &file, const std::string &bytes) {
    std::filesystem::path beside = file;
    beside += ".part";
    std::ofstream stream(beside, std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    std::error_code error;
    if (stream) std::filesystem::rename(beside, file, error);
    if (!stream || error) {
        std::filesystem::remove(beside, error);
        Refuse(file, "cannot be written");
    }
}

} // namespace

Picture ReadPng(const std::filesystem::path &file) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, decltype(&png_image_free)> guard(&image, png_image_free);
    if (!png_image_begin_read_from_file(&image, file.c_str())) Refuse(file, image.message);
    if (image.width > kLargest || image.height > kLargest)
        Refuse(file,
               fmt::format("{} x {} pixels, at most {} x {} are read", image.width, image.height, kLargest, kLargest));
    image.format = PNG_FORMAT_RGB;
    Picture picture(image.width, image.height);
    const png_color black{0, 0, 0};
    if (!png_image_finish_read(&image, &black, picture.pixels.data(), 0, nullptr)) Refuse(file, image.message);
    return picture;
}

void WritePng(const std::filesystem::path &file, const Picture &picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string bytes(size, '\0');
    if (!png_image_write_to_memory(&image, bytes.data(), &size, 0, picture.pixels.data(), 0, nullptr))
        Refuse(file, image.message);
    bytes.resize(size);
    WriteWhole(file, bytes);
}

namespace {

struct Indexed {
    std::vector<GifByteType> pixels;
    std::vector<GifColorType> palette; // a power of two of them
};

void CheckGif(int result, const GifFileType *gif) {
    if (result != GIF_ERROR) return;
    const char *reason = GifErrorString(gif ? gif->Error : E_GIF_ERR_OPEN_FAILED);
    throw std::runtime_error(fmt::format("the animation cannot be made: {}", reason ? reason : "unknown reason"));
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
    if (colours.size() > 256) return Quantized(picture);
    Indexed indexed;
    for (const Colour &pixel : picture.pixels) {
        const auto place = std::lower_bound(colours.begin(), colours.end(), pixel);
        indexed.pixels.push_back(static_cast<GifByteType>(place - colours.begin()));
    }
    for (const Colour &colour : colours) indexed.palette.push_back({colour.red, colour.green, colour.blue});
    std::size_t size = 2;
    while (size < indexed.palette.size()) size *= 2;
    indexed.palette.resize(size);
    return indexed;
}

void PutFrame(GifFileType *gif, const GifFrame &frame) {
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

int Append(GifFileType *gif, const GifByteType *bytes, int length) {
    static_cast<std::string *>(gif->UserData)
        ->append(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(length));
    return length;
}

struct CloseGif {
    void operator()(GifFileType *gif) const {
        int error = 0;
        EGifCloseFile(gif, &error);
    }
};

} // namespace

void WriteGif(const std::filesystem::path &file, std::span<const GifFrame> frames) {
    if (frames.empty()) Refuse(file, "no frame to write");
    std::string bytes;
    int error = 0;
    std::unique_ptr<GifFileType, CloseGif> gif(EGifOpen(&bytes, Append, &error));
    if (!gif) Refuse(file, "the animation cannot be made");
    EGifSetGifVersion(gif.get(), true);
    const Picture &first = frames.front().picture;
    CheckGif(EGifPutScreenDesc(gif.get(), static_cast<int>(first.width), static_cast<int>(first.height), 8, 0, nullptr),
             gif.get());
    for (const GifFrame &frame : frames) PutFrame(gif.get(), frame);
    gif.reset();
    WriteWhole(file, bytes);
}

} // namespace fixture
