// The panel's pixels: what is done for every one of them. Everything else about the panel is in LCD.cpp.
#include "LCD.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <memory_map.h>

namespace {

constexpr std::uint16_t kBarColour = 0x035F;
constexpr std::uint16_t kBlack = 0x0000;
constexpr std::uint16_t kFirstBarRow = 220;
constexpr std::uint32_t kFramePixels = kLcdColumns * kLcdRows;

// Pixels are stored by memcpy of whole words, so that memory may be looked at as words of any size.
constexpr std::uint32_t kPixelBytes = sizeof(std::uint16_t);
constexpr std::uint32_t kRegionPixels = kVideoRegionSize / kPixelBytes;

std::uint8_t *StorePixel(std::uint8_t *at, std::uint16_t colour) {
    std::memcpy(std::assume_aligned<kPixelBytes>(at), &colour, kPixelBytes);
    return at + kPixelBytes;
}

std::uint8_t *StorePair(std::uint8_t *at, std::uint32_t pair) {
    std::memcpy(std::assume_aligned<sizeof pair>(at), &pair, sizeof pair);
    return at + sizeof pair;
}

std::uint8_t *StoreEight(std::uint8_t *at, std::uint32_t pair) {
    return StorePair(StorePair(StorePair(StorePair(at, pair), pair), pair), pair);
}

struct Block {
    std::uint32_t pairs[4];
};
constexpr std::uint32_t kBlockPixels = sizeof(Block) / kPixelBytes;

std::uint8_t *StoreBlock(std::uint8_t *at, const Block &block) {
    std::memcpy(std::assume_aligned<sizeof(std::uint32_t)>(at), &block, sizeof block);
    return at + sizeof block;
}

// Four blocks a turn, two turns at a time. Not inlined: a block in memory is moved by load-multiple and store-multiple,
// one whose value the compiler knows by a store a word. Held: or it would be loaded again after every store.
constexpr std::uint32_t kTurnPixels = 4 * kBlockPixels;
[[gnu::noinline]] std::uint8_t *StoreTurns(std::uint8_t *at, std::uint32_t turns, const Block &block) {
    const Block held = block;
    if (turns & 1) at = StoreBlock(StoreBlock(StoreBlock(StoreBlock(at, held), held), held), held);
    for (turns /= 2; turns != 0; --turns) {
        at = StoreBlock(StoreBlock(StoreBlock(StoreBlock(at, held), held), held), held);
        at = StoreBlock(StoreBlock(StoreBlock(StoreBlock(at, held), held), held), held);
    }
    return at;
}

// Fills at least one pixel from `at`, an even address, and returns the place after them. Most runs of a picture are
// short: their ends take no loop.
inline std::uint8_t *Fill(std::uint8_t *at, std::uint32_t pixels, std::uint16_t colour) {
    if (reinterpret_cast<std::uintptr_t>(at) % sizeof(std::uint32_t) != 0) {
        at = StorePixel(at, colour);
        --pixels;
    }
    const std::uint32_t pair = colour * 0x00010001u;
    if (pixels >= kTurnPixels) {
        const Block block = {{pair, pair, pair, pair}};
        at = StoreTurns(at, pixels / kTurnPixels, block);
        pixels %= kTurnPixels;
        if (pixels == 0) return at; // a row of the bar
    }
    if (pixels >= 8) { // spares short runs two looks
        if (pixels & 16) at = StoreEight(StoreEight(at, pair), pair);
        if (pixels & 8) at = StoreEight(at, pair);
    }
    if (pixels & 4) at = StorePair(StorePair(at, pair), pair);
    if (pixels & 2) at = StorePair(at, pair);
    return pixels & 1 ? StorePixel(at, colour) : at;
}

// Takes the next little-endian word, at any address.
std::uint16_t NextWord(const std::uint8_t *&bytes) {
    const std::uint32_t low = *bytes++;
    const std::uint32_t high = *bytes++;
    return static_cast<std::uint16_t>(high << 8 | low);
}

} // namespace

void LCD_InsertImage(const std::uint8_t *image) {
    constexpr std::uint32_t kBehindFrame = kRegionPixels - kFramePixels;
    std::uint8_t *at = __ghsbegin_mr_rwec__videobuffer;
    std::uint8_t *const frame_end = at + kFramePixels * kPixelBytes;
    do {
        const std::uint32_t header = NextWord(image);
        std::uint32_t pixels = (header & 0x7FFFu) + 1;
        if (pixels > kBehindFrame)
            pixels = std::min(pixels, kBehindFrame + static_cast<std::uint32_t>(frame_end - at) / kPixelBytes);
        if (header & 0x8000) {
            at = StorePixel(at, NextWord(image)); // most are of one pixel
            for (; pixels > 1; --pixels) at = StorePixel(at, NextWord(image));
        } else {
            at = Fill(at, pixels, NextWord(image));
        }
    } while (at < frame_end);
}

// Not inlined: the bar would hold it twice.
[[gnu::noinline]] void LCD_DrawHLine(std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour) {
    if (y >= kLcdRows) return;
    const auto row = reinterpret_cast<std::uintptr_t>(VideoLines[y]);
    if (row == 0) return;
    const auto count = static_cast<std::int16_t>(x1 - x0);
    if (count <= 0) return;
    // Kept: x0 is unsigned and may lie far outside the row; the line then starts where the address leads.
    const std::uintptr_t start = row + x0 * kPixelBytes;
    const std::uintptr_t first =
        (start - reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer)) / kPixelBytes;
    if (first >= kRegionPixels) return;
    const std::uint32_t room = kRegionPixels - static_cast<std::uint32_t>(first);
    Fill(reinterpret_cast<std::uint8_t *>(start), std::min(static_cast<std::uint32_t>(count), room), colour);
}

void LCD_DrawProgressBar(std::int32_t percent) {
    // Kept: no clamping. A value above 100 runs on past the rows' ends, a negative one starts far to the right.
    // percent * 320 / 100, whose product may not fit: 320 / 100 is 16 / 5, taken for whole fives and for what is left.
    const auto filled = static_cast<std::uint16_t>(percent / 5 * 16 + percent % 5 * 16 / 5);
    for (std::uint32_t row = kFirstBarRow; row < kLcdRows; ++row) {
        const auto y = static_cast<std::uint16_t>(row);
        if (filled != 0) LCD_DrawHLine(0, filled, y, kBarColour);
        if (filled != kLcdColumns) LCD_DrawHLine(filled, kLcdColumns, y, kBlack);
    }
}
