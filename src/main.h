// The boot decision.
//
// The platform's flash layer calls User_GetFlashDeviceRanges (<bootloader.h>) before main. That call tests the
// board's straps and is the only one that sets nandBoot; main reads the flag and never tests the pins itself.
#pragma once

#include <cstdint>

extern "C" {

// The boot medium: 1 = NAND flash, 0 = serial DataFlash. Decides where every raw slot is looked for.
extern std::uint32_t nandBoot;

// The bank directories in the order in which they are tried; each ends in "/".
extern const char *const bankPath[3];

// Tests the board's straps through port B. Bit 0: pins 12 and 13 are joined; bit 1: pins 14 and 18 are joined. The pins
// are left as the test leaves them: 13 and 18 are outputs and may be high.
std::uint32_t GetHardwarePinConfig(void);

} // extern "C"
