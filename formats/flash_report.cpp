#include "formats/flash_report.h"

#include "formats/slot_store.h"
#include "formats/warning_ids.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

std::uint32_t BadBlocksIn(const RawFlash &flash, const Slot &slot) {
    const std::uint32_t first = slot.address / flash.unit;
    const std::uint32_t end = (slot.address + slot.capacity) / flash.unit;
    return static_cast<std::uint32_t>(
        std::count_if(flash.bad_blocks.begin(), flash.bad_blocks.end(),
                      [=](std::uint32_t block) { return block >= first && block < end; }));
}

Slot RescueOn(const RawFlash &flash) { return SlotsOn(flash)[2]; }

std::string RecordText(const std::vector<std::uint8_t> &record) {
    const bool erased = std::all_of(record.begin(), record.end(), [](std::uint8_t byte) { return byte == 0xFF; });
    return erased ? "" : std::string(record.begin(), std::find(record.begin(), record.end(), 0));
}

// Bytes in use between two addresses.
std::size_t UsedBytes(const RawFlash &flash, std::uint32_t from, std::uint32_t to) {
    const std::vector<std::uint8_t> bytes = flash.read(from, to - from);
    return bytes.size() - static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), std::uint8_t{0xFF}));
}

// --- the holes, each named with the place it is in

using Warnings = Problems;

void Add(Warnings &warnings, WarningId id, std::string where, std::string text) {
    warnings.push_back({id, std::move(where), std::move(text), ""});
}

// What lies after a slot.
const char *After(const RawFlash &flash, const Slot &slot) {
    const SlotTable &table = SlotsOf(flash.medium);
    for (const Slot &next : {table.bootloader[1], table.rescue})
        if (next.address == slot.address + slot.capacity) return next.name;
    return "the file system's part";
}

// The largest image that an update tries to store; bad blocks do not stop it.
std::uint32_t MostIn(const RawFlash &flash, const Slot &slot) {
    return flash.medium == Medium::nand ? slot.capacity : RoomIn(flash, slot);
}

// The driver knows addresses, not slots: it steps over a bad block and goes on into whatever follows.
void WarnOfBadBlocks(const RawFlash &flash, const Slot &slot, Warnings &warnings) {
    const std::uint32_t bad = BadBlocksIn(flash, slot);
    if (bad > 0)
        Add(warnings, "slot-loses-room", slot.name,
            fmt::format("{} bad block{} inside it; an image above {} bytes runs on into {}", bad, bad == 1 ? "" : "s",
                        RoomIn(flash, slot), After(flash, slot)));
}

void WarnOfPushedTail(const RawFlash &flash, const Slot &slot, std::uint32_t bytes, Warnings &warnings) {
    const std::uint32_t room = RoomIn(flash, slot);
    if (flash.medium == Medium::nand && bytes > room && bytes <= slot.capacity)
        Add(warnings, "image-runs-on", slot.name,
            fmt::format("bad blocks push the last {} of {} bytes on into {}; whichever is written last destroys "
                        "the other",
                        bytes - room, bytes, After(flash, slot)));
}

// The record has one block. Past a bad one the driver comes to block 2, where bootloader 0 begins.
void WarnOfRecordBlock(const RawFlash &flash, Warnings &warnings) {
    if (flash.medium == Medium::nand && flash.is_bad(kRecordBlock))
        Add(warnings, "record-block-bad", "version record",
            "block 1 is bad: the record would lie in bootloader slot 0, so the rescue image is not updated while a "
            "bootloader is there");
}

// A page is rewritten as a whole, so a power cut takes with it what it holds of a neighbour.
void WarnOfSharedHead(const RawFlash &flash, const Slot &slot, Warnings &warnings) {
    if (flash.medium == Medium::nand || slot.address >= flash.bytes) return;
    const std::uint32_t page = slot.address / flash.unit;
    const std::size_t before = UsedBytes(flash, page * flash.unit, slot.address);
    if (before > 0)
        Add(warnings, "shared-page", slot.name,
            fmt::format("page {} holds {} bytes of what lies before it; a power cut while one is written can destroy "
                        "the other",
                        page, before));
}

// 528 and 1,056 divide no slot's address, so where one slot ends and the next begins there is a page of both.
void WarnOfSharedTail(const RawFlash &flash, const Slot &slot, std::uint32_t bytes, Warnings &warnings) {
    const std::uint32_t next = slot.address + slot.capacity;
    const std::uint32_t page = next / flash.unit;
    if (flash.medium == Medium::nand || slot.address + bytes <= page * flash.unit) return;
    Add(warnings, "shared-page", slot.name,
        fmt::format("the last {} of {} bytes share page {} with {}; a power cut while one is written can destroy the "
                    "other",
                    slot.address + bytes - page * flash.unit, bytes, page, After(flash, slot)));
}

