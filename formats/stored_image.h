// Stored images: what the raw flash slots hold, and what a bank carries for them. 32 bytes of header, little-endian,
// then the body:
//
//   0   20  maker text with its terminator
//   20   4  size in bytes, header included
//   24   4  sum1: 0x01234567 plus every byte of the body
//   28   4  sum2: 0x89ABCDEF plus sum1 after every byte
//
//   const Bytes image = ReadStoredImage("bootloader.elf");     wrapped, since it has no header yet
//   const StoredImage judged = JudgeImage(image, slot.capacity);
//   if (judged.verdict() != ImageVerdict::good) throw Refusal("bootloader.elf", NameOf(judged.verdict()));
#pragma once

#include "formats/elf_image.h"
#include "formats/file.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

// This layout and the limits below stand in the bootloader's sources too (src/StoredImage.h). The bench states them
// again on purpose: with one copy a wrong figure would be wrong on both sides, and no test could see it.
inline constexpr char kMakerText[] = "Orvalis Luminations"; // what every stored image begins with, terminator included
inline constexpr std::uint32_t kImageHeaderBytes = 32;
// A slot is read with the image's size and 32 bytes more into the load buffer of 16 MiB.
inline constexpr std::uint32_t kLargestStoredImage = (16u << 20) - 32;

enum class ImageVerdict : std::uint8_t {
    erased,   // nothing there: the header is erased flash
    no_maker, // the maker text is another one
    bad_size, // the size field is below the header's own length or above what the place can hold
    bad_sums, // the body does not give the header's sums
    good,
};
const char *NameOf(ImageVerdict verdict);

struct ImageSums {
    std::uint32_t sum1 = 0x01234567;
    std::uint32_t sum2 = 0x89ABCDEF;
    bool operator==(const ImageSums &) const = default;
};
ImageSums SumsOf(std::span<const std::uint8_t> body);

// A stored image: its header's fields, all its bytes (header and body; the header alone where the size is no good) and
// what is right about it. The bootloader looks at these one by one: it stores a rescue image of any maker.
struct StoredImage {
    bool erased = true; // all of the header, or what there is of it
    bool whole_header = false;
    bool maker = false;
    bool sized = false;     // the size field fits the place and the bytes that are there
    std::uint32_t size = 0; // the header's size field: header and body
    ImageSums stored;       // as the header has them
    ImageSums computed;     // over the body, where it is sized
    std::vector<std::uint8_t> bytes;

    bool sums_agree() const { return sized && stored == computed; }
    // The first thing that keeps the first stage from starting it.
    ImageVerdict verdict() const;
    // Good by its header and with nothing after it: a board that stores it is lost.
    bool has_no_body() const { return verdict() == ImageVerdict::good && size == kImageHeaderBytes; }
};
// Judges an image that begins at `bytes` and may be at most `capacity` bytes long.
StoredImage JudgeImage(std::span<const std::uint8_t> bytes, std::uint32_t capacity);

bool HasMaker(std::span<const std::uint8_t> bytes);

// The word whose lowest byte is at `at`, as a header's fields are stored; `bytes` reaches to its end.
std::uint32_t Little32(std::span<const std::uint8_t> bytes, std::size_t at);
// Where a header's fields begin: the maker text takes the first 20 bytes with its terminator.
inline constexpr std::size_t kSizeOffset = sizeof kMakerText;
inline constexpr std::size_t kSumsOffset = kSizeOffset + 4; // both sums, one after the other

// The body after a header of its own.
Bytes Wrap(std::span<const std::uint8_t> body);

// --- from files; all of these throw Refusal

// An executable, laid out by its segments' physical addresses, or the bytes of a file that is none.
struct FlatImage {
    Bytes bytes;
    std::optional<ElfImage> elf;
};
// Refuses an ELF file that is broken or not for the ARM.
FlatImage ReadFlatImage(const std::filesystem::path &file);

// An image that the first stage starts at its first byte: refuses an ELF file that is entered elsewhere.
Bytes ReadStartedImage(const std::filesystem::path &file);

// An image without a header, and the header put on. Refuses one that is empty, too large or wrapped already.
Bytes WrapFile(const std::filesystem::path &file);

// A stored image as it is, which must be good, and without what follows it in the file; anything else wrapped.
Bytes ReadStoredImage(const std::filesystem::path &file);

// --- for reports

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
    StoredImage image;
    std::vector<ImageField> fields;
    std::size_t trailing = 0;   // bytes of the file after the image
    std::vector<SlotFit> slots; // by size alone; none where the size is not valid
    bool good() const { return image.verdict() == ImageVerdict::good; }
    // The first field that is not valid, in words; empty where all are.
    std::string problem() const;
};

// Examines a file of at least 32 bytes; a shorter one gives a report that says so.
ImageReport ExamineImage(std::span<const std::uint8_t> file);

} // namespace fixture
