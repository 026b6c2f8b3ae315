#include "flash_report.h"

#include "at45.h"
#include "nand.h"

#include <algorithm>
#include <fmt/format.h>

using fixture::Medium;
using fixture::Slot;
using fixture::SlotTable;

namespace {

// A check reads this much behind an image; a DataFlash refuses to read beyond its end.
constexpr std::uint32_t kReadBehind = 32;
constexpr std::uint32_t kRecordBlock = 1;
// A record that reads so is none: it is the beginning of an image, read behind a bad block.
constexpr std::string_view kNoRecord = "Orvalis Luminati";

std::vector<std::uint32_t> BadBlocksOf(const fixture::NandContents &contents) {
    std::vector<std::uint32_t> bad;
    for (std::uint32_t block = 0; block < fixture::kNandBlocks; block++)
        if (contents.marked_bad(block)) bad.push_back(block);
    return bad;
}

std::uint32_t BadBlocksIn(const RawFlash &flash, const Slot &slot) {
    const std::uint32_t first = slot.address / flash.unit;
    const std::uint32_t end = (slot.address + slot.capacity) / flash.unit;
    return static_cast<std::uint32_t>(
        std::count_if(flash.bad_blocks.begin(), flash.bad_blocks.end(),
                      [=](std::uint32_t block) { return block >= first && block < end; }));
}

bool IsBad(const RawFlash &flash, std::uint32_t block) {
    return std::find(flash.bad_blocks.begin(), flash.bad_blocks.end(), block) != flash.bad_blocks.end();
}

// Nothing lies behind the rescue image on a DataFlash: it may reach to the end of this chip.
Slot RescueOn(const RawFlash &flash) {
    Slot slot = SlotsOf(flash.medium).rescue;
    if (flash.medium == Medium::dataflash)
        slot.capacity = flash.bytes < slot.address + kReadBehind ? 0 : flash.bytes - slot.address - kReadBehind;
    return slot;
}

std::string RecordText(const std::vector<std::uint8_t> &record) {
    std::string text;
    for (const std::uint8_t byte : record) {
        if (byte == 0) break;
        text += byte >= 0x20 && byte < 0x7F ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02X}", byte);
    }
    return std::all_of(record.begin(), record.end(), [](std::uint8_t byte) { return byte == 0xFF; }) ? "" : text;
}

// Bytes in use between two addresses.
std::size_t UsedBytes(const RawFlash &flash, std::uint32_t from, std::uint32_t to) {
    const std::vector<std::uint8_t> bytes = flash.read(from, to - from);
    return bytes.size() - static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), std::uint8_t{0xFF}));
}

void WarnOfBadBlocks(const RawFlash &flash, const SlotReport &report, std::vector<std::string> &warnings) {
    const std::uint32_t bad = BadBlocksIn(flash, report.slot);
    if (bad == 0) return;
    warnings.push_back(fmt::format("{}: {} bad block{} inside it; an image above {} bytes runs into what follows",
                                   report.slot.name, bad, bad == 1 ? "" : "s", report.room));
    if (report.image.verdict == fixture::ImageVerdict::good && report.image.size > report.room)
        warnings.push_back(
            fmt::format("{}: the last {} bytes of its image lie in what follows and are lost when that is "
                        "written",
                        report.slot.name, report.image.size - report.room));
}

void WarnOfRecordBlock(const RawFlash &flash, std::vector<std::string> &warnings) {
    if (IsBad(flash, kRecordBlock))
        warnings.push_back("block 1 is bad: the version record would lie in bootloader slot 0, so the rescue image is "
                           "not updated while a bootloader is there");
}

// A page is rewritten as a whole, so a power cut takes with it what it holds of a neighbour.
void WarnOfSharedPages(const RawFlash &flash, const Slot &slot, std::vector<std::string> &warnings) {
    const std::uint32_t page = slot.address / flash.unit;
    const std::uint32_t begin = page * flash.unit;
    if (slot.address >= flash.bytes) return;
    const std::size_t before = UsedBytes(flash, begin, slot.address);
    if (before > 0)
        warnings.push_back(fmt::format("{}: page {} holds {} bytes of what lies before it; a power cut while one is "
                                       "written can destroy the other",
                                       slot.name, page, before));
}

void WarnBehindRecord(const RawFlash &flash, const Slot &record, std::vector<std::string> &warnings) {
    const std::uint32_t end = record.address + record.capacity;
    const std::uint32_t page = record.address / flash.unit;
    const std::size_t behind = UsedBytes(flash, end, (page + 1) * flash.unit);
    if (behind > 0)
        warnings.push_back(
            fmt::format("version record: page {} holds {} bytes of what lies behind it; a power cut while "
                        "the record is written can destroy them",
                        page, behind));
}

void WarnOfChipEnd(const SlotReport &report, std::vector<std::string> &warnings) {
    if (report.room >= fixture::kImageHeaderBytes) return;
    warnings.push_back(fmt::format("{}: beyond the end of the chip", report.slot.name));
}

