#include "sweep/world.h"
#include "machine/raw_flash.h"

#include "formats/bank.h"
#include "formats/flash_report.h"
#include "formats/parameter_store.h"
#include "sweep/hostile.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

namespace fs = std::filesystem;

namespace {

// Short enough for thousands of boots.
constexpr std::uint32_t kApplicationBytes = 256 * 1024;
constexpr std::uint8_t kPadding = 0xA5; // never mistaken for erased flash
// Address, mask, gateway, name server: parameters 9 to 12.
constexpr std::array<std::uint32_t, 4> kNetwork = {0x0A000005, 0xFFFFFF00, 0x0A000001, 0x0A000002};

// Bytes that differ from page to page, the same in every run.
Bytes Pattern(std::uint64_t seed, std::size_t length) {
    Random random(seed);
    Bytes bytes(length);
    for (std::uint8_t &byte : bytes) byte = static_cast<std::uint8_t>(random());
    return bytes;
}

std::string StandInText(int build) { return fmt::format("stands for 1.9.{}", build); }

Bytes BootloaderImage(const SweepFirmware &firmware, int build, std::uint32_t bytes) {
    Bytes body = firmware.version(build).flat;
    if (bytes != 0) {
        assert(bytes > kImageHeaderBytes && "sizes count the header");
        const std::uint32_t length = bytes - kImageHeaderBytes;
        // Too short for the program itself: a stand-in of that length, which the native processor and the first stage
        // take for the build that it names.
        if (length < body.size()) {
            const std::string text = StandInText(build);
            body.assign(text.begin(), text.end());
        }
        // A build followed by one repeated byte is still known as that build.
        body.resize(length, kPadding);
    }
    return Wrap(body);
}

// Of small bytes: a bank states a file's sum in nine digits, and the largest rescue image has to have one.
Bytes RescueImage(std::uint64_t seed, std::uint32_t bytes) {
    assert(bytes > kImageHeaderBytes && "sizes count the header");
    Bytes body = Pattern(seed, bytes - kImageHeaderBytes);
    for (std::uint8_t &byte : body) byte &= 0x3F;
    return Wrap(body);
}

Bytes SlotBytes(SlotState state, const Bytes &running, const Bytes &updated) {
    Bytes bytes = state == SlotState::updated ? updated : running;
    if (state == SlotState::erased) bytes.clear();
    // As an update leaves the image that it replaces: the body stays behind a header of zeros.
    if (state == SlotState::retired) std::fill_n(bytes.begin(), kImageHeaderBytes, std::uint8_t{0});
    if (state == SlotState::endless) bytes[23] = 0xFF; // the top of its length
    if (state == SlotState::broken) bytes[bytes.size() / 2] ^= 0x40;
    return bytes;
}

void WriteBank(const fs::path &bank, const std::vector<BankFile> &files) {
    fs::create_directories(bank / kFileDirectory);
    for (const BankFile &file : files) WriteFile(bank / file.path(), file.bytes);
    WriteFile(bank / kDescriptorName, MakeDescriptor(files));
    WriteFile(bank / kManifestName, MakeManifest(files));
}

std::vector<StoredParameter> Parameters(std::span<const std::uint32_t> network, const std::vector<std::uint8_t> &more) {
    std::vector<StoredParameter> parameters;
    for (unsigned n = 0; n < network.size(); ++n) {
        StoredParameter parameter{9 + n, {}};
        for (int shift = 24; shift >= 0; shift -= 8)
            parameter.data.push_back(static_cast<std::uint8_t>(network[n] >> shift));
        parameters.push_back(parameter);
    }
    if (!more.empty()) parameters.push_back({kMoreParameter, more});
    return parameters;
}

// What an update must leave alone holds something everywhere: the first stage's part, the file system's part, and on a
// DataFlash what lies between the record and the first slot.
void FillNeighbours(Chips &chips) {
    constexpr std::uint32_t kFileSystem = 0x01000000;
    chips.nand.write(0, Pattern(1, 3 * kNandPageBytes));
    chips.nand.write(kFileSystem, Pattern(2, 2 * kNandPageBytes));
    chips.nand.write(kNandBytes - kNandBlockBytes, Pattern(3, kNandPageBytes));
    const SlotTable &slots = SlotsOf(Medium::dataflash);
    chips.dataflash.write(0, Pattern(4, slots.bootloader[0].address));
    // The pattern covers the record too. Erased again, since not every world has one.
    chips.dataflash.write(slots.record.address, Bytes(slots.record.capacity, 0xFF));
}

void Place(const RawFlash &flash, const Slot &slot, const Bytes &bytes) {
    if (!bytes.empty()) flash.write(slot.address, bytes);
}

// One of its eight bits, another one for each address.
void Flip(Chips &chips, Medium medium, const Rot &rot) {
    const auto mask = static_cast<std::uint8_t>(1u << rot.address * 5 % 8);
    if (rot.place == Rot::Place::eeprom) {
        chips.eeprom.bytes.at(rot.address) ^= mask;
    } else if (medium == Medium::dataflash) {
        const std::uint32_t page_bytes = chips.dataflash.part().page_bytes;
        At45Contents::Page page = chips.dataflash.page(rot.address / page_bytes);
        page[rot.address % page_bytes] ^= mask;
        chips.dataflash.set_page(rot.address / page_bytes, std::move(page));
    } else {
        NandContents::Page page = chips.nand.page(rot.address / kNandPageBytes);
        page[rot.place == Rot::Place::mark ? kNandPageBytes : rot.address % kNandPageBytes] ^= mask;
        chips.nand.set_page(rot.address / kNandPageBytes, page);
    }
}

class WorldBuilder {
public:
    WorldBuilder(const Situation &setup, const SweepFirmware &firmware)
        : setup_(setup), running_(BootloaderImage(firmware, 0, setup.running_bytes)),
          update_(BootloaderImage(firmware, setup.new_bootloader ? 1 : 0, setup.update_bytes)),
          // The stored one always fits; only the bank's may be too large.
          rescue_(RescueImage(10, std::min(setup.rescue_bytes, SlotsOf(setup.medium).rescue.capacity))),
          new_rescue_(setup.new_rescue ? RescueImage(11, setup.rescue_bytes) : rescue_),
          application_(Pattern(12, kApplicationBytes)) {}

