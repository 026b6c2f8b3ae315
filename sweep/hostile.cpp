#include "sweep/hostile.h"
#include "machine/raw_flash.h"

#include "formats/bank.h"
#include "formats/flash_report.h"
#include "formats/parameter_store.h"

#include <algorithm>
#include <cassert>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr const char *kParts[] = {"AT45DB321", "AT45DB642", "AT45DB1282"};
constexpr const char *kBanks[] = {"app", "oldapp", "newapp"};
constexpr std::uint32_t kNandEnd = 80; // after the slots' last block that is of interest

// What no honest file holds, and what it holds in another place.
const std::string kTokens[] = {"",
                               "<",
                               "</",
                               "/>",
                               ">",
                               "<!--",
                               "<Version>",
                               "</MainApplication>",
                               "<BaseFileName>.</BaseFileName>",
                               "bin/application.bin",
                               "../../outside.bin",
                               "/",
                               "\\..\\",
                               "%s%n",
                               "-1",
                               "999999999",
                               "4294967295",
                               "1.9.7",
                               "\r\n",
                               std::string(1, '\0'),
                               std::string(32, '\xFF'),
                               std::string(300, 'A'),
                               std::string(300, ' ')};

class HostileWorldBuilder {
public:
    HostileWorldBuilder(std::uint64_t seed, const SweepFirmware &firmware) : random_(seed), firmware_(firmware) {}

    // The order of the draws is what a seed stands for: one more draw in between, and every seed makes another board.
    World make() {
        World world;
        world.hostile = true;
        world.medium = one_in(2) ? Medium::nand : Medium::dataflash;
        world.board.straps.pins_12_13 = world.medium == Medium::nand;
        // Also parts that are too small for the slots: an update must not run over the chip's end.
        world.chips.dataflash = At45Contents(*FindAt45Part(pick(kParts)));
        if (one_in(2)) spoil_nand(world.chips.nand);
        if (world.medium == Medium::nand)
            fill(RawFlashOf(world.chips.nand), SlotsOf(Medium::nand));
        else
            fill(RawFlashOf(world.chips.dataflash), SlotsOf(Medium::dataflash));
        // After the chips are filled: faults are to meet the bootloader, not the making of this board.
        if (one_in(3)) add_faults(world.chips);
        fill_eeprom(world.chips.eeprom);
        world.volume = TemporaryVolume();
        for (const char *name : kBanks)
            if (!one_in(3)) make_bank(*world.volume / "data" / name);
        return world;
    }

private:
    std::uint32_t below(std::size_t end) {
        assert(end > 0 && "there is no number below 0");
        return static_cast<std::uint32_t>(random_() % end);
    }
    bool one_in(unsigned chances) { return below(chances) == 0; }
    template <typename Value, std::size_t N> const Value &pick(const Value (&row)[N]) { return row[below(N)]; }

    Bytes noise(std::size_t length) {
        Bytes bytes(length);
        for (std::uint8_t &byte : bytes) byte = static_cast<std::uint8_t>(random_());
        return bytes;
    }

    // Leaves a piece out, repeats one, puts something else there, flips bits.
    template <typename Text> void spoil_once(Text &text) {
        const auto at = [&](std::size_t n) { return text.begin() + static_cast<std::ptrdiff_t>(n); };
        const std::size_t begin = below(text.size() + 1);
        const std::size_t end = begin + below(std::min<std::size_t>(text.size() - begin, 600) + 1);
        const Text piece(at(begin), at(end));
        const std::string &token = pick(kTokens);
        switch (below(5)) {
        case 0: text.erase(at(begin), at(end)); break;
        case 1: text.insert(at(begin), piece.begin(), piece.end()); break;
        case 2: text.insert(at(begin), token.begin(), token.end()); break;
        case 3: text.resize(begin); break;
        default:
            if (begin < text.size()) text[begin] ^= static_cast<char>(1 << below(7));
        }
    }
    template <typename Text> Text spoil(Text text) {
        if (one_in(3)) return text;
        for (std::uint32_t times = 1 + below(3); times > 0; --times) spoil_once(text);
        return text;
    }

    // --- images

