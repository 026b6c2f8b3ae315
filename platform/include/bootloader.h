// What the board calls of the bootloader. What the bootloader calls of the board is in <kernel.h>: the two headers are
// the two sides of one seam, and the types that both speak of stand in headers of their own.
//
// A start-up makes these calls in this order, with port B's clock on:
//
//   AT91SAM926X_InitializeLCD();                    the LCD controller scans the video region
//   dev_at91sam926x_twi_init();                     two-wire bus released, parameter store read
//   User_GetFlashDeviceRanges(&ranges);             from the flash layer, as it counts and as it opens its devices
//   readNetParameter(9, bytes, &parameter_length);  9 to 12: the network's settings
//
// Then the initial task calls main, and ends with its result.
// Every object here is constant-initialised, and no call but main needs a constructor to have run.
#pragma once

#include <cstdint>
#include <file_server.h>
#include <flash_ranges.h>
#include <twi_device.h>

// The longest parameter of the store, in bytes.
inline constexpr std::uint16_t kMaxParameterLength = 15;

extern "C" {

// Sets the LCD controller up: clock, pins, mode, timing, and the panel's power last. The picture is whatever the video
// region holds; the panel's own registers and its backlight stay as they are. Returns 0.
int AT91SAM926X_InitializeLCD(void);

// Starts the two-wire bus and reads the parameter store. Returns 0 whatever the store holds.
int dev_at91sam926x_twi_init(void);

// Carries one request out (<twi_device.h>). Requests come one at a time.
void dev_at91sam926x_twi_request(TwiRequest *request);

// Looks a parameter up in the store. `buffer` has room for kMaxParameterLength bytes; `length` is only written.
// Returns 0, or 1 where the parameter is not stored; buffer and length are then as they were.
int readNetParameter(std::uint16_t identifier, std::uint8_t *buffer, std::uint16_t *length);

// Tells which part of the NAND chip belongs to the file system, and with it decides the boot medium. Stores the number
// of ranges (1) and returns the table. May be called at any time before main, any number of times.
const FlashDeviceRange *User_GetFlashDeviceRanges(int *count);

// The file server's configuration (<file_server.h>), read by name. Each table is a list of pointers to entries, ended
// by a null pointer.
extern const PjfsBackend __ghsentry_pjfs_backends_disk1;
extern const PjfsClient __ghsentry_pjfs_clients_client;
extern const PjfsAutoFormat __ghsentry_pjfs_autoformats_drive1;
extern const PjfsBackend *const __ghstable_pjfs_backends[];
extern const PjfsClient *const __ghstable_pjfs_clients[];
extern const PjfsAutoFormat *const __ghstable_pjfs_autoformats[];

} // extern "C"