std::vector<std::string> WarningsOf(const RawFlash &flash, const FlashReport &report) {
    const SlotTable &table = SlotsOf(flash.medium);
    std::vector<std::string> warnings;
    if (flash.medium == Medium::nand) WarnOfRecordBlock(flash, warnings);
    if (flash.medium == Medium::dataflash) {
        WarnOfSharedPages(flash, table.record, warnings);
        WarnBehindRecord(flash, table.record, warnings);
    }
    for (const SlotReport &slot : report.slots) {
        WarnOfChipEnd(slot, warnings);
        if (flash.medium == Medium::nand)
            WarnOfBadBlocks(flash, slot, warnings);
        else
            WarnOfSharedPages(flash, slot.slot, warnings);
    }
    return warnings;
}

void RefuseUnlessItFits(const RawFlash &flash, const Slot &slot, const Bytes &image) {
    const std::uint32_t room = RoomIn(flash, slot);
    if (image.size() > room)
        throw Refusal(fmt::format("{} of the {} {}: {} bytes; expected at most {}{}", slot.name, flash.part,
                                  NameOf(flash.medium), image.size(), room,
                                  BadBlocksIn(flash, slot) > 0 ? ", which its bad blocks leave" : ""));
}

void RefuseUnreadableRecord(const RawFlash &flash, const Provision &provision) {
    const std::size_t most = SlotsOf(flash.medium).record.capacity;
    const std::string &version = provision.rescue_version;
    if (version.empty() || version.size() > most)
        throw Refusal(
            fmt::format("rescue version \"{}\": {} characters; expected 1 to {}", version, version.size(), most));
    if (version == kNoRecord)
        throw Refusal(
            fmt::format("rescue version \"{}\": the beginning of the maker text counts as no version", version));
    if (flash.medium == Medium::nand && IsBad(flash, kRecordBlock))
        throw Refusal("block 1 is bad: a rescue version written there would fall into bootloader slot 0");
}

void EraseSlot(const RawFlash &flash, const Slot &slot) {
    const std::uint32_t end = std::min(flash.bytes, slot.address + slot.capacity);
    if (slot.address >= end) return;
    // A NAND write moves on behind bad blocks, so it is told only as much as the good ones take.
    const std::uint32_t length = end - slot.address - BadBlocksIn(flash, slot) * flash.unit;
    flash.write(slot.address, Bytes(length, 0xFF));
}

} // namespace

RawFlash RawFlashOf(fixture::At45Contents &contents) {
    return {
        Medium::dataflash,
        contents.part().name,
        contents.bytes(),
        contents.part().page_bytes,
        {},
        ReaderOf(contents),
        [&contents](std::uint32_t address, std::span<const std::uint8_t> bytes) { contents.write(address, bytes); }};
}

RawFlash RawFlashOf(fixture::NandContents &contents) {
    RawFlash flash{Medium::nand,
                   contents.part() ? contents.part()->name : "(none)",
                   fixture::kNandBytes,
                   fixture::kNandBlockBytes,
                   BadBlocksOf(contents),
                   ReaderOf(contents),
                   {}};
    flash.write = [&contents](std::uint32_t address, std::span<const std::uint8_t> bytes) {
        for (std::uint32_t block = address / fixture::kNandBlockBytes; !bytes.empty(); block++) {
            if (contents.marked_bad(block)) continue;
            const auto part = bytes.first(std::min<std::size_t>(bytes.size(), fixture::kNandBlockBytes));
            contents.erase(block);
            contents.write(block * fixture::kNandBlockBytes, part);
            bytes = bytes.subspan(part.size());
        }
    };
    return flash;
}

const char *NameOf(Medium medium) { return medium == Medium::nand ? "NAND" : "DataFlash"; }

std::uint32_t RoomIn(const RawFlash &flash, const Slot &slot) {
    if (flash.medium == Medium::nand) return slot.capacity - BadBlocksIn(flash, slot) * flash.unit;
    if (flash.bytes < slot.address + kReadBehind) return 0;
    return std::min(slot.capacity, flash.bytes - slot.address - kReadBehind);
}

FlashReport ExamineFlash(const RawFlash &flash) {
    const SlotTable &table = SlotsOf(flash.medium);
    FlashReport report{flash.medium, flash.part, flash.bad_blocks, {}, "", {}, {}};
    for (const Slot &slot : {table.bootloader[0], table.bootloader[1], RescueOn(flash)})
        report.slots.push_back({slot, RoomIn(flash, slot), ReadSlot(flash.read, slot)});
    const std::string record = RecordText(flash.read(table.record.address, table.record.capacity));
    if (record != kNoRecord) report.record = record;
    report.first_stage = ChooseBootloader(flash.read, table);
    report.warnings = WarningsOf(flash, report);
    return report;
}

void StoreProvision(const RawFlash &flash, const Provision &provision) {
    const SlotTable &table = SlotsOf(flash.medium);
    RefuseUnlessItFits(flash, table.bootloader.at(provision.slot), provision.bootloader);
    if (!provision.rescue.empty()) {
        RefuseUnlessItFits(flash, RescueOn(flash), provision.rescue);
        RefuseUnreadableRecord(flash, provision);
    }
    EraseSlot(flash, table.bootloader.at(1 - provision.slot));
    flash.write(table.bootloader[provision.slot].address, provision.bootloader);
    if (provision.rescue.empty()) return;
    flash.write(table.rescue.address, provision.rescue);
    Bytes record(provision.rescue_version.begin(), provision.rescue_version.end());
    record.resize(table.record.capacity);
    flash.write(table.record.address, record);
}
