// Stored images, in a file and in the slots of raw flash: the bootloader's checks against the tools'.
#include "fixture/parts/at45.h"
#include "fixture/parts/nand.h"
#include "formats/doctor.h"
#include "formats/flash_report.h"
#include "formats/slots.h"
#include "formats/stored_image.h"
#include "fuzz/targets.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include <algorithm>

namespace fixture {

namespace {

constexpr std::uint32_t kSdramEnd = kSdram + kSdramBytes; // the page after it may not be touched

void MarkBadBlocks(Shape &shape, NandContents &nand) {
    for (unsigned blocks = shape.pick({0u, 0u, 1u, 2u, 3u}); blocks > 0; --blocks) {
        const std::uint32_t block = shape.one_in(3) ? shape.below(kNandBlocks) : shape.below(36);
        if (shape.one_in(2)) {
            nand.make_factory_bad(block);
            continue;
        }
        const std::uint32_t row = block * kNandPagesPerBlock + shape.below(3);
        NandContents::Page page = nand.page(row);
        page[kNandPageBytes + shape.pick({0u, 1u, 5u})] = shape.pick<std::uint8_t>({0x00, 0xFE, 0x7F});
        nand.set_page(row, page);
    }
}

// Sizes that are no good for a slot stay, but reading megabytes takes seconds.
Bytes MakeShortImage(Shape &shape) {
    Bytes image = MakeImage(shape);
    if (image.size() > 23 && image[23] == 0) image[22] = 0;
    return image;
}

template <typename Contents> void FillSlots(Shape &shape, Contents &contents) {
    const RawFlash flash = RawFlashOf(contents);
    const SlotTable &slots = SlotsOf(flash.medium);
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue})
        if (!shape.one_in(3)) {
            const bool past_bad_blocks = shape.one_in(2);
            const Bytes image = MakeShortImage(shape);
            if (slot.address + image.size() > flash.bytes) continue;
            if (past_bad_blocks)
                flash.write(slot.address, image);
            else
                contents.write(slot.address, image);
        }
    if (shape.one_in(2)) contents.write(slots.record.address, shape.bytes(20));
}

// One slot: the same verdict of the bootloader's whole check and of the tools' and the first stage's.
void CheckSlot(ModuleBoard &board, const std::string &medium, const FlashReader &read, const Slot &slot) {
    const StoredImage image = ReadSlot(read, slot);
    const bool header = board.call(("Validate_" + medium + "Header").c_str(), slot.address) == 0;
    const auto record = static_cast<std::uint32_t>(board.call("Medium_Of", medium == "NandFlash" ? 1u : 0u));
    const bool whole = board.call("Validate_ImageWithin", record, slot.address, slot.capacity) == 0;
    Require((header && whole) == (image.verdict() == ImageVerdict::good), slot.name);
    Require(!header || image.verdict() != ImageVerdict::no_maker, slot.name);
}

template <typename Contents>
void CheckSlots(Shape &shape, ModuleBoard &board, const std::string &medium, Contents &contents) {
    ExamineFlash(RawFlashOf(contents));
    const FlashReader read = ReaderOf(contents);
    const SlotTable &slots = SlotsOf(RawFlashOf(contents).medium);
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue}) {
        CheckSlot(board, medium, read, slot);
        if (!shape.one_in(4)) continue;
        board.call(("Validate_" + medium + "InvalidateImage").c_str(), slot.address);
        Require(ReadSlot(read, slot).verdict() != ImageVerdict::good, "a retired image is still good");
    }
    board.call("Validate_IsNewRescueVersion", board.started().scratch(16), medium == "NandFlash");
    board.resets("Rescue_Load", {medium == "NandFlash"});
}

// Images that are known: whole, with a byte that has decayed, or in part, as a cut leaves them.
template <typename Contents>
void PutRemains(Shape &shape, Contents &contents, const std::vector<ReferenceImage> &references) {
    const RawFlash flash = RawFlashOf(contents);
    for (const Slot &slot : SlotsOn(flash)) {
        const unsigned what = shape.below(4);
        if (what == 0) continue;
        Bytes image = shape.one_of(references).image;
        const auto size = static_cast<std::uint32_t>(image.size());
        if (what == 2) image[shape.below(size)] ^= 0x10;
        if (what == 3) image.resize(shape.below(size + 1));
        image.resize(std::min<std::size_t>(image.size(), RoomIn(flash, slot)));
        if (!image.empty()) flash.write(slot.address, image);
    }
}

