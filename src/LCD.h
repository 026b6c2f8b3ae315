// The fixture's 320 x 240 colour panel: start-up picture, separator line, progress bar, backlight.
//
// Call order: Spi_Init, then LCD_Init once, then LCD_DrawProgressBar as the boot goes on. No routine reports an error
// and none prints anything. Use from one task only.
//
// Pixels are 16-bit words: bits 14-10, 9-5 and 4-0 are three 5-bit colour fields, bit 15 is not used; equal fields
// give greys. The frame is 240 rows of 320 pixels, 640 bytes a row, row 0 at the top, at the start of the video region.
// The LCD controller scans it all the time; nothing is double-buffered.
//
// Whatever the arguments, nothing is stored outside the video region (<memory_map.h>): pixels beyond it are left out.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kLcdColumns = 320;
inline constexpr std::uint32_t kLcdRows = 240;

extern "C" {

// First pixel of each row; every line is drawn through it. Filled by LCD_InitGraphics.
extern std::uint16_t *VideoLines[kLcdRows];

// The LCD controller's control registers, which begin with LCDCON1. Set by LCD_Init.
extern volatile std::uint32_t *videoregisters;

// The whole start-up: reset line, controller clock, pins and registers, picture, separator line, empty bar, panel
// register 0x001E, and the backlight at last, when the picture is complete. Spi_Init must have run.
// Takes upwards of 0.1 s, 0.4 s when the user-interface controller has to be started.
void LCD_Init(void);

// Fills VideoLines.
void LCD_InitGraphics(void);

// Decodes a compressed picture over the whole frame, from its top left pixel.
//
//   image   runs of little-endian 16-bit words, at any address. A run begins with a header word:
//           bit 15 clear   header + 1 pixels of one colour; the colour word follows
//           bit 15 set     (header & 0x7FFF) + 1 pixels; that many colour words follow
//
// Ends with the run that completes the frame's 76,800 pixels. A run that goes on past them fills the rest of the
// video region as far as it goes, and is the last one.
void LCD_InsertImage(const std::uint8_t *image);

// Fills the pixels x0 ... x1 - 1 of row `y` with `colour`. The count is x1 - x0 as a signed 16-bit number; none when
// it is 0 or less. Columns are not checked: a line longer than its row goes on in the next. Draws nothing for a row
// of 240 or more, or before LCD_InitGraphics.
void LCD_DrawHLine(std::uint16_t x0, std::uint16_t x1, std::uint16_t y, std::uint16_t colour);

// Draws the whole progress bar, rows 220 to 239: percent * 320 / 100 filled columns from the left, the others black.
// Meant for 0 to 100; other values are not clamped.
void LCD_DrawProgressBar(std::int32_t percent);

// Writes a 16-bit register of the panel over its serial line: one chip select for the index, one for the value.
void LCD_WriteRegister(std::uint16_t index, std::uint16_t value);

// Drives the panel's reset line high (released). Does not make it an output.
void LCD_RESETSET(void);

// Makes the panel's reset line an output. After LCD_RESETSET, so that the line never goes low.
void LCD_RESETOUTPUT(void);

// Has the user-interface controller switch the backlight on and sets its brightness.
//
//   level   per cent; above 100 counts as 100
//
// The controller is started first if it says it is not running, and the light is switched on if it says it is not.
// A question that gets no good answer has its step left out; the brightness is sent in any case.
void LCD_SetBackLiteIntensity(std::uint32_t level);

} // extern "C"
