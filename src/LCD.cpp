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
constexpr std::int32_t kFramePixels = kLcdColumns * kLcdRows;

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

// Pixels are stored by memcpy of whole words: one store instruction each, and the pixels may be looked at as words of
// any size. Pointers are bytes so that a position outside the region can be compared before anything is stored.
constexpr std::uint32_t kPixelBytes = sizeof(std::uint16_t);
constexpr std::uint32_t kGroupPixels = 4; // in one double-word store

std::uint8_t *RegionEnd() { return __ghsbegin_mr_rwec__videobuffer + kVideoRegionSize; }

void StorePixel(std::uint8_t *at, std::uint16_t colour) {
    std::memcpy(std::assume_aligned<kPixelBytes>(at), &colour, kPixelBytes);
}

void StorePair(std::uint8_t *at, std::uint32_t pair) {
    std::memcpy(std::assume_aligned<2 * kPixelBytes>(at), &pair, sizeof pair);
}

void StoreGroup(std::uint8_t *at, std::uint64_t group) {
    std::memcpy(std::assume_aligned<kGroupPixels * kPixelBytes>(at), &group, sizeof group);
}

void StoreFourGroups(std::uint8_t *at, std::uint64_t group) {
    StoreGroup(at, group);
    StoreGroup(at + sizeof group, group);
    StoreGroup(at + 2 * sizeof group, group);
    StoreGroup(at + 3 * sizeof group, group);
}

// Whether an address has the bit of `bytes` set: a unit of twice as many begins behind it.
bool Inside(const std::uint8_t *at, std::uint32_t bytes) { return (reinterpret_cast<std::uintptr_t>(at) & bytes) != 0; }

// Fills whole pixels from `at` up to `end`. Most runs of a picture are short: their ends take no loop.
void Fill(std::uint8_t *at, std::uint8_t *end, std::uint16_t colour) {
    constexpr std::ptrdiff_t kPair = 2 * kPixelBytes;
    constexpr std::ptrdiff_t kGroup = kGroupPixels * kPixelBytes;
    constexpr std::ptrdiff_t kTurn = 8 * kGroup;
    const std::uint32_t pair = colour * 0x00010001u;
    const std::uint64_t group = std::uint64_t{pair} << 32 | pair;
    if (Inside(at, kPixelBytes) && at != end) {
        StorePixel(at, colour);
        at += kPixelBytes;
    }
    if (Inside(at, kPair) && end - at >= kPair) {
        StorePair(at, pair);
        at += kPair;
    }
    for (; end - at >= kTurn; at += kTurn) {
        StoreFourGroups(at, group);
        StoreFourGroups(at + kTurn / 2, group);
    }
    for (; end - at >= kGroup; at += kGroup) StoreGroup(at, group);
    if (end - at >= kPair) {
        StorePair(at, pair);
        at += kPair;
    }
    if (at != end) StorePixel(at, colour);
}

// A little-endian word at any address.
std::uint16_t WordAt(const std::uint8_t *bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }

// How many of `pixels` from `at`, a place in the region, lie in it.
std::uint32_t Clipped(const std::uint8_t *at, std::uint32_t pixels) {
    return std::min(pixels, static_cast<std::uint32_t>(RegionEnd() - at) / kPixelBytes);
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
    std::uint8_t *at = __ghsbegin_mr_rwec__videobuffer;
    for (std::int32_t remaining = kFramePixels; remaining > 0;) {
        const std::uint16_t header = WordAt(image);
        const std::uint32_t run = (header & 0x7FFFu) + 1;
        std::uint8_t *const end = at + Clipped(at, run) * kPixelBytes;
        image += kPixelBytes;
        if (header & 0x8000) {
            for (; at != end; at += kPixelBytes, image += kPixelBytes) StorePixel(at, WordAt(image));
        } else {
            Fill(at, end, WordAt(image));
            at = end;
            image += kPixelBytes;
        }
        remaining -= static_cast<std::int32_t>(run);
    }
}

void LCD_DrawHLine(std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour) {
    const auto count = static_cast<std::int16_t>(x1 - x0);
    if (count <= 0 || y >= kLcdRows || VideoLines[y] == nullptr) return;
    // Kept: x0 is unsigned and may lie far outside the row; the line then starts where the address leads.
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(VideoLines[y]) + x0 * kPixelBytes;
    const std::uintptr_t offset = start - reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer);
    if (offset >= kVideoRegionSize) return;
    std::uint8_t *const at = __ghsbegin_mr_rwec__videobuffer + offset;
    Fill(at, at + Clipped(at, static_cast<std::uint32_t>(count)) * kPixelBytes, colour);
}

void LCD_DrawProgressBar(std::int32_t percent) {
    // Kept: no clamping. A value above 100 runs on past the rows' ends, a negative one starts far to the right.
    const auto filled = static_cast<std::uint16_t>(std::int64_t{percent} * kLcdColumns / 100);
    for (std::uint16_t y = kFirstBarRow; y < kLcdRows; y++) {
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
