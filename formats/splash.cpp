#include "formats/splash.h"

#include <charconv>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::size_t kPixels = std::size_t{kSplashWidth} * kSplashHeight;
// A run is a word and its pixels. The word's top bit tells literal pixels from one that repeats; the rest is the
// count less one.
constexpr unsigned kLiteral = 0x8000;

void PutWord(Bytes &bytes, unsigned word) {
    bytes.push_back(static_cast<std::uint8_t>(word));
    bytes.push_back(static_cast<std::uint8_t>(word >> 8));
}

using Row = std::span<const std::uint16_t>;

// How many pixels from the front of the row have one colour.
std::size_t Stretch(Row row) {
    std::size_t count = 1;
    while (count < row.size() && row[count] == row[0]) ++count;
    return count;
}

// How many pixels from the front of the row differ from their right neighbours.
std::size_t Mixed(Row row) {
    std::size_t count = 0;
    while (count < row.size() && Stretch(row.subspan(count)) == 1) ++count;
    return count;
}

void EncodeRow(SplashStream &stream, Row row) {
    while (!row.empty()) {
        // No run needs splitting: a word counts to 32,768, and a row has 320 pixels.
        const std::size_t mixed = Mixed(row);
        if (mixed != 0) {
            PutWord(stream.bytes, kLiteral | static_cast<unsigned>(mixed - 1));
            for (const std::uint16_t pixel : row.first(mixed)) PutWord(stream.bytes, pixel);
            ++stream.literals;
            row = row.subspan(mixed);
            continue;
        }
        const std::size_t count = Stretch(row);
        PutWord(stream.bytes, static_cast<unsigned>(count - 1));
        PutWord(stream.bytes, row[0]);
        ++stream.repeats;
        row = row.subspan(count);
    }
}

// The progress bar is drawn there, on black; anything else would show a seam around it.
void RequireBlackFoot(Row pixels, const std::filesystem::path &file) {
    for (std::size_t i = std::size_t{kSplashFirstBlackRow} * kSplashWidth; i < kPixels; ++i)
        if (pixels[i] != 0)
            throw Refusal(file,
                          fmt::format("row {}, column {} is 0x{:04X}", i / kSplashWidth, i % kSplashWidth, pixels[i]),
                          fmt::format("black in rows {} to {}", kSplashFirstBlackRow, kSplashHeight - 1));
}

} // namespace

// Five bits a colour with blue on top, which is how this panel is wired.
std::uint16_t SplashPixel(Colour colour) {
    return static_cast<std::uint16_t>(colour.blue >> 3 << 10 | colour.green >> 3 << 5 | colour.red >> 3);
}

Colour SplashColour(std::uint16_t pixel) {
    const auto field = [&](unsigned shift) {
        const unsigned value = pixel >> shift & 31u;
        // The top bits again at the bottom, so that 31 becomes 255 and white stays white.
        return static_cast<std::uint8_t>(value << 3 | value >> 2);
    };
    return {field(0), field(5), field(10)};
}

SplashStream EncodeSplash(const Picture &picture, const std::filesystem::path &file) {
    if (picture.width != kSplashWidth || picture.height != kSplashHeight)
        throw Refusal(file, fmt::format("{} x {} pixels", picture.width, picture.height),
                      fmt::format("{} x {}", kSplashWidth, kSplashHeight));
    std::vector<std::uint16_t> pixels;
    for (const Colour colour : picture.pixels) pixels.push_back(SplashPixel(colour));
    RequireBlackFoot(pixels, file);

    SplashStream stream;
    // Row by row: a run never goes on into the next row, so a decoder may stop at any of them.
    for (unsigned row = 0; row < kSplashHeight; ++row)
        EncodeRow(stream, Row(pixels).subspan(std::size_t{row} * kSplashWidth, kSplashWidth));
    if (stream.bytes.size() > kSplashArrayBytes)
        throw Refusal(file, fmt::format("compressed to {} bytes", stream.bytes.size()),
                      fmt::format("at most {}", kSplashArrayBytes));
    return stream;
}

Picture DecodeSplash(std::span<const std::uint8_t> stream, const std::filesystem::path &file) {
    std::size_t at = 0;
    const auto next_word = [&] {
        if (stream.size() - at < 2)
            throw Refusal(file, fmt::format("the stream ends at byte {}", stream.size()), "runs up to the last pixel");
        at += 2;
        return static_cast<std::uint16_t>(stream[at - 2] | stream[at - 1] << 8);
    };
    Picture picture(kSplashWidth, kSplashHeight);
    for (std::size_t done = 0; done < kPixels;) {
        const std::size_t start = at;
        const unsigned header = next_word();
        const bool literal = header & kLiteral;
        const std::size_t count = (header & 0x7FFFu) + 1;
        // The array is source that people may edit, so its runs are checked like any file's.
        if (count > kPixels - done)
            throw Refusal(file, fmt::format("the run at byte {} has {} pixels", start, count),
                          fmt::format("at most the {} left", kPixels - done));
        std::uint16_t pixel = next_word();
        for (std::size_t i = 0; i < count; ++i) {
            if (literal && i != 0) pixel = next_word();
            picture.pixels[done++] = SplashColour(pixel);
        }
    }
    return picture;
}

std::string SplashSource(const SplashStream &stream) {
    constexpr std::size_t kInLine = 16;
    std::string text = "// Made from the picture in assets/ by `fixture splash encode`. Change the picture, not this.\n"
                       "#include \"Images.h\"\n"
                       "\n"
                       "// clang-format off\n"
                       "const std::uint8_t BootImageBitmap[kBootImageSize] = {";
    for (std::size_t i = 0; i < stream.bytes.size(); ++i)
        text += fmt::format("{}0x{:02X},", i % kInLine == 0 ? "\n    " : " ", stream.bytes[i]);
    return text + "\n};\n// clang-format on\n";
}

Bytes ReadSplashSource(std::string_view source, const std::filesystem::path &file) {
    // The first braces are the array's: SplashSource writes none before them.
    const std::size_t open = source.find('{');
    const std::size_t close = source.find('}', open == source.npos ? 0 : open);
    if (open == source.npos || close == source.npos) throw Refusal(file, "no array", "bytes in braces");
    Bytes bytes;
    for (std::size_t at = open + 1; at < close;) {
        const std::size_t start = source.find_first_not_of(" \t\r\n,", at);
        if (start >= close) break;
        const std::size_t end = source.find_first_of(" \t\r\n,}", start);
        const std::string_view word = source.substr(start, end - start);
        std::uint8_t byte = 0;
        const char *const last = word.data() + word.size();
        const bool hexadecimal = word.starts_with("0x") && word.size() > 2;
        if (!hexadecimal || std::from_chars(word.data() + 2, last, byte, 16) != std::from_chars_result{last, {}})
            throw Refusal(file, fmt::format("\"{}\" at offset {}", word.substr(0, 16), start), "a byte like 0x1F");
        bytes.push_back(byte);
        at = end;
    }
    return bytes;
}

} // namespace fixture