void WarnOfRecordPage(const RawFlash &flash, Warnings &warnings) {
    if (flash.medium == Medium::nand) return;
    const Slot &record = SlotsOf(flash.medium).record;
    WarnOfSharedHead(flash, record, warnings);
    const std::uint32_t page = record.address / flash.unit;
    const std::size_t after = UsedBytes(flash, record.address + record.capacity, (page + 1) * flash.unit);
    if (after > 0)
        Add(warnings, "shared-page", record.name,
            fmt::format("page {} holds {} bytes of what lies after it; a power cut while the record is written can "
                        "destroy them",
                        page, after));
}

// An update goes to the slot that does not run. Where the image fits one slot alone, every second update has no place.
void WarnOfOnlySlot(const RawFlash &flash, std::uint32_t bytes, Warnings &warnings) {
    const auto &slots = SlotsOf(flash.medium).bootloader;
    const bool fits[2] = {bytes <= MostIn(flash, slots[0]), bytes <= MostIn(flash, slots[1])};
    if (fits[0] == fits[1]) return;
    Add(warnings, "only-one-slot", slots[fits[1]].name,
        fmt::format("{} bytes fit here alone; a board that starts from here refuses such an update{}", bytes,
                    fits[1] ? ", and one whose power goes before the old bootloader is retired keeps the old one"
                            : ""));
}

void WarnOfChipEnd(const SlotReport &report, Warnings &warnings) {
    if (report.room >= kImageHeaderBytes) return;
    Add(warnings, "beyond-the-chip", report.slot.name, "beyond the end of the chip");
}

// There is one rescue slot, and a cut update leaves no image in it.
void WarnOfLostRescue(const FlashReport &report, Warnings &warnings) {
    const ImageVerdict verdict = report.slots.back().image.verdict();
    if (verdict == ImageVerdict::good || (verdict == ImageVerdict::erased && report.record.empty())) return;
    const std::string same = report.record.empty() ? "" : fmt::format(", unless its version is \"{}\"", report.record);
    Add(warnings, "rescue-lost", report.slots.back().slot.name,
        "no good image, as after a power cut while one was stored; the next boot with a bank that carries one stores "
        "it" +
            same);
}

// Header and sums are right, so the first stage starts it: at what erased flash left in memory.
void WarnOfNoBody(const Slot &slot, Warnings &warnings) {
    Add(warnings, "no-body", slot.name,
        "a header alone, with nothing to start: it counts as good, and the board is lost");
}

// More marks than any chip leaves the factory with come from a file read in the wrong layout.
void WarnOfManyBadBlocks(const RawFlash &flash, Warnings &warnings) {
    constexpr std::size_t kMostFromFactory = 40; // 2,008 of 2,048 blocks are good in a new K9F2G08U0M
    if (flash.bad_blocks.size() <= kMostFromFactory) return;
    Add(warnings, "many-bad-blocks", NameOf(flash.medium),
        fmt::format("{} bad blocks, and a new chip has at most {}; is the file in another layout?",
                    flash.bad_blocks.size(), kMostFromFactory));
}

// The bootloader's driver writes no spare byte but a mark; a layer below a file system keeps its books there. It is
// given the whole chip where a NAND board starts without its strap.
void WarnOfVolume(const RawFlash &flash, Warnings &warnings) {
    if (flash.spare_in_use.empty()) return;
    Add(warnings, "volume-over-slots", NameOf(flash.medium),
        fmt::format("spare bytes are in use in {} of the blocks before the file system's part, from block {} on: as "
                    "after a start without the strap, when the file system takes the whole chip, slots included",
                    flash.spare_in_use.size(), flash.spare_in_use.front()));
}

Warnings WarningsOf(const RawFlash &flash, const FlashReport &report) {
    Warnings warnings;
    WarnOfManyBadBlocks(flash, warnings);
    WarnOfVolume(flash, warnings);
    WarnOfRecordBlock(flash, warnings);
    WarnOfRecordPage(flash, warnings);
    for (const SlotReport &slot : report.slots) {
        WarnOfChipEnd(slot, warnings);
        WarnOfBadBlocks(flash, slot.slot, warnings);
        WarnOfSharedHead(flash, slot.slot, warnings);
        // What follows needs a size that can be trusted, which only a good image has.
        if (slot.image.verdict() != ImageVerdict::good) continue;
        WarnOfPushedTail(flash, slot.slot, slot.image.size, warnings);
        if (slot.image.has_no_body()) WarnOfNoBody(slot.slot, warnings);
        // The rescue image has one slot by design.
        if (&slot != &report.slots.back()) WarnOfOnlySlot(flash, slot.image.size, warnings);
    }
    WarnOfLostRescue(report, warnings);
    return warnings;
}

std::string RecordIn(const RawFlash &flash) {
    const Slot &slot = SlotsOf(flash.medium).record;
    const std::string record = RecordText(flash.read(slot.address, slot.capacity));
    return record == kNoRecord ? "" : record;
}

void RefuseUnlessItFits(const RawFlash &flash, const Slot &slot, const Bytes &image) {
    const std::uint32_t room = RoomIn(flash, slot);
    if (image.size() > room)
        throw Refusal(
            fmt::format("{} of the {} {}", slot.name, flash.part, NameOf(flash.medium)),
            fmt::format("{} bytes", image.size()),
            fmt::format("at most {}{}", room, BadBlocksIn(flash, slot) > 0 ? ", which its bad blocks leave" : ""),
            "too-large");
}

} // namespace

