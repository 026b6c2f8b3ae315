#include "LCD.h"

#include "I2c.h"
#include "Images.h"
#include "Spi.h"
#include "ol_at91sam926x_lcd.h"

#include <at91sam9263.h>
#include <kernel.h>
#include <memory_map.h>

std::uint16_t *VideoLines[kLcdRows];
volatile std::uint32_t *videoregisters;

namespace {

constexpr std::uint16_t kSeparatorColour = 0x4210;
constexpr std::uint16_t kSeparatorRow = 219;

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
        row += kLcdColumns * sizeof(std::uint16_t);
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
