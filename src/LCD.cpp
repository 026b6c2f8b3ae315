#include "LCD.h"

#include "I2c.h"
#include "Images.h"
#include "Spi.h"
#include "ol_at91sam926x_lcd.h"

#include <algorithm>
#include <at91sam9263.h>
#include <cstring>
#include <kernel.h>
#include <memory>
#include <memory_map.h>

std::uint16_t *VideoLines[kLcdRows];
volatile std::uint32_t *videoregisters;

namespace {

constexpr std::uint16_t kSeparatorColour = 0x4210;
constexpr std::uint16_t kBarColour = 0x035F;
constexpr std::uint16_t kBlack = 0x0000;
constexpr std::uint16_t kSeparatorRow = 219;
constexpr std::uint16_t kFirstBarRow = 220;
constexpr std::uint32_t kFramePixels = kLcdColumns * kLcdRows;

constexpr std::uint32_t kPanelReset = 1u << 14; // on port D

constexpr std::uint8_t kStartIndexWrite = 0x70; // start bytes of the panel's serial line
constexpr std::uint8_t kStartDataWrite = 0x72;

// Commands of the user-interface controller.
constexpr std::uint8_t kUiReadState = 0x01; // first reply byte 0: not started
constexpr std::uint8_t kUiStart = 0x05;
constexpr std::uint8_t kUiIntensity = 0x60;     // per cent
constexpr std::uint8_t kUiBacklight = 0x62;     // 1: on
constexpr std::uint8_t kUiReadBacklight = 0x63; // first reply byte 1: on
constexpr std::uint16_t kUiReplyLength = 2;
constexpr std::uint32_t kFullIntensity = 100;

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

// Four blocks a turn. Not inlined: a block in memory is moved by load-multiple and store-multiple, one whose value the
// compiler knows by a store a word.
constexpr std::uint32_t kTurnPixels = 4 * kBlockPixels;
[[gnu::noinline]] std::uint8_t *StoreTurns(std::uint8_t *at, std::uint32_t turns, const Block &block) {
    const Block held = block;
    do at = StoreBlock(StoreBlock(StoreBlock(StoreBlock(at, held), held), held), held);
    while (--turns != 0);
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

void SendWord(std::uint8_t start, std::uint16_t word) {
    Spi_EnableLCD();
    Spi_BitDelay();
    Spi_WriteByte(start);
    Spi_WriteByte(static_cast<std::uint8_t>(word >> 8));
    Spi_WriteByte(static_cast<std::uint8_t>(word));
    Spi_DisableLCD();
}

void StartController() {
    AT91SAM926X_ConnectLCD();
    LCDC.PWRCON().write(kPwrconGuardTime);
    videoregisters = reinterpret_cast<volatile std::uint32_t *>(std::uintptr_t{LCDC.LCDCON1().address});
    AT91SAM926X_ProgramLCDC();
    LCDC.PWRCON().write(LCDC.PWRCON().read() | kPwrconPower);
}

void SendUiByte(std::uint8_t command, std::uint8_t value) {
    const std::uint16_t length = 1;
    uiWriteCmd(command, &value, &length);
}

} // namespace

void LCD_RESETSET(void) { PIOD.SODR().write(kPanelReset); }

void LCD_RESETOUTPUT(void) {
    PIOD.PER().write(kPanelReset);
    PIOD.OER().write(kPanelReset);
}

void LCD_WriteRegister(std::uint16_t index, std::uint16_t value) {
    SendWord(kStartIndexWrite, index);
    usleep(10);
    SendWord(kStartDataWrite, value);
    Spi_BitDelay();
}

void LCD_InitGraphics(void) {
    std::uint8_t *row = __ghsbegin_mr_rwec__videobuffer;
    for (std::uint16_t *&line : VideoLines) {
        line = reinterpret_cast<std::uint16_t *>(row);
        row += kLcdColumns * kPixelBytes;
    }
}

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

void LCD_DrawHLine(std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour) {
    const auto count = static_cast<std::int16_t>(x1 - x0);
    if (count <= 0 || y >= kLcdRows || VideoLines[y] == nullptr) return;
    // Kept: x0 is unsigned and may lie far outside the row; the line then starts where the address leads.
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(VideoLines[y]) + x0 * kPixelBytes;
    const std::uintptr_t first =
        (start - reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer)) / kPixelBytes;
    if (first >= kRegionPixels) return;
    const std::uint32_t room = kRegionPixels - static_cast<std::uint32_t>(first);
    Fill(reinterpret_cast<std::uint8_t *>(start), std::min(static_cast<std::uint32_t>(count), room), colour);
}

void LCD_DrawProgressBar(std::int32_t percent) {
    // Kept: no clamping. A value above 100 runs on past the rows' ends, a negative one starts far to the right.
    const auto filled = static_cast<std::uint16_t>(std::int64_t{percent} * kLcdColumns / 100);
    for (std::uint16_t y = kFirstBarRow; y < kLcdRows; ++y) {
        LCD_DrawHLine(0, filled, y, kBarColour);
        LCD_DrawHLine(filled, kLcdColumns, y, kBlack);
    }
}

void LCD_SetBackLiteIntensity(std::uint32_t level) {
    if (level > kFullIntensity) level = kFullIntensity;
    usleep(100'000);

    std::uint8_t reply[kUiReplyLength] = {};
    const std::uint16_t none = 0;
    if (uiReadCmd(kUiReadState, reply, &kUiReplyLength) == 0 && reply[0] == 0) {
        uiWriteCmd(kUiStart, nullptr, &none);
        usleep(300'000);
    }
    if (uiReadCmd(kUiReadBacklight, reply, &kUiReplyLength) == 0 && reply[0] != 1) SendUiByte(kUiBacklight, 1);
    SendUiByte(kUiIntensity, static_cast<std::uint8_t>(level));
}

void LCD_Init(void) {
    uiInit();
    StartController();
    LCD_InitGraphics();
    LCD_InsertImage(BootImageBitmap);
    LCD_DrawHLine(0, kLcdColumns, kSeparatorRow, kSeparatorColour);
    LCD_DrawProgressBar(0);
    LCD_WriteRegister(0x001E, 0x00DF);
    LCD_SetBackLiteIntensity(100);
}