    // Sums that fit a spoiled image let it pass for what it is not. A bootloader never does: it would be started.
    Bytes image(const Bytes &body, bool may_pass) {
        Bytes bytes = may_pass && one_in(3) ? Wrap(spoil(body)) : Wrap(body);
        if (one_in(2)) return bytes;
        // About the header's own length, the sign, the largest a load buffer takes, and all ones as erased flash has
        // them.
        constexpr std::uint32_t kSizes[] = {0, 1, 31, 32, 33, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x00FFFFE1};
        const std::uint32_t size = pick(kSizes);
        if (one_in(2))
            for (unsigned i = 0; i < 4; ++i) bytes[20 + i] = static_cast<std::uint8_t>(size >> 8 * i);
        else
            spoil_once(bytes);
        return bytes;
    }
    Bytes bootloader_image() { return image(firmware_.version(static_cast<int>(below(2))).flat, false); }
    Bytes rescue_image() { return image(noise(one_in(3) ? below(40) : 4096 + below(200'000)), true); }

    // --- chips

    void spoil_nand(NandContents &nand) {
        for (std::uint32_t count = below(6); count > 0; --count) nand.make_factory_bad(below(kNandEnd));
    }

    void place(const RawFlash &flash, const Slot &slot, Bytes bytes) {
        const std::uint32_t room = slot.address < flash.bytes ? flash.bytes - slot.address : 0; // on the smallest chip
        bytes.resize(std::min<std::size_t>({bytes.size(), slot.capacity, room}));
        if (!bytes.empty()) flash.write(slot.address, bytes);
    }

    void fill(const RawFlash &flash, const SlotTable &slots) {
        // One bootloader is whole, or there would be nothing to test.
        const unsigned sound = below(2);
        place(flash, slots.bootloader[sound], Wrap(firmware_.version(0).flat));
        if (!one_in(3)) place(flash, slots.bootloader[1 - sound], one_in(3) ? noise(5000) : bootloader_image());
        if (!one_in(3)) place(flash, slots.rescue, one_in(4) ? noise(5000) : rescue_image());
        const std::string &text = pick(kTokens);
        if (!one_in(3)) place(flash, slots.record, {text.begin(), text.end()});
    }

    void add_faults(Chips &chips) {
        constexpr NandFault::Kind kNandKinds[] = {NandFault::erase_fails, NandFault::program_fails,
                                                  NandFault::grown_bad,   NandFault::wrong_bits,
                                                  NandFault::stuck_low,   NandFault::flipped};
        NandFault nand{.kind = pick(kNandKinds), .block = below(kNandEnd), .skip = below(40), .times = 1 + below(3)};
        // Without a block the fault may strike anywhere on the chip.
        if (one_in(3)) nand.block.reset();
        if (one_in(3)) nand.page = below(kNandPagesPerBlock);
        nand.column = below(kNandPageBytes);
        chips.nand.faults.push_back(nand);
        At45Fault dataflash{.kind = one_in(2) ? At45Fault::lose_program : At45Fault::wrong_bits, .page = {}};
        dataflash.skip = below(300);
        chips.dataflash.faults.push_back(dataflash);
    }

    void fill_eeprom(EepromContents &chip) {
        if (one_in(4)) return;
        for (const int sector : {0, 1}) {
            std::vector<StoredParameter> parameters;
            for (unsigned n = below(12); n > 0; --n) parameters.push_back({below(0xFFF), noise(below(16))});
            Bytes bytes = spoil(MakeStoreImage(below(0x10000), parameters));
            if (bytes.size() > kLongestImage) bytes.resize(kLongestImage);
            if (!one_in(3)) PlaceStoreImage(chip.bytes, sector, bytes);
        }
        if (one_in(8))
            for (std::uint8_t &byte : chip.bytes) byte = static_cast<std::uint8_t>(random_());
    }

    // --- files

    void make_bank(const fs::path &bank) {
        std::vector<BankFile> files;
        const std::string version = one_in(4) ? pick(kTokens) : "1.9.1";
        files.push_back(
            {FileRole::application, "application.bin", "3.2.1", noise(one_in(4) ? below(3) : below(60'000))});
        if (!one_in(4)) files.push_back({FileRole::bootloader, "bootloader.bin", version, bootloader_image()});
        if (!one_in(3)) files.push_back({FileRole::rescue, "rescue.bin", "1.1", rescue_image()});
        if (one_in(4)) files.push_back({FileRole::none, "more.dat", "", noise(below(1000))});
        fs::create_directories(bank / kFileDirectory);
        if (!one_in(8)) write(bank / kDescriptorName, spoil(MakeDescriptor(files)));
        if (!one_in(8)) write(bank / kManifestName, spoil(MakeManifest(files)));
        for (const BankFile &file : files) {
            if (one_in(12)) continue;
            if (one_in(12))
                fs::create_directories(bank / file.path()); // where a file should be
            else
                WriteFile(bank / file.path(), file.bytes);
        }
    }
    static void write(const fs::path &path, const std::string &text) { WriteFile(path, text); }

    Random random_;
    const SweepFirmware &firmware_;
};

} // namespace

World MakeHostileWorld(std::uint64_t seed, const SweepFirmware &firmware) {
    return HostileWorldBuilder(seed, firmware).make();
}

} // namespace fixture