// The commands that look at a chip, on a file of it. What they see of it they say as JSON.
template <typename Contents> void LookAt(const Contents &contents, const std::string &option, const char *straps) {
    const std::filesystem::path file = ModuleBoard::volume() / "looked-at";
    SaveChip(contents, file);
    RunOnFiles(AddDoctorCommand, {"doctor", "--json", option, file});
    RunOnFiles(AddExplainCommand, {"explain", "--json", "--straps", straps, option, file, "--assume-version", "1.9.0"});
    RunOnFiles(AddDiffCommand, {"diff", "--json", "--as", option.substr(2), file, file});
}

// A repair never takes the bootloader that runs, and after a few visits there is nothing to mend.
template <typename Contents> void Treat(Shape &shape, Contents &contents, const char *option, const char *straps) {
    FillSlots(shape, contents);
    if (shape.one_in(8)) LookAt(contents, option, straps);
    const std::vector<ReferenceImage> references = {
        {"one", FileRole::bootloader, Wrap(Bytes(5000, 0x11)), "1", "one"},
        {"other", FileRole::bootloader, Wrap(Bytes(300, 0x22)), "2", "other"},
        {"rescue", FileRole::rescue, Wrap(Bytes(2100, 0x33)), "3", "rescue"},
    };
    PutRemains(shape, contents, references);
    const RawFlash flash = RawFlashOf(contents);
    const auto starts = [&] { return ChooseBootloader(flash.read, SlotsOf(flash.medium)); };
    const bool started = starts().has_value();
    constexpr int kVisits = 4;
    std::string last;
    for (int visit = 0; visit < kVisits; ++visit) {
        const FlashDiagnosis found = DiagnoseFlash(flash, references);
        Require(found.running == starts(), "another slot runs than the first stage starts");
        if (found.repairs.empty()) return;
        last = found.repairs.front().id + " " + found.repairs.front().place + ": " + found.repairs.front().text;
        try {
            for (const Repair &repair : found.repairs) repair.apply(flash);
        } catch (const Refusal &) { // no room on this chip
            return;
        }
        Require(!started || starts(), "a repair took the only bootloader");
    }
    Require(false, "the doctor never comes to an end: " + last);
}

} // namespace

void FuzzDoctor(std::span<const std::uint8_t> input) {
    Shape shape(input);
    if (shape.one_in(2)) {
        NandContents nand;
        MarkBadBlocks(shape, nand);
        Treat(shape, nand, "--nand", "12-13");
    } else {
        At45Contents dataflash(*FindAt45Part(kDefaultAt45));
        Treat(shape, dataflash, "--dataflash", "none");
    }
}

void FuzzImage(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const Bytes file = MakeImage(shape);
    const ImageReport report = ExamineImage(file);
    RunOnFiles(AddImageCommand, {"image", "info", "--json", ScratchFile("image", file)});
    if (file.size() < kImageHeaderBytes) return;
    ModuleBoard board;
    const auto length = static_cast<std::uint32_t>(file.size());
    const std::uint32_t place = kSdramEnd - length;
    std::copy(file.begin(), file.end(), board.started().at(place));
    const bool maker = board.call("Validate_HasMaker", place) == 1;
    const bool good = board.call("Validate_LoadedImage", place, length) == 0;
    Require((maker && good) == report.good(), report.problem());
}

void FuzzSlot(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Chips chips;
    const bool nand = shape.one_in(2);
    if (nand) {
        chips.nand = NandContents(&shape.one_of(NandParts(), NandParts().size() - 1));
        MarkBadBlocks(shape, chips.nand);
        FillSlots(shape, chips.nand);
    } else {
        chips.dataflash = At45Contents(shape.one_of(At45Parts()));
        FillSlots(shape, chips.dataflash);
    }
    ModuleBoard board(std::move(chips));
    board.start_driver(nand);
    if (nand)
        CheckSlots(shape, board, "NandFlash", board.chips().nand);
    else
        CheckSlots(shape, board, "SDFlash", board.chips().dataflash);
}

} // namespace fixture
