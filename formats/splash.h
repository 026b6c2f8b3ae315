// The start-up picture's compressed form, in both directions: 320 x 240 pixels of three 5-bit fields (red in the low
// bits), as runs of little-endian 16-bit words.
//
// Encoding takes a repeat run for every stretch of two or more equal pixels in a row and a literal run for what stands
// between; no run crosses the end of a row. A picture of 24-bit colours loses their low three bits; one that was
// decoded comes back exactly.
#pragma once

#include "formats/file.h"
#include "formats/picture.h"

namespace fixture {

inline constexpr unsigned kSplashWidth = 320;
inline constexpr unsigned kSplashHeight = 240;
inline constexpr unsigned kSplashFirstBlackRow = 219; // separator line and progress bar cover the rows from here on
inline constexpr std::size_t kSplashArrayBytes = 12732;

// A pixel word and its colour, each field widened to eight bits.
std::uint16_t SplashPixel(Colour colour);
Colour SplashColour(std::uint16_t pixel);

struct SplashStream {
    Bytes bytes;
    unsigned repeats = 0; // runs of either kind
    unsigned literals = 0;
};

// Throws Refusal, with `file` and what was found, for a picture of another size, one that is not black from row 219 on,
// and one whose stream does not fit the array.
SplashStream EncodeSplash(const Picture &picture, const std::filesystem::path &file);

// The picture of a stream; what follows the last run is not looked at. Throws Refusal for a stream that ends early or
// whose runs do not end with the picture.
Picture DecodeSplash(std::span<const std::uint8_t> stream, const std::filesystem::path &file);

// The array as a C++ source file, and the bytes of such a file. Throws Refusal where there is no array of bytes.
std::string SplashSource(const SplashStream &stream);
Bytes ReadSplashSource(std::string_view source, const std::filesystem::path &file);

} // namespace fixture
