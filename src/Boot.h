// The secondary bootloader as a file of the bank: its record and its update in raw flash.
//
// The record says what the bank being looked at claims about its bootloader file. Boot_Init empties it at the start of
// every bank; the setters fill it from the manifest and the descriptor. The slots are those of StoredImage.h.
//
//   nand_boot   the boot medium: 0 = serial DataFlash, anything else = NAND flash
#pragma once

#include <cstdint>

extern "C" {

void Boot_Init(void);

// A path is cut to 255 characters, a version to 16.
void Boot_SetPathFilename(const char *path);
void Boot_SetSize(std::uint32_t size);
void Boot_SetCheckSum(std::uint32_t checksum);
void Boot_SetVersion(const char *version);

// The record's own texts. The path is terminated; a version of 16 characters is not.
const char *Boot_GetPathFilename(void);
std::uint32_t Boot_GetSize(void);
std::uint32_t Boot_GetCheckSum(void);
const char *Boot_GetVersion(void);

// Writes the record's file to a bootloader slot and resets the processor, so that the new bootloader starts at once.
// Overwrites the load buffer; draws 50, 70, 80 and 100 % of the bar. Returns 0 only if the reset does not happen, -1
// when the file cannot be read, is not an intact stored image of this maker, or the copy fails.
int Boot_Store(std::uint32_t nand_boot);

// Reads a whole file, of up to 16 MiB, to `destination`. Returns the bytes read, which may be fewer than the file has,
// or -1; prints "\tFatal Error : unable to load bootloader into ram\n" when the file cannot be opened.
std::int32_t Boot_LoadImageIntoMemory(const char *path, void *destination);

// Write `length` bytes of an image to one slot, check what then lies there, and only then retire the other slot.
//
// A slot without a good copy is chosen: first by its header (with messages), and where both headers are valid by the
// whole image; with two good copies slot 0 is taken. The image is moved within the load buffer, whose start the checks
// overwrite. On NAND "Placing new bootloader at %08X.\n" and, once written, "Bootloader replaced.\n" are printed.
//
// Return 0 or -1. An image longer than the chosen slot is refused before anything is written.
int Boot_CopyImageToSDFlash(const void *image, std::uint32_t length);
int Boot_CopyImageToNandFlash(const void *image, std::uint32_t length);

// App_Reset under this module's name.
void Boot_Reset(void);

} // extern "C"
