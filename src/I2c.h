// The link to the user-interface controller, which runs the front panel: buttons and backlight.
//
// A command goes out as one frame on the two-wire bus, and ends in a checksum that makes the sum of all its bytes 0
// modulo 256:
//
//   write    command, 0 to 14 data bytes, checksum
//   request  command, checksum; after a pause the controller is read: 0 to 16 reply bytes, checksum over these alone
//
// Request and reply are two transactions. Every call ends with a pause of 5 ms, in which the controller acts on what
// it got. Nothing is tried twice and nothing is printed. Call TWIInit first; calls come from one task.
//
// Results: 0 done; 1 a length out of range, or a reply that is short or has a bad checksum; else that of the transfer
// that failed (at91sam9263_sw_i2c.h), which may be 1 as well.
#pragma once

#include <cstdint>

extern "C" {

// Releases the panel's reset line: drives it high, then makes it an output. Sends nothing.
void uiInit(void);

// The byte that makes the sum over `count` bytes and itself 0 modulo 256. 0 for no bytes.
std::uint8_t GenerateChecksum(const std::uint8_t *bytes, std::uint16_t count);

// 0 if `count` bytes and `checksum` sum to 0 modulo 256, else 1.
int checkCheckSum(const std::uint8_t *bytes, std::uint16_t count, std::uint8_t checksum);

// Asks the controller for `*length` bytes (at most 16). `reply` is written only when the result is 0.
int uiReadCmd(std::uint8_t command, std::uint8_t *reply, const std::uint16_t *length);

// Sends a command with `*length` data bytes (at most 14); `data` may be null where that is 0.
int uiWriteCmd(std::uint8_t command, const std::uint8_t *data, const std::uint16_t *length);

} // extern "C"
