// An update from the bank to the slots to the reset and on: a whole power-up goes as foretold and leaves a bootloader.
#include "fuzz/targets.h"
#include "harness/bank_files.h"
#include "machine/raw_flash.h"
#include "sweep/foretold.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::uint32_t kBlocksOfSlots = 80;

// Short texts stand for the two builds: natively an image is known by its content alone.
Bytes StandIn(int build) { return AsBytes(fmt::format("stands for build 1.9.{}{:60}", build, "")); }

const KnownFirmware &StandIns() {
    static const KnownFirmware known = [] {
        KnownFirmware made = TestFirmware();
        for (const int build : {0, 1}) {
            Firmware stand_in = Bootloader(fmt::format("1.9.{}", build));
            stand_in.flat = StandIn(build);
            made.add(std::move(stand_in));
        }
        return made;
    }();
    return known;
}

// A build as it is, or wrong in one place.
Bytes MakeBootloader(Shape &shape) {
    const unsigned which = shape.below(4);
    if (which == 3) return MakeImage(shape);
    Bytes image = Wrap(StandIn(which == 1 ? 0 : 1));
    const auto size = static_cast<std::uint32_t>(image.size());
    if (shape.one_in(4)) image[shape.below(size)] ^= 1;
    if (shape.one_in(8)) image.resize(shape.below(size + 1));
    if (shape.one_in(8)) image.push_back(0x5A);
    return image;
}

// One slot holds the bootloader that runs; the other one, the rescue slot and the record hold anything.
void Fill(Shape &shape, const RawFlash &flash) {
    const SlotTable &slots = SlotsOf(flash.medium);
    const unsigned running = shape.below(2);
    const auto place = [&](const Slot &slot, Bytes bytes) {
        bytes.resize(std::min<std::size_t>(bytes.size(), RoomIn(flash, slot)));
        if (!bytes.empty()) flash.write(slot.address, bytes);
    };
    if (shape.one_in(2)) place(slots.bootloader[1 - running], MakeBootloader(shape));
    if (shape.one_in(2)) place(slots.rescue, MakeImage(shape));
    if (shape.one_in(2)) place(slots.record, shape.bytes(20));
    place(slots.bootloader[running], Wrap(StandIn(0)));
}

void MakeBank(Shape &shape, const std::filesystem::path &bank) {
    const auto version = [&](const char *usual) {
        return shape.one_in(4) ? shape.text(20) : std::string(shape.pick({usual, usual, usual, "1.9.0"}));
    };
    std::vector<BankFile> files;
    files.push_back({FileRole::bootloader, "loader.img", version("1.9.1"), MakeBootloader(shape)});
    files.push_back({FileRole::application, "demo.bin", "1.0", shape.bytes(40)});
    files.push_back({FileRole::rescue, "help.bin", version("7"), MakeImage(shape)});
    const std::string descriptor = MakeDescriptor(files);
    if (shape.one_in(8)) files.erase(files.begin() + shape.below(3));
    std::string manifest = MakeManifest(files);
    // The last digit of a size or a sum is another one now and then.
    if (shape.one_in(8)) manifest[282 * (2 + shape.below(2)) + shape.pick({8u, 20u})] = shape.pick({'0', '7', ' '});
    std::filesystem::remove_all(bank.parent_path());
    WriteBank(bank, files);
    WriteFile(bank / kDescriptorName, descriptor);
    WriteFile(bank / kManifestName, manifest);
    for (const BankFile &file : files)
        if (shape.one_in(16)) std::filesystem::remove(bank / file.path());
}

bool HasBootloader(const RawFlash &flash) { return ChooseBootloader(flash.read, SlotsOf(flash.medium)).has_value(); }

} // namespace

void FuzzUpdate(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Chips chips;
    const bool nand = shape.one_in(2);
    for (unsigned blocks = nand ? shape.pick({0u, 0u, 1u, 3u}) : 0; blocks > 0; --blocks)
        chips.nand.make_factory_bad(1 + shape.below(kBlocksOfSlots));
    if (!nand) chips.dataflash = At45Contents(shape.one_of(At45Parts()));
    const RawFlash flash = nand ? RawFlashOf(chips.nand) : RawFlashOf(chips.dataflash);
    Fill(shape, flash);
    if (!HasBootloader(flash)) return; // no room on this chip
    World world;
    world.medium = flash.medium;
    world.volume = std::make_shared<const std::filesystem::path>(ModuleBoard::volume());
    world.board.straps.pins_12_13 = nand;
    MakeBank(shape, *world.volume / "data/app");
    const Foretold foretold(world, chips, StandIns());
    std::string console;
    Machine machine(chips, {.processor = Processor::host,
                            .known = &StandIns(),
                            .slots = true,
                            .volume = *world.volume,
                            .board = world.board,
                            .run_launched = false,
                            .console = [&](char c) { console += c; }});
    const RunReport report = machine.run();
    const std::string other = foretold.compare(report, console, machine.board().memory.memory(), chips);
    Require(other.empty(), other);
    Require(HasBootloader(flash), "no bootloader is left: " + console);
}

} // namespace fixture
