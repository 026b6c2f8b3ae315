#include "sweep/regions.h"

#include "machine/raw_flash.h"

#include <algorithm>
#include <string_view>

namespace fixture {

namespace {

bool AllAre(const Bytes &bytes, std::uint8_t value) {
    return std::all_of(bytes.begin(), bytes.end(), [=](std::uint8_t byte) { return byte == value; });
}

bool HoldsText(const Bytes &bytes, std::string_view text) {
    return std::equal(bytes.begin(), bytes.end(), text.begin(), text.end(),
                      [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
}

char SlotLetter(const FlashReader &read, const Slot &slot, const Bytes &old_image, const Bytes &new_image) {
    const StoredImage image = ReadSlot(read, slot);
    if (image.verdict() == ImageVerdict::good)
        // Old before new: where the bank carries no update the two are one image, and nothing has changed.
        return image.bytes == old_image ? 'o' : image.bytes == new_image ? 'n' : 'f';
    // Of an image that is not whole the text at its head is all that decides what the first stage and an update do.
    const Bytes maker = read(slot.address, sizeof kMakerText);
    if (AllAre(maker, 0xFF)) return 'e';
    if (AllAre(maker, 0x00)) return 'z';
    return HoldsText(maker, {kMakerText, sizeof kMakerText}) ? 'h' : 'x';
}

char RecordLetter(const FlashReader &read, const Slot &record, const World &world) {
    const Bytes text = read(record.address, record.capacity);
    if (AllAre(text, 0xFF)) return 'e';
    if (SaysTheSame(text, world.before.record)) return 'o';
    return SaysTheSame(text, world.after.record) ? 'n' : 'x';
}

char MarkDigit(const Chips &chips, const World &world, std::uint32_t begin, std::uint32_t end) {
    if (world.medium != Medium::nand) return '0';
    for (std::uint32_t block = begin / kNandBlockBytes; block * kNandBlockBytes < end; ++block)
        // Blocks that were bad from the start belong to the world, not to what the update did.
        if (chips.nand.marked_bad(block) && !world.chips.nand.marked_bad(block)) return '1';
    return '0';
}

} // namespace

std::string RegionLetters(const Chips &chips, const World &world) {
    const FlashReader read = world.medium == Medium::nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
    const SlotTable &slots = SlotsOf(world.medium);
    std::string letters;
    for (const Slot &slot : slots.bootloader)
        letters += SlotLetter(read, slot, world.before.bootloader, world.after.bootloader);
    letters += SlotLetter(read, slots.rescue, world.before.rescue, world.after.rescue);
    letters += RecordLetter(read, slots.record, world);
    for (const Slot *slot : {&slots.bootloader[0], &slots.bootloader[1], &slots.rescue, &slots.record})
        letters += MarkDigit(chips, world, slot->address, slot->address + slot->capacity);
    return letters;
}

} // namespace fixture
