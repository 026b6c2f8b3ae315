// What the raw flash of a board holds: two bootloader slots, the rescue slot and the rescue version record, on either
// medium. The first-stage loader and the tools read slots with these routines, which skip bad blocks exactly as the
// bootloader's own driver does, so all of them see the same image.
//
//   const FlashReader read = ReaderOf(chips.nand);
//   const std::optional<unsigned> slot = ChooseBootloader(read, SlotsOf(Medium::nand));
//   StoredImage image = ReadSlot(read, SlotsOf(Medium::nand).bootloader[slot.value()]);
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

inline constexpr char kMakerText[] = "Orvalis Luminations"; // what every stored image begins with, terminator included

enum class Medium : std::uint8_t { nand, dataflash };

struct Slot {
    const char *name;
    std::uint32_t address;  // first byte, counted in data bytes
    std::uint32_t capacity; // bytes up to what lies behind it; the last one's on a chip of the usual size
};

struct SlotTable {
    std::array<Slot, 2> bootloader;
    Slot rescue;
    Slot record; // the text that names the stored rescue image's version
};
const SlotTable &SlotsOf(Medium medium);

// Reads `length` data bytes at a byte address of a medium. What lies beyond the chip reads as erased flash.
using FlashReader = std::function<std::vector<std::uint8_t>(std::uint32_t address, std::uint32_t length)>;

inline constexpr std::uint32_t kImageHeaderBytes = 32;

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
// what is to be thought of it.
struct StoredImage {
    ImageVerdict verdict = ImageVerdict::erased;
    std::uint32_t size = 0; // the header's size field: header and body
    ImageSums stored;       // as the header has them
    ImageSums computed;     // over the body; only where maker and size are good
    std::vector<std::uint8_t> bytes;
};

// Judges an image that begins at `bytes` and may be at most `capacity` bytes long.
StoredImage JudgeImage(std::span<const std::uint8_t> bytes, std::uint32_t capacity);
StoredImage ReadSlot(const FlashReader &read, const Slot &slot);
// The bootloader slot that the first-stage loader starts: the first with a good image; none: the board is dead.
std::optional<unsigned> ChooseBootloader(const FlashReader &read, const SlotTable &slots);

} // namespace fixture
