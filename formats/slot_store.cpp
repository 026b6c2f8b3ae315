#include "formats/slot_store.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

Refusal Refused(const RawFlash &flash, const char *place, const std::string &found, const std::string &expected) {
    return Refusal(fmt::format("{} of the {}", place, flash.part), found, expected);
}

// A write there would go on into block 2, where bootloader 0 begins.
void RefuseBadRecordBlock(const RawFlash &flash) {
    if (flash.medium == Medium::nand && flash.is_bad(kRecordBlock))
        throw Refusal(fmt::format("version record of the {}", flash.part),
                      "block 1 is bad: the record would fall into bootloader slot 0", "", "record-block-bad");
}

} // namespace

void StoreInSlot(const RawFlash &flash, const Slot &slot, const Bytes &image) {
    const std::uint32_t room = RoomIn(flash, slot);
    if (image.size() > room)
        throw Refused(flash, slot.name, fmt::format("{} bytes", image.size()),
                      fmt::format("at most {}, what the chip leaves of the slot", room));
    flash.write(slot.address, image);
}

void EraseSlot(const RawFlash &flash, const Slot &slot) {
    const std::uint32_t end = std::min(flash.bytes, slot.address + slot.capacity);
    if (slot.address >= end) return;
    // A NAND write moves on after bad blocks, so it is told only as much as the good ones take.
    std::uint32_t length = end - slot.address;
    for (const std::uint32_t block : flash.bad_blocks)
        if (block >= slot.address / flash.unit && block < end / flash.unit) length -= flash.unit;
    flash.write(slot.address, Bytes(length, 0xFF));
}

void RefuseRecord(const RawFlash &flash, const std::string &version) {
    const std::size_t most = SlotsOf(flash.medium).record.capacity;
    const std::string where = fmt::format("rescue version \"{}\"", version);
    if (version.empty() || version.size() > most)
        throw Refusal(where, fmt::format("{} characters", version.size()), fmt::format("1 to {}", most), "bad-version");
    // A board that reads it back would never store a rescue image again.
    if (version == kNoRecord)
        throw Refusal(where, "the beginning of the maker text counts as no version", "", "bad-version");
    RefuseBadRecordBlock(flash);
}

void StoreRecord(const RawFlash &flash, const std::string &version) {
    RefuseRecord(flash, version);
    const Slot &slot = SlotsOf(flash.medium).record;
    Bytes record(version.begin(), version.end());
    // Filled up with zeros, as the bootloader fills its own: a board from production is like one after an update.
    record.resize(slot.capacity);
    flash.write(slot.address, record);
}

void EraseRecord(const RawFlash &flash) {
    RefuseBadRecordBlock(flash);
    const Slot &slot = SlotsOf(flash.medium).record;
    flash.write(slot.address, Bytes(slot.capacity, 0xFF));
}

} // namespace fixture
