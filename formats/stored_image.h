// Stored images: what the raw flash slots hold, and what a bank carries for them. 32 bytes of header, little-endian,
// then the body:
//
//   0   20  maker text with its terminator
//   20   4  size in bytes, header included
//   24   4  sum1: 0x01234567 plus every byte of the body
//   28   4  sum2: 0x89ABCDEF plus sum1 after every byte
#pragma once

#include "formats/file.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace fixture {

// The bootloader reads a slot with its size and 32 bytes more into its load buffer of 16 MiB.
inline constexpr std::uint32_t kLargestStoredImage = (16u << 20) - 32;

bool HasMaker(std::span<const std::uint8_t> bytes);

// The body behind a header of its own.
Bytes Wrap(std::span<const std::uint8_t> body);

// A flat binary as it is; an ELF executable laid out by its segments' physical addresses. Throws Refusal for an ELF
// file that is broken, not for the ARM, or not entered at its first byte.
Bytes ReadFlatImage(const std::filesystem::path &file);

// ReadFlatImage, wrapped. Throws Refusal for an image that is empty, too large or wrapped already.
Bytes WrapFile(const std::filesystem::path &file);

struct ImageField {
    std::string name;
    std::string value;
    bool valid;
    std::string expected; // empty where it is valid
};

struct SlotFit {
    const char *medium;
    const char *slot;
    std::uint32_t capacity;
    bool fits;
};

struct ImageReport {
    std::vector<ImageField> fields;
    std::uint32_t size = 0;     // as the header has it
    std::size_t trailing = 0;   // bytes of the file behind the image
    std::vector<SlotFit> slots; // by size alone; none where the size is not valid
    bool good() const;
    // The first field that is not valid, in words; empty where all are.
    std::string problem() const;
};

// Examines a file of at least 32 bytes; a shorter one gives a report that says so.
ImageReport ExamineImage(std::span<const std::uint8_t> file);

} // namespace fixture
