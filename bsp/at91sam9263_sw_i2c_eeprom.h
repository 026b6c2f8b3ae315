// The parameter store: small tagged parameters on a 24LC16 EEPROM (2,048 bytes) on the two-wire bus.
//
// The store keeps two sectors, at addresses 0x000 and 0x400. A commit writes the whole image into the sector that is
// not current and only then cleans the other one's header, so that a commit that is cut short leaves the old image.
// A sector image is at most 1,000 bytes; multi-byte fields are big-endian:
//
//   0           2   sequence word; 0xFFFF = empty sector
//   2           2   used length, header and end marker included
//   4           2   checksum: makes the 16-bit sum of the used bytes, itself counted as a number, 0
//   6           ..  records: 2-byte tag (12-bit identifier, 4-bit data length), then 0 to 15 data bytes
//   length - 2  2   end marker 0xFF 0xFF
//
// InitEEpromParameters comes first (before it every lookup is "not found"). Parameters are read and changed in
// memory; CommitBuffer writes them out. A blank chip stays blank: with no valid sector there is no image to change.
//
// Kept: the number of a 256-byte block goes into the control byte unshifted, so that store addresses 0x000 and 0x100,
// 0x400 and 0x500 (and so on) reach the same chip bytes. Images of up to 256 bytes are safe; longer ones overlap.
//
// Results: 0 done; codes 1 to 7 of the bus (at91sam9263_sw_i2c.h), where 1 also means out of range, bad checksum or
// not found; 8 and 9 below. Nothing is printed. Calls come from one task at a time.
#pragma once

#include <bootloader.h>
#include <cstdint>

inline constexpr int kStoreFailed = 1;
inline constexpr int kStoreNoRoom = 8;
inline constexpr int kStoreEmpty = 9; // no sector holds an image

extern "C" {

// Raw transfers at byte addresses 0 to 0x7FF. `count`: in, bytes wanted; out, bytes done.
// Reading: 1 where the range does not end by 0x800. The result is the last piece's; bytes of a piece that failed before
// its data are stepped over and counted. Writing: 1 where the address or the count is above 0x800 (their sum is not
// checked); goes out in pieces that stay inside the chip's 16-byte pages, waiting for the chip between them.
int ReadEEprom_24LC16(std::uint16_t address, std::uint8_t *buffer, std::uint16_t *count);
int WriteEEprom_24LC16(std::uint16_t address, const std::uint8_t *buffer, std::uint16_t *count);

// The checksum an image with zeroed checksum bytes should carry. Sums at most 1,000 bytes, whatever its length says.
std::uint16_t generateChkSum(const std::uint8_t *image);
// 0 if the image's checksum is right, else 1. The image is as before when it returns.
int checkChkSum(std::uint8_t *image);

// A record's two-byte tag, to and from its 12-bit identifier and 4-bit length.
void decodeParam(const std::uint8_t *tag, std::uint16_t *identifier, std::uint16_t *length);
void encodeParam(std::uint8_t *tag, std::uint16_t identifier, std::uint16_t length);

// Looks a parameter up in the current image: 0 found, 1 not. `buffer` has room for 15 bytes; `length` is only written.
int readEEpromParameter(std::uint16_t identifier, std::uint8_t *buffer, std::uint16_t *length);
// Replaces or appends a parameter in memory. 1: length over 15, identifier over 0xFFE, or an image without end marker;
// 8: no room, a blank image included. Nothing has changed then.
int WriteEEpromParameter(std::uint16_t identifier, const std::uint8_t *data, std::uint16_t length);

// Writes the current image to the sector that is not current; on success the two change roles and the old one's
// header is cleaned. 0 once written, whatever became of the cleaning. After a failure the roles are as before.
int CommitBuffer(void);

// Reads `length` bytes (8 to 1,000, else 1) of the sector at `address` into the current image and checks the sum.
int ReadAndCheckSector(std::uint16_t address, std::uint16_t length);
// Marks the sector at `address` as empty.
int cleanSector(std::uint16_t address);
// Finds and loads the current sector: the one with the larger sequence word (sector 0 if equal), failing that the
// other. 0 found; 9 both empty; else why neither could be loaded: the current image is then all 0xFF, except where
// a header could not be read: then nothing has changed.
int IdentifyValidSector(void);
// Empties both buffers and loads the current sector. Returns 0, found or not.
int InitEEpromParameters(void);

} // extern "C"