bool RawFlash::is_bad(std::uint32_t block) const {
    return std::find(bad_blocks.begin(), bad_blocks.end(), block) != bad_blocks.end();
}

std::array<Slot, 3> SlotsOn(const RawFlash &flash) {
    const SlotTable &table = SlotsOf(flash.medium);
    Slot rescue = table.rescue;
    // Nothing lies after the rescue image on a DataFlash, so it may reach to the end of this chip, less what a check
    // reads beyond it.
    if (flash.medium == Medium::dataflash)
        rescue.capacity = flash.bytes < rescue.address + kReadAfter ? 0 : flash.bytes - rescue.address - kReadAfter;
    return {table.bootloader[0], table.bootloader[1], rescue};
}

std::uint32_t RoomIn(const RawFlash &flash, const Slot &slot) {
    if (flash.medium == Medium::nand) return slot.capacity - BadBlocksIn(flash, slot) * flash.unit;
    if (flash.bytes < slot.address + kReadAfter) return 0;
    return std::min(slot.capacity, flash.bytes - slot.address - kReadAfter);
}

std::uint32_t RescueRoomOn(const RawFlash &flash) { return RoomIn(flash, RescueOn(flash)); }

FlashReport ExamineFlash(const RawFlash &flash) {
    const SlotTable &table = SlotsOf(flash.medium);
    FlashReport report{flash.medium, flash.part, flash.bad_blocks, {}, "", {}, {}};
    for (const Slot &slot : {table.bootloader[0], table.bootloader[1], RescueOn(flash)})
        report.slots.push_back({slot, RoomIn(flash, slot), ReadSlot(flash.read, slot)});
    report.record = RecordIn(flash);
    report.first_stage = ChooseBootloader(flash.read, table);
    report.warnings = WarningsOf(flash, report);
    return report;
}

Problems WarningsOfOneCopy(const FlashReport &report) {
    Warnings warnings;
    const auto good = [&](unsigned slot) {
        const StoredImage &image = report.slots[slot].image;
        return image.verdict() == ImageVerdict::good && !image.has_no_body();
    };
    if (good(0) != good(1))
        Add(warnings, "one-good-copy", report.slots[good(1)].slot.name,
            "the only good bootloader: nothing corrects a bit that flips in it, and then the board is lost");
    return warnings;
}

Problems WarningsOfBootloader(const RawFlash &flash, std::uint32_t bytes) {
    Warnings warnings;
    bool fits = false;
    for (const Slot &slot : SlotsOf(flash.medium).bootloader) {
        if (bytes > MostIn(flash, slot)) continue;
        fits = true;
        WarnOfPushedTail(flash, slot, bytes, warnings);
        WarnOfSharedHead(flash, slot, warnings);
        WarnOfSharedTail(flash, slot, bytes, warnings);
    }
    WarnOfOnlySlot(flash, bytes, warnings);
    if (!fits)
        Add(warnings, "fits-no-slot", "bootloader",
            fmt::format("{} bytes fit neither slot; the update is refused", bytes));
    return warnings;
}

Problems WarningsOfRescue(const RawFlash &flash, std::uint32_t bytes, const std::string &version) {
    const Slot slot = RescueOn(flash);
    if (bytes > MostIn(flash, slot))
        return {{WarningId("fits-no-slot"), slot.name,
                 fmt::format("takes {} bytes, not {}; the update is refused", MostIn(flash, slot), bytes), ""}};
    Warnings warnings;
    WarnOfPushedTail(flash, slot, bytes, warnings);
    WarnOfSharedHead(flash, slot, warnings);
    WarnOfRecordBlock(flash, warnings);
    WarnOfRecordPage(flash, warnings);
    // A slot without a good image has nothing to lose.
    const bool replaces = ReadSlot(flash.read, slot).verdict() == ImageVerdict::good;
    if (replaces && !version.empty() && version != RecordIn(flash))
        Add(warnings, "replaced-in-place", slot.name,
            "the image there is replaced in place; a power cut meanwhile leaves none until the next boot with this "
            "bank");
    return warnings;
}

void StoreProvision(const RawFlash &flash, const Provision &provision) {
    const SlotTable &table = SlotsOf(flash.medium);
    RefuseUnlessItFits(flash, table.bootloader.at(provision.slot), provision.bootloader);
    if (!provision.rescue.empty()) {
        RefuseUnlessItFits(flash, RescueOn(flash), provision.rescue);
        RefuseRecord(flash, provision.rescue_version);
    }
    // First of all: an older image left in slot 0 would be started in place of a new one in slot 1.
    EraseSlot(flash, table.bootloader.at(1 - provision.slot));
    flash.write(table.bootloader[provision.slot].address, provision.bootloader);
    if (provision.rescue.empty()) return;
    flash.write(table.rescue.address, provision.rescue);
    StoreRecord(flash, provision.rescue_version);
}

} // namespace fixture
