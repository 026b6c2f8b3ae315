// The rescue image: its record, its update in raw flash and its launch.
//
// The record says what the bank being looked at claims about its rescue file. Rescue_Init empties it at the start of
// every bank; the setters fill it from the manifest and the descriptor. The slots are those of StoredImage.h.
//
//   nand_boot   the boot medium: 0 = serial DataFlash, anything else = NAND flash
#pragma once

#include <cstdint>

extern "C" {

void Rescue_Init(void);

// A path is cut to 256 characters, a version to 16.
void Rescue_SetPathFilename(const char *path);
void Rescue_SetSize(std::uint32_t size);
void Rescue_SetCheckSum(std::uint32_t checksum);
void Rescue_SetVersion(const char *version);

// The record's own texts. The path is terminated; a version of 16 characters is not.
const char *Rescue_GetPathFilename(void);
std::uint32_t Rescue_GetSize(void);
std::uint32_t Rescue_GetCheckSum(void);
const char *Rescue_GetVersion(void);

// Writes the record's file to the rescue slot, in place, and after that `record`, 16 bytes of version text.
// Overwrites the load buffer; draws 50, 70, 80 and 100 % of the bar. Returns 0, or -1 when the file cannot be read, is
// not an intact stored image, does not fit the slot or does not read back; the version record then still names the old
// image, so that the next start tries again.
int Rescue_Store(const char *record, std::uint32_t nand_boot);

// Reads a whole file, of up to 16 MiB, to `destination`. Returns the bytes read, which may be fewer than the file has,
// or -1; prints "\tFatal Error : unable to load bootloader into ram\n" when the file cannot be opened.
std::int32_t Rescue_LoadImageIntoMemory(const char *path, void *destination);

// Write `length` bytes of an image to the rescue slot and check what then lies there, overwriting the load buffer's
// start. Return 0 or -1. An image longer than the slot is refused before anything is written.
int Rescue_CopyImageToSDFlash(const void *image, std::uint32_t length);
int Rescue_CopyImageToNandFlash(const void *image, std::uint32_t length);

// Launches the image in the rescue slot (App.h tells how), header included. Prints its steps and draws 50 and 100 % of
// the bar. Returns -1, with no message of its own, when the slot holds no intact image; 0 only if the reset does not
// happen.
int Rescue_Load(std::uint32_t nand_boot);

// App_Reset under this module's name.
void Rescue_Reset(void);

} // extern "C"
