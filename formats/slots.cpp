#include "formats/slots.h"

#include <algorithm>

namespace fixture {

namespace {

constexpr SlotTable kNandSlots{
    {{{"bootloader 0", 0x00040000, 0x1E0000}, {"bootloader 1", 0x00220000, 0x1E0000}}},
    {"rescue", 0x00400000, 0xC00000},
    {"version record", 0x00020000, 16},
};
constexpr SlotTable kDataflashSlots{
    {{{"bootloader 0", 0x00008000, 0x1FC000}, {"bootloader 1", 0x00204000, 0x200000}}},
    // Up to the end of an AT45DB642, 8,192 pages of 1,056 bytes, less the 32 bytes that a check reads after an image.
    // SlotsOn() has the end of the chip at hand.
    {"rescue", 0x00404000, 8192 * 1056 - 0x00404000 - 32},
    {"version record", 0x00007F00, 16},
};

// The slot that one of two tests finds wanting: the later one, as the bootloader's loop over them leaves it.
template <typename Test> std::optional<unsigned> Wanting(const SlotTable &slots, Test good) {
    for (const unsigned slot : {1u, 0u})
        if (!good(slots.bootloader[slot])) return slot;
    return std::nullopt;
}

} // namespace

const SlotTable &SlotsOf(Medium medium) { return medium == Medium::nand ? kNandSlots : kDataflashSlots; }
const char *NameOf(Medium medium) { return medium == Medium::nand ? "NAND" : "DataFlash"; }

StoredImage ReadSlot(const FlashReader &read, const Slot &slot) {
    // The header first: a size out of a damaged page must not say how much is read.
    const std::vector<std::uint8_t> header = read(slot.address, kImageHeaderBytes);
    const std::uint32_t size = JudgeImage(header, slot.capacity).size;
    if (size < kImageHeaderBytes || size > slot.capacity) return JudgeImage(header, slot.capacity);
    return JudgeImage(read(slot.address, size), slot.capacity);
}

std::optional<unsigned> ChooseBootloader(const FlashReader &read, const SlotTable &slots) {
    for (unsigned slot = 0; slot < slots.bootloader.size(); ++slot)
        if (ReadSlot(read, slots.bootloader[slot]).verdict() == ImageVerdict::good) return slot;
    return std::nullopt;
}

unsigned ChooseUpdateSlot(const FlashReader &read, const SlotTable &slots) {
    const auto no_header =
        Wanting(slots, [&](const Slot &slot) { return HasMaker(read(slot.address, kImageHeaderBytes)); });
    if (no_header) return *no_header;
    return Wanting(slots, [&](const Slot &slot) { return ReadSlot(read, slot).sums_agree(); }).value_or(0);
}

} // namespace fixture
