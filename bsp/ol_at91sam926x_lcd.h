// The board's LCD controller: clock, pins and timing for the 320 x 240 panel at 16 bits a pixel.
//
// The start-up makes the whole set-up with AT91SAM926X_InitializeLCD (<bootloader.h>); LCD_Init repeats its two steps.
//
// Source of register names and fields: AT91SAM9263 datasheet, LCD controller.
#pragma once

#include <at91sam9263.h>
#include <cstdint>

// What PWRCON takes: the panel's power bit, and a guard time of 6 frames around every change of it.
inline constexpr std::uint32_t kPwrconPower = 1;
inline constexpr std::uint32_t kPwrconGuardTime = 6u << 1;

extern "C" {

// Step one: switches the controller's clock on and hands it the panel's pins; PA30 becomes an output, low.
void AT91SAM926X_ConnectLCD(void);

// Step two: mode, timing, contrast and the scan of the video region's first 153,600 bytes. Leaves PWRCON alone.
void AT91SAM926X_ProgramLCDC(void);

} // extern "C"
