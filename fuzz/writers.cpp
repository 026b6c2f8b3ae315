// What the tools write: read back by their readers, and by the bootloader where it is for a board, it is what went in.
#include "formats/bank_check.h"
#include "formats/slot_store.h"
#include "formats/splash.h"
#include "fuzz/targets.h"
#include "harness/command.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include <algorithm>

namespace fixture {

namespace {

constexpr std::size_t kDrawnPixels = std::size_t{kSplashWidth} * kSplashFirstBlackRow;

void WrapAnything(Shape &shape) {
    const Bytes body = *shape.whole_in(1);
    const std::filesystem::path out = ModuleBoard::volume() / "wrapped";
    std::filesystem::remove(out);
    RunOnFiles(AddImageCommand, {"image", "wrap", "--json", ScratchFile("flat", body), out});
    if (!std::filesystem::exists(out)) return;
    const Bytes image = ReadFile(out, kLargestStoredImage);
    const StoredImage judged = JudgeImage(image, static_cast<std::uint32_t>(image.size()));
    Require(judged.verdict() == ImageVerdict::good && judged.size == image.size(), "wrapped to no good image");
    const bool elf = AsText(body).starts_with("\177ELF");
    Require(elf || std::equal(body.begin(), body.end(), image.begin() + kImageHeaderBytes, image.end()),
            "wrapped another body");
}

// A bank that the tool makes is one that the board launches, with the files that went in.
void BuildBank(Shape &shape) {
    const std::filesystem::path volume = ModuleBoard::volume(), bank = volume / "data/app";
    std::filesystem::remove_all(volume / "data");
    std::filesystem::create_directories(bank.parent_path());
    const std::string name = "a" + shape.text(24);
    if (name.find_first_of(std::string("/\0", 2)) != std::string::npos) return;
    const Bytes application = shape.bytes(64);
    std::vector<std::string> call = {"bank", "build", bank, "--json", "--bootloader-version=1.9.0", "--bootloader"};
    call.push_back(ScratchFile("loader.img", Wrap(Bootloader().flat)));
    call.insert(call.end(), {"--app", ScratchFile(name.c_str(), application), "--app-version=" + shape.text(18)});
    if (shape.one_in(2)) {
        call.insert(call.end(), {"--rescue", ScratchFile("help.bin", MakeImage(shape))});
        call.push_back("--rescue-version=" + shape.text(18));
    }
    for (std::string &word : call) word = word.substr(0, word.find('\0'));
    RunOnFiles(AddBankCommand, call);
    if (!std::filesystem::exists(bank)) return;
    Require(ExamineBank(bank, kBankDirectories[0]).launches, "built a bank that its own check refuses");
    ModuleBoard board;
    board.start_driver(true);
    Require(board.resets("Validate_Bank", {board.started().scratch_text(kBankDirectories[0]), 1}),
            "built a bank that the bootloader does not launch");
    const std::uint8_t *const launched = board.started().at(0x23000000);
    Require(std::equal(application.begin(), application.end(), launched), "another application is launched");
}

void EncodePicture(Shape &shape) {
    Picture picture(kSplashWidth, kSplashHeight);
    const bool exact = !shape.one_in(4);
    for (std::size_t i = 0; i < kDrawnPixels;) {
        const std::uint32_t word = shape.below(65536);
        std::uint32_t count = shape.pick({1u, 2u, 3u, 319u, 320u, 321u, 70'000u, 1 + shape.below(256)});
        const bool mixed = shape.one_in(4);
        for (std::uint32_t step = 0; count > 0 && i < kDrawnPixels; --count, ++step, ++i) {
            picture.pixels[i] = SplashColour(static_cast<std::uint16_t>((word + (mixed ? step : 0)) & 0x7FFF));
            if (!exact) picture.pixels[i].red ^= 1;
        }
    }
    WritePng(ModuleBoard::volume() / "drawn.png", picture);
    Require(ReadPng(ModuleBoard::volume() / "drawn.png") == picture, "PNG wrote another picture");
    try {
        const SplashStream stream = EncodeSplash(picture, "picture");
        Require(ReadSplashSource(SplashSource(stream), "source") == stream.bytes, "another array was written");
        const Picture back = DecodeSplash(stream.bytes, "stream");
        for (std::size_t i = 0; i < picture.pixels.size(); ++i)
            Require(SplashPixel(back.pixels[i]) == SplashPixel(picture.pixels[i]), "another picture was encoded");
    } catch (const Refusal &) { // does not fit
    }
}

// In file layouts of their own.
template <typename Contents> void SaveAndLoad(const Contents &chip, Contents other) {
    const std::filesystem::path file = ModuleBoard::volume() / "saved";
    SaveChip(chip, file);
    LoadChip(other, file);
    Require(ChipBytesOf(other) == ChipBytesOf(chip), "a saved chip is another one");
}

template <typename Contents> void StoreImages(Shape &shape, Contents contents) {
    const Contents blank = contents;
    const RawFlash flash = RawFlashOf(contents);
    const std::array<Slot, 3> slots = SlotsOn(flash);
    std::array<Bytes, 3> stored;
    Bytes record;
    for (unsigned steps = 1 + shape.below(5); steps > 0; --steps) {
        const unsigned n = shape.below(4);
        try {
            if (n == 3) {
                const std::string version = shape.text(18);
                StoreRecord(flash, version);
                record = AsBytes(version);
                record.resize(SlotsOf(flash.medium).record.capacity); // zeros after it
            } else if (shape.one_in(4)) {
                EraseSlot(flash, slots[n]);
                stored[n].clear();
            } else {
                const Bytes image = Wrap(shape.bytes(200));
                StoreInSlot(flash, slots[n], image);
                stored[n] = image;
            }
        } catch (const Refusal &) { // no room, or no such text
        }
        // Each step leaves all the others as they were.
        for (unsigned i = 0; i < slots.size(); ++i) {
            const StoredImage image = ReadSlot(flash.read, slots[i]);
            Require(stored[i].empty() ? image.verdict() != ImageVerdict::good : image.bytes == stored[i],
                    slots[i].name);
        }
        const Slot &place = SlotsOf(flash.medium).record;
        Require(record.empty() || flash.read(place.address, place.capacity) == record, "another record");
    }
    SaveAndLoad(contents, blank);
}

void StoreOnChip(Shape &shape) {
    if (shape.one_in(2)) {
        NandContents nand(&shape.one_of(NandParts(), NandParts().size() - 1));
        for (unsigned blocks = shape.below(4); blocks > 0; --blocks) nand.make_factory_bad(1 + shape.below(80));
        StoreImages(shape, std::move(nand));
    } else {
        StoreImages(shape, At45Contents(shape.one_of(At45Parts())));
    }
}

// A parameter that the tool sets is there for it, for a file and for the bootloader.
void SetParameters(Shape &shape) {
    Chips chips;
    if (shape.one_in(4)) chips.eeprom = MakeEeprom(shape);
    std::vector<StoredParameter> changes;
    for (unsigned count = 1 + shape.below(4); count > 0; --count) {
        const unsigned identifier = kSomeIdentifiers[shape.below(8)];
        if (std::none_of(changes.begin(), changes.end(), [&](const auto &one) { return one.identifier == identifier; }))
            changes.push_back({identifier, shape.bytes(15)});
    }
    const StoreReport before = ReadStore(chips.eeprom.bytes);
    try {
        UpdateStore(chips.eeprom.bytes, changes);
    } catch (const Refusal &) {
        return;
    }
    SaveAndLoad(chips.eeprom, EepromContents());
    const StoreReport report = ReadStore(chips.eeprom.bytes);
    Require(report.current.has_value(), "no sector is current after an update");
    const std::vector<StoredParameter> &stored = report.sectors[*report.current].parameters;
    for (const StoredParameter &change : changes)
        Require(std::find(stored.begin(), stored.end(), change) != stored.end(), "a parameter was not set");
    if (before.current || std::any_of(stored.begin(), stored.end(), [](auto &one) { return one.identifier == 0xFF; }))
        return; // what others set before may end a lookup
    ModuleBoard board(std::move(chips));
    for (const StoredParameter &change : changes)
        Require(board.parameter(change.identifier) == change.data, "the bootloader does not find what was set");
}

} // namespace

void FuzzWriters(std::span<const std::uint8_t> input) {
    Shape shape(input);
    switch (shape.below(5)) {
    case 0: return WrapAnything(shape);
    case 1: return BuildBank(shape);
    case 2: return EncodePicture(shape);
    case 3: return StoreOnChip(shape);
    default: return SetParameters(shape);
    }
}

} // namespace fixture
