#include "ol_at91sam926x_lcd.h"

#include <bootloader.h>
#include <memory_map.h>

namespace {

// Pins of the panel.
constexpr std::uint32_t kPinB9 = 1u << 9;                 // peripheral B
constexpr std::uint32_t kPinsC0To27 = 0x0FFFFFFF;         // data and timing
constexpr std::uint32_t kPinsCOnPeripheralB = 0x0007BDB0; // PC4, 5, 7, 8, 10-13, 15-18; the others stay on A
constexpr std::uint32_t kPinA30 = 1u << 30;               // control line, held low

struct Setting {
    ReadWrite reg;
    std::uint32_t value;
};

constexpr Setting kModeAndTiming[] = {
    {LCDC.LCDCON1(), 0x00005000}, // CLKVAL 5: pixel clock = master clock / 12
    {LCDC.LCDCON2(), 0x80009E82}, // TFT, single scan, 16 bits a pixel, little-endian, clock always active;
                                  // frame, line, pixel clock and data valid inverted
    {LCDC.LCDMVAL(), 0},
    {LCDC.LCDTIM1(), 0x00020E04},      // VFP 4, VBP 14, VPW 2, VHDLY 0
    {LCDC.CONTRAST_CTR(), 0x0000000C}, // PWM on, positive polarity, prescaler 0
    {LCDC.LCDTIM2(), 0x02601D25},      // HBP 37, HPW 29, HFP 19
    {LCDC.LCDFRMCFG(), 0x27E000EF},    // 320 columns, 240 lines
    {LCDC.CONTRAST_VAL(), 0x00000080}, // half the range
    {LCDC.LCDFIFO(), 501},             // threshold
};

constexpr std::uint32_t kFrameBytes = 320 * 240 * 2;
constexpr std::uint32_t kFrameWords = kFrameBytes / 4;
constexpr std::uint32_t kBurstLength = 3u << 24;
constexpr std::uint32_t kDmaEnableAndReset = 3;
static_assert((kBurstLength | kFrameWords) == 0x03009600);
static_assert(kFrameBytes <= kVideoRegionSize);

} // namespace

void AT91SAM926X_ConnectLCD(void) {
    PMC.PCER().write(1u << ID_LCDC);
    PIOB.PDR().write(kPinB9);
    PIOB.BSR().write(kPinB9);
    PIOC.BSR().write(kPinsCOnPeripheralB);
    PIOC.PDR().write(kPinsC0To27);
    PIOA.PER().write(kPinA30);
    PIOA.OER().write(kPinA30);
    PIOA.CODR().write(kPinA30);
}

void AT91SAM926X_ProgramLCDC(void) {
    for (const Setting &setting : kModeAndTiming) setting.reg.write(setting.value);
    const auto frame = reinterpret_cast<std::uintptr_t>(__ghsbegin_mr_rwec__videobuffer);
    LCDC.DMABADDR1().write(static_cast<std::uint32_t>(frame));
    LCDC.DMAFRMCFG().write(kBurstLength | kFrameWords);
    LCDC.DMACON().write(kDmaEnableAndReset);
}

int AT91SAM926X_InitializeLCD(void) {
    AT91SAM926X_ConnectLCD();
    AT91SAM926X_ProgramLCDC();
    LCDC.PWRCON().write(kPwrconGuardTime | kPwrconPower);
    return 0;
}
