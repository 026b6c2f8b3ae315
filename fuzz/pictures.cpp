// The start-up picture: its stream in the bootloader and in the tools, its sources in files.
#include "fixture/core/board_memory.h"
#include "formats/picture.h"
#include "formats/splash.h"
#include "fuzz/targets.h"
#include "tools/commands.h"

#include <algorithm>
#include <cstring>
#include <memory_map.h>
#include <zlib.h>

namespace fixture {

namespace {

constexpr std::size_t kFramePixels = std::size_t{kSplashWidth} * kSplashHeight;
constexpr std::size_t kRegionPixels = kVideoRegionSize / 2;
constexpr std::uint32_t kVideo = 0x22F00000;

void PutWord(Bytes &bytes, std::uint32_t word) {
    bytes.push_back(static_cast<std::uint8_t>(word));
    bytes.push_back(static_cast<std::uint8_t>(word >> 8));
}

// Runs up to the last pixel of the frame or past it, and the pixels that they give.
Bytes MakeStream(Shape &shape, std::vector<std::uint16_t> &pixels) {
    Bytes stream;
    while (pixels.size() < kFramePixels) {
        const auto left = static_cast<std::uint32_t>(std::min<std::size_t>(kFramePixels - pixels.size(), 0x8000));
        const std::uint32_t count = shape.pick({left, 1u, 2u, 3u, 320u, 0x8000u, 1 + shape.below(64), 1 + left / 2});
        const bool literal = shape.one_in(2);
        const std::uint32_t colour = shape.below(65536);
        PutWord(stream, (literal ? 0x8000u : 0u) | (count - 1));
        for (std::uint32_t i = 0; i < count; ++i) {
            pixels.push_back(static_cast<std::uint16_t>(literal ? colour + i : colour));
            if (literal || i == 0) PutWord(stream, pixels.back());
        }
    }
    return stream;
}

void AppendBig32(Bytes &bytes, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

void PutChunk(Shape &shape, Bytes &png, std::string_view type, const Bytes &data) {
    const auto length = static_cast<std::uint32_t>(data.size());
    AppendBig32(png, shape.one_in(32) ? shape.number() : length);
    Bytes checked = AsBytes(type);
    Append(checked, data);
    Append(png, checked);
    const auto sum = static_cast<std::uint32_t>(crc32(0, checked.data(), static_cast<unsigned>(checked.size())));
    AppendBig32(png, shape.one_in(32) ? 0 : sum);
}

Bytes Compressed(const Bytes &bytes) {
    uLongf length = compressBound(bytes.size());
    Bytes packed(length);
    compress2(packed.data(), &length, bytes.data(), bytes.size(), Z_BEST_SPEED);
    packed.resize(length);
    return packed;
}

// The chunks of a picture, some of them left out, repeated, or of another kind.
Bytes MakePng(Shape &shape) {
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return *whole;
    Bytes header;
    AppendBig32(header, shape.pick({320u, 320u, 320u, 1u, 0u, 321u, shape.number()}));
    AppendBig32(header, shape.pick({240u, 240u, 240u, 1u, 0u, 239u, shape.number()}));
    header.push_back(shape.pick<std::uint8_t>({8, 8, 16, 4, 2, 1, 3}));
    header.push_back(shape.pick<std::uint8_t>({2, 0, 3, 4, 6, 1}));
    header.insert(header.end(), {0, 0, shape.pick<std::uint8_t>({0, 0, 1, 2})});
    if (!shape.one_in(16)) PutChunk(shape, png, "IHDR", header);
    for (unsigned chunks = shape.below(4); chunks > 0; --chunks)
        PutChunk(shape, png,
                 shape.pick({"PLTE", "tRNS", "gAMA", "sRGB", "cHRM", "iCCP", "bKGD", "tEXt", "zTXt", "IHDR"}),
                 shape.bytes(96));
    if (shape.one_in(2)) PutChunk(shape, png, "PLTE", Bytes(3 * (1 + shape.below(256)), 0x11));
    Bytes rows(shape.pick({std::size_t{240} * 961, std::size_t{0}, std::size_t{shape.below(65536)}}));
    const Bytes start = shape.bytes(128);
    std::copy_n(start.begin(), std::min(start.size(), rows.size()), rows.begin());
    for (unsigned chunks = shape.pick({1u, 1u, 1u, 0u, 2u}); chunks > 0; --chunks)
        PutChunk(shape, png, "IDAT", shape.one_in(8) ? shape.bytes(64) : Compressed(rows));
    if (!shape.one_in(8)) PutChunk(shape, png, "IEND", {});
    return png;
}

} // namespace

// The stream ends where memory ends, so that a word read too many faults.
void FuzzPicture(std::span<const std::uint8_t> input) {
    Shape shape(input);
    std::vector<std::uint16_t> pixels;
    const Bytes stream = MakeStream(shape, pixels);
    ModuleBoard board;
    const auto place = static_cast<std::uint32_t>(kSdram + kSdramBytes - stream.size());
    std::copy(stream.begin(), stream.end(), board.started().at(place));
    // Memory holds noise at power-up; what the picture does not reach has to be known.
    std::uint8_t *const video = board.started().at(kVideo);
    std::fill(video - 4096, video + kVideoRegionSize + 4096, std::uint8_t{0});
    board.call("LCD_InsertImage", place);

    const bool fits = pixels.size() == kFramePixels;
    pixels.resize(kRegionPixels);
    Require(std::memcmp(video, pixels.data(), kVideoRegionSize) == 0, "another picture than the stream's");
    for (const std::uint8_t *const guard : {video - 4096, video + kVideoRegionSize})
        Require(std::count(guard, guard + 4096, 0) == 4096, "stored outside the video region");
    try {
        const Picture picture = DecodeSplash(stream, "stream");
        for (std::size_t i = 0; i < kFramePixels; ++i)
            Require(picture.pixels[i] == SplashColour(pixels[i]), "the tool's picture is another one");
        Require(fits, "the tool takes runs past the end");
    } catch (const Refusal &) {
        Require(!fits, "the tool refuses a stream that fits");
    }
}

void FuzzPng(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const std::filesystem::path png = ScratchFile("picture.png", MakePng(shape));
    RunOnFiles(AddSplashCommand, {"splash", "encode", "--json", png, ModuleBoard::volume() / "picture.cpp"});
}

} // namespace fixture
