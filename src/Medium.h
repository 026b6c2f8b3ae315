// The two media that keep images in raw slots, NAND flash and the serial DataFlash: one record each.
//
// Everything in which the two differ stands here; the checks, the updates and the rescue launch are written once, for
// any record. Start the drivers first (NandFlash_if_Init, SDFlash_Init).
//
//   char version[kRescueVersionSize] = "1.0";
//   const Medium &medium = *Medium_Of(1);
//   medium.write_short(medium.rescue_version, version, sizeof version);
//
// Addresses are byte addresses from the start of the medium. Nothing is printed but by the drivers.
#pragma once

#include <cstdint>

// A bootloader slot ends where the next slot begins, and so does the NAND's rescue slot; the DataFlash's rescue slot
// ends with the chip.
inline constexpr std::uint32_t kNandRescueVersion = 0x00020000;
inline constexpr std::uint32_t kNandRescueSlot = 0x00400000;
inline constexpr std::uint32_t kNandRescueSlotSize = 0x00C00000;
inline constexpr std::uint32_t kNandBootSlotSize[2] = {0x001E0000, 0x001E0000};

inline constexpr std::uint32_t kSDFlashRescueVersion = 0x00007F00;
inline constexpr std::uint32_t kSDFlashRescueSlot = 0x00404000;
inline constexpr std::uint32_t kSDFlashBootSlotSize[2] = {0x001FC000, 0x00200000};

inline constexpr std::uint32_t kRescueVersionSize = 16; // text, not always terminated

extern "C" {

struct Medium {
    const char *name;                    // as messages have it
    const std::uint32_t *boot_slot;      // the bootloader's two slots
    const std::uint32_t *boot_slot_size; // in bytes
    std::uint32_t rescue_slot;           // the rescue image
    std::uint32_t rescue_version;        // the record of its version, kRescueVersionSize bytes
    bool announces_update;               // Kept: a bootloader's update is announced on NAND alone.

    // Each returns 0, or anything else where it failed.
    int (*read)(std::uint32_t address, void *buffer, std::uint32_t length);
    // `source` is readable up to the next multiple of 2,048 bytes from its start: NAND programs whole pages.
    int (*write)(std::uint32_t address, const void *source, std::uint32_t length);
    // Writes at most 2,048 bytes and reads none after them. On NAND the rest of the block is erased.
    int (*write_short)(std::uint32_t address, const void *source, std::uint32_t length);
    // Whether the rescue slot takes an image of `length` bytes that can be checked there afterwards.
    int (*admit_rescue)(std::uint32_t length);
};

// The medium that the board boots from.
//
//   nand_boot   0 = serial DataFlash, anything else = NAND flash
//
// Never null.
const Medium *Medium_Of(std::uint32_t nand_boot);

extern const Medium nandMedium;
extern const Medium sdFlashMedium;

// The bootloader's two slots on each medium.
extern const std::uint32_t nandFlashBootSector[2];
extern const std::uint32_t sdFlashBootSector[2];

} // extern "C"