    World make() {
        World world;
        world.medium = setup_.medium;
        // Before anything is written: another part has other pages.
        if (setup_.part) world.chips.dataflash = At45Contents(*FindAt45Part(setup_.part));
        world.board.straps.pins_12_13 = setup_.medium == Medium::nand;
        make_chips(world.chips);
        world.volume = volume();
        world.may_stay = setup_.fate == Fate::may_fail;
        world.tries_again = world.may_stay || setup_.fate == Fate::fails;
        world.commits = setup_.parameters.commits;
        world.more = setup_.parameters.more;
        set_touched(world);
        set_expected(world);
        return world;
    }

private:
    void make_chips(Chips &chips) const {
        // First, so that everything stored afterwards skips these blocks as it did on a real board.
        for (const std::uint32_t block : setup_.bad_blocks) chips.nand.make_factory_bad(block);
        FillNeighbours(chips);
        if (setup_.medium == Medium::nand)
            fill_slots(RawFlashOf(chips.nand));
        else
            fill_slots(RawFlashOf(chips.dataflash));
        // Last: faults are to strike the update, not the making of this world.
        chips.nand.faults = setup_.nand_faults;
        chips.dataflash.faults = setup_.dataflash_faults;
        const int target = 1 - setup_.parameters.sector;
        if (!setup_.parameters.remains.empty()) {
            PlaceStoreImage(chips.eeprom.bytes, target, MakeStoreImage(1, Parameters(setup_.parameters.remains, {})));
            PlaceStoreImage(chips.eeprom.bytes, target, Bytes(6, 0xFF)); // as a commit cleans a header
        }
        PlaceStoreImage(chips.eeprom.bytes, setup_.parameters.sector, MakeStoreImage(1, Parameters(kNetwork, {})));
        if (setup_.rot) Flip(chips, setup_.medium, *setup_.rot);
    }

    void fill_slots(const RawFlash &flash) const {
        const SlotTable &slots = SlotsOf(setup_.medium);
        for (const unsigned n : {0u, 1u})
            Place(flash, slots.bootloader[n], SlotBytes(setup_.slots[n], running_, update_));
        if (setup_.rescue == RescueState::none) return;
        Place(flash, slots.rescue,
              SlotBytes(setup_.rescue == RescueState::broken ? SlotState::broken : SlotState::running, rescue_, {}));
        Place(flash, slots.record, record("1.0"));
    }

    static Bytes record(const std::string &version) {
        Bytes bytes(version.begin(), version.end());
        bytes.resize(16, 0);
        return bytes;
    }

