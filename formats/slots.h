// Where the raw flash of a board keeps its images: two bootloader slots, the rescue slot and the rescue version record,
// on either medium. The first-stage loader and the tools read slots with these routines, which skip bad blocks exactly
// as the bootloader's own driver does, so all of them see the same image.
//
//   const FlashReader read = ReaderOf(chips.nand);
//   const std::optional<unsigned> slot = ChooseBootloader(read, SlotsOf(Medium::nand));
//   StoredImage image = ReadSlot(read, SlotsOf(Medium::nand).bootloader[slot.value()]);
#pragma once

#include "formats/stored_image.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace fixture {

enum class Medium : std::uint8_t { nand, dataflash };
const char *NameOf(Medium medium);

struct Slot {
    const char *name;
    std::uint32_t address;  // first byte, counted in data bytes
    std::uint32_t capacity; // bytes up to what lies after it; the last one's on a chip of the usual size
};

// The bootloader states these addresses too (src/Medium.h). This second copy is on purpose: with one copy a wrong
// address would be wrong on both sides, and no test could see it.
struct SlotTable {
    std::array<Slot, 2> bootloader;
    Slot rescue;
    Slot record; // the text that names the stored rescue image's version
};
const SlotTable &SlotsOf(Medium medium);

// Reads `length` data bytes at a byte address of a medium. What lies beyond the chip reads as erased flash.
using FlashReader = std::function<std::vector<std::uint8_t>(std::uint32_t address, std::uint32_t length)>;

StoredImage ReadSlot(const FlashReader &read, const Slot &slot);
// The bootloader slot that the first-stage loader starts: the first with a good image; none: the board is dead.
std::optional<unsigned> ChooseBootloader(const FlashReader &read, const SlotTable &slots);
// The bootloader slot that an update is written to: one without a header, else one without a good image, else slot 0.
unsigned ChooseUpdateSlot(const FlashReader &read, const SlotTable &slots);

} // namespace fixture
