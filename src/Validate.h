// The checks that decide what is launched and what is written to raw flash.
//
// Validate_Bank is the way in, called by main for each bank; it calls all the rest. Unless said otherwise, a result of
// 0 is success or "yes" and -1 failure or "no".
//
//   nand_boot   the boot medium: 0 = serial DataFlash, anything else = NAND flash
//   image_load_buf (<memory_map.h>) holds whatever was read last; each routine says when it overwrites it
#pragma once

#include "Medium.h"

#include <cstdint>

extern "C" {

// Banks (Validate.cpp) ------------------------------------------------------------------------------------------------

// Deals with one bank: reads its descriptor and manifest, refreshes the rescue image and the bootloader in raw flash
// where the bank has other versions, and launches its application. Restarts the watchdog and empties the image records
// first.
//
//   bank   directory, ending in "/"; so short that a file's path fits in 255 characters
//
// Does not return when the application is launched or the bootloader was replaced. Returns 0 when the bank lists no
// bootloader or no application, or the launch came back. Returns -1 when the descriptor ("error processing project
// descriptor file\n"), the manifest (silently) or the application ("\tValidate_File(path, sum, size) Failed!!!", no
// line end) is no good. Updates that fail are reported and change no result.
int Validate_Bank(const char *bank, std::uint32_t nand_boot);

// The part of it that begins with the manifest: "BankContent.txt", records of exactly 282 bytes, the first two of them
// a header. A record counts when its path contains "bin/" and the descriptor gives it a type; the last one of a type
// wins.
int Validate_BankContent(const char *bank, std::uint32_t nand_boot);

// Reads a file into the load buffer and compares its size and its byte-sum (all bytes added up modulo 2^32).
// Prints "filesize check %i != %i\n" (expected, found) for another size; every other failure, a size of more than
// 16 MiB included, is silent. The file stays open.
int Validate_File(const char *path, std::uint32_t checksum, std::uint32_t size);

// Versions (ValidateVersion.cpp) --------------------------------------------------------------------------------------
// Any difference in the text counts as new, older versions included.

// Compares the bank's bootloader with the running one and prints both versions.
int Validate_IsNewBootVersion(void);

// Compares the bank's rescue image with the version record in raw flash.
//
//   record   16 bytes; on a result of 0 the new version, zero-padded, as Rescue_Store takes it
//
// Returns -1 also when the record cannot be read, or when what was read is the beginning of a stored image.
int Validate_IsNewRescueVersion(char *record, std::uint32_t nand_boot);

// Stored images (ValidateImage.cpp; format in StoredImage.h) ----------------------------------------------------------

// Looks for the maker text at a slot's address. Prints "\tValid header at address 0x%08x\n", "\tInvalid header at
// address 0x%08x\n", or "\tSDFlash read header failed\n" / "\tNandFlash read header failed\n".
int Validate_Header(const Medium &medium, std::uint32_t address);
int Validate_SDFlashHeader(std::uint32_t address);
int Validate_NandFlashHeader(std::uint32_t address);

// Reads a whole image into the load buffer, from its first byte on, and checks its sums. The maker text is not looked
// at. Silent but for the drivers' own messages.
int Validate_Image(const Medium &medium, std::uint32_t address);
int Validate_SDFlashImage(std::uint32_t address);
int Validate_NandFlashImage(std::uint32_t address);

// The same for an image of at most `largest` bytes: the load buffer is overwritten up to largest + 32 bytes.
int Validate_ImageWithin(const Medium &medium, std::uint32_t address, std::uint32_t largest);

// Zeroes the header of a slot that has the maker text; leaves any other slot alone and returns 0. On NAND the rest of
// the header's block is erased with it.
int Validate_InvalidateImage(const Medium &medium, std::uint32_t address);
int Validate_SDFlashInvalidateImage(std::uint32_t address);
int Validate_NandFlashInvalidateImage(std::uint32_t address);

// Checks an image in memory by its own size field, which must be 32 bytes to 16 MiB.
int Validate_RamChecksums(const void *image);

// The same for an image of which only `loaded` bytes were read: a size field that claims more is no good.
int Validate_LoadedImage(const void *image, std::uint32_t loaded);

// The image's size field, unchecked.
std::uint32_t Validate_ImageSize(const void *image);

// Whether an image in memory begins with the maker text: 1 or 0.
int Validate_HasMaker(const void *image);

} // extern "C"