    std::shared_ptr<const fs::path> volume() const {
        std::shared_ptr<const fs::path> volume = TemporaryVolume();
        std::vector<BankFile> files = bank();
        const fs::path app = *volume / "data" / "app";
        WriteBank(app, files);
        if (!setup_.banks_fight) return volume;
        Bytes broken = application_;
        broken.back() ^= 1; // after the manifest was made, so the bank's check of it fails
        WriteFile(app / files.at(0).path(), broken);
        files.at(1).version = "1.9.0";
        files.at(1).bytes = running_;
        WriteBank(*volume / "data" / "oldapp", files);
        return volume;
    }

    std::vector<BankFile> bank() const {
        std::vector<BankFile> files = {
            {FileRole::application, "application.bin", "3.2.1", application_},
            {FileRole::bootloader, "bootloader.bin", setup_.new_bootloader ? "1.9.1" : "1.9.0", update_},
            {FileRole::rescue, "rescue.bin", setup_.new_rescue ? "1.1" : "1.0", new_rescue_}};
        // The last byte: sums over the whole file find it, a look at the header does not.
        if (setup_.damaged)
            for (BankFile &file : files)
                if (file.role != FileRole::application) file.bytes.back() ^= 1;
        // A bank that lists a rescue image would have it stored, and the world is to have none.
        if (setup_.rescue == RescueState::none && !setup_.new_rescue) files.pop_back();
        return files;
    }

    void set_touched(World &world) const {
        // A refused update may touch nothing at all.
        if (setup_.fate == Fate::refused) return;
        const SlotTable &slots = SlotsOf(setup_.medium);
        const auto add = [&](const Slot &slot, std::uint32_t bytes) {
            world.touched.push_back({slot.address, slot.address + bytes});
        };
        if (setup_.new_bootloader || !setup_.watches_slots)
            for (const Slot &slot : slots.bootloader) add(slot, slot.capacity);
        // What rotted may be stored anew.
        if (!setup_.new_rescue && !setup_.rot && setup_.watches_slots) return;
        add(slots.rescue, slots.rescue.capacity);
        // On NAND the record has a block of its own, which is erased as a whole.
        add(slots.record, setup_.medium == Medium::nand ? kNandBlockBytes : slots.record.capacity);
    }

    void set_expected(World &world) const {
        const bool has_record = setup_.rescue != RescueState::none;
        world.before = {running_,
                        setup_.rescue == RescueState::good ? rescue_ : Bytes{},
                        has_record ? record("1.0") : Bytes(16, 0xFF),
                        application_,
                        kNetwork,
                        Parameters(kNetwork, {})};
        world.after = world.before;
        if (setup_.parameters.commits) {
            world.after.network = kNewNetwork;
            world.after.parameters = Parameters(kNewNetwork, setup_.parameters.more);
        }
        // A refused or failed update leaves everything as it was.
        if (setup_.fate != Fate::stored && setup_.fate != Fate::may_fail) return;
        if (setup_.new_bootloader) world.after.bootloader = update_;
        if (!setup_.new_rescue) return;
        world.after.rescue = new_rescue_;
        world.after.record = record("1.1");
    }

    const Situation &setup_;
    Bytes running_;
    Bytes update_;
    Bytes rescue_;
    Bytes new_rescue_;
    Bytes application_;
};

} // namespace

bool SaysTheSame(const Bytes &record, const Bytes &other) {
    const auto text = [](const Bytes &bytes) { return Bytes(bytes.begin(), std::ranges::find(bytes, 0)); };
    return text(record) == text(other);
}

SweepFirmware::SweepFirmware(const fs::path &directory) : known(directory) {
    for (const int build : {0, 1}) {
        Firmware stand_in = version(build);
        const std::string text = StandInText(build);
        stand_in.flat.assign(text.begin(), text.end());
        known.add(std::move(stand_in));
    }
}

const Firmware &SweepFirmware::version(int build) const {
    for (const Firmware &firmware : known.all())
        if (firmware.version.build == std::to_string(build)) return firmware;
    throw Refusal(Fault::unreadable, {"missing", fmt::format("build 1.9.{} of the bootloader", build),
                                      "missing; `make firmware` builds it", ""});
}

std::shared_ptr<const fs::path> TemporaryVolume() {
    std::string name = (fs::temp_directory_path() / "fixture-sweep-XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw Refusal(Fault::output, {"unwritable", name, "cannot be made", "a directory for temporary files"});
    // Shared by the copies of a world; the last one takes the directory away.
    return {new fs::path(name), [](const fs::path *path) {
                std::error_code error;
                fs::remove_all(*path, error);
                delete path;
            }};
}

World MakeWorld(const Situation &setup, const SweepFirmware &firmware) {
    return setup.hostile ? MakeHostileWorld(*setup.hostile, firmware) : WorldBuilder(setup, firmware).make();
}

} // namespace fixture
