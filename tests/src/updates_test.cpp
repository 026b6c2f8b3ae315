// The update path as whole boots on both media: what a bank's images make of the raw slots, to the last character on
// the console and the last byte of every chip.
#include "harness/bank_texts.h"
#include "harness/console_texts.h"
#include "harness/noise.h"
#include "tests/processors.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <sys/mman.h>

namespace fixture {

namespace {

const std::string kApplication = "an application of some length";
const std::string kBrokenApplication = "an application of Some length";

// A stored image of `size` bytes.
std::string Image(const Bytes &body) {
    const Bytes image = Wrap(body);
    return {image.begin(), image.end()};
}
std::string Image(std::uint32_t seed, std::size_t size) { return Image(Noise(size - kImageHeaderBytes, seed)); }
const std::string kOldImages[] = {Image(1, 3000), Image(2, 4097)}; // by slot
const std::string kOldRescue = Image(3, 2500);
const std::string kNewImage = Image(4, 5000), kNewRescue = Image(5, 4100);

std::string Damaged(std::string image) { return image.back() ^= 1, image; }
std::string Foreign(std::string image) { return image[18] ^= 1, image; }
std::string Retired(std::string image) { return image.replace(0, kImageHeaderBytes, kImageHeaderBytes, '\0'); }
std::string Claiming(std::string image, std::uint32_t size) {
    return image.replace(20, sizeof size, reinterpret_cast<const char *>(&size), sizeof size);
}
// An image of zeros: its sum fits a manifest, whatever its length.
std::string Long(std::size_t size) { return Image(Bytes(size - kImageHeaderBytes)); }

// What a slot holds that had `image`: - nothing, o it, d damaged, z retired, f of another maker.
std::string Holding(char what, const std::string &image) {
    switch (what) {
    case '-': return "";
    case 'd': return Damaged(image);
    case 'z': return Retired(image);
    case 'f': return Foreign(image);
    default: return image;
    }
}

struct Bank {
    std::string boot_version = "1.9.0"; // empty: none is listed
    std::string boot = kNewImage;
    std::string rescue_version = "1.0"; // empty: none is listed
    std::string rescue = kNewRescue;
    std::string application = kApplication;
    std::string rescue_file = rescue; // where it is not what the manifest says
    bool lists_application = true;

    void write(const TemporaryDirectory &volume, const std::string &name) const {
        const std::filesystem::path bank = std::filesystem::path("data") / name;
        std::string descriptor = DescriptorElement("MainApplication", {}) +
                                 DescriptorElement("SecondaryBootloader", {.base = "boot2", .version = boot_version});
        std::string manifest = ManifestLine("Path", "") + ManifestLine("----", "");
        if (lists_application) manifest += ManifestLine("bin/demo.bin", kApplication);
        volume.write(bank / "bin/demo.bin", application);
        if (!boot_version.empty()) {
            manifest += ManifestLine("bin/boot2.bin", boot);
            volume.write(bank / "bin/boot2.bin", boot);
        }
        if (!rescue_version.empty()) {
            descriptor += DescriptorElement("RescueApplication", {.base = "resc", .version = rescue_version});
            manifest += ManifestLine("bin/resc.bin", rescue);
            volume.write(bank / "bin/resc.bin", rescue_file);
        }
        volume.write(bank / "ProjectDescriptorFile.xml", "<Project>" + descriptor + "</Project>");
        volume.write(bank / "BankContent.txt", manifest);
    }
};
Bank Boot(const std::string &image = kNewImage) { return {.boot_version = "1.8.0", .boot = image}; }
Bank Rescue(const std::string &image = kNewRescue, const std::string &version = "1.1") {
    return {.rescue_version = version, .rescue = image};
}
Bank RescueFile(const std::string &file) { return {.rescue_version = "1.1", .rescue_file = file}; }
Bank Broken(Bank bank = {}) { return bank.application = kBrokenApplication, bank; }
const Bank kWithoutBoot = {.boot_version = ""}, kWithoutRescue = {.rescue_version = ""};

struct Banks : std::vector<Bank> { // "app", then "oldapp"
    Banks() = default;
    Banks(const Bank &first) : vector{first} {}
    Banks(const Bank &first, const Bank &second) : vector{first, second} {}
};

enum class End { application, update, rescue, nothing };
constexpr Verdict kVerdicts[] = {Verdict::launched, Verdict::reset_loop, Verdict::launched, Verdict::idle};

struct Row {
    const char *name;
    std::string before; // of the two bootloader slots and the rescue slot a letter of Holding, then the version record
    Banks banks;
    std::string printed; // what these banks print, with the words of Spell
    // What is written: 0n the new bootloader to slot 0, 1z slot 1 retired, rn the new rescue image, vn its version.
    std::string written;
    End end = End::application;
    void (*trouble)(Chips &) = nullptr;
    bool refuses_resets = false;
};

// {v0} {i1} a valid header in slot 0, an invalid one in slot 1; {p0} {done} what the NAND's update says of itself.
std::string Spell(const std::string &text, Medium medium) {
    const bool nand = medium == Medium::nand;
    const auto &slots = SlotsOf(medium).bootloader;
    const auto header = [&](const char *verdict, int slot) {
        return fmt::format("\t{} header at address 0x{:08x}\n", verdict, slots[slot].address);
    };
    const auto placing = [&](int slot) {
        return nand ? fmt::format("Placing new bootloader at {:08X}.\n", slots[slot].address) : "";
    };
    const auto versions = [](const char *of_bank) {
        return fmt::format("Current bootlaoder is: 1.9.0\nBank bootloader is: {}\n", of_bank);
    };
    const std::string dataflash_unread = "\tAT91SAM926X_ReadDataflash : Failed with Error=1\n";
    const std::string unwritten = "\tAT91SAM926X_WriteDataflash : Failed with Error=1\n";
    const std::string failed = fmt::format("\tValidate_File(i:/vol0/data/app/bin/demo.bin, {}, {}) Failed!!!",
                                           SumOf(kApplication), kApplication.size());
    return fmt::format(
        fmt::runtime(text), fmt::arg("v0", header("Valid", 0)), fmt::arg("v1", header("Valid", 1)),
        fmt::arg("i0", header("Invalid", 0)), fmt::arg("i1", header("Invalid", 1)), fmt::arg("p0", placing(0)),
        fmt::arg("p1", placing(1)), fmt::arg("done", nand ? "Bootloader replaced.\n" : ""),
        fmt::arg("same", versions("1.9.0")), fmt::arg("older", versions("1.8.0")), fmt::arg("failed", failed),
        fmt::arg("unread", nand ? "Bad block at address 00020000\n" : dataflash_unread),
        fmt::arg("unwritten", nand ? "" : unwritten), fmt::arg("stored", "\tBootloader image replaced successfully.\n"),
        fmt::arg("not_stored", "\tBootloader image replace failed.\n"),
        fmt::arg("rescue_stored", "\tRescue image replaced successfully.\n"),
        fmt::arg("rescue_not_stored", "\tRescue image replace failed.\n"));
}

class Updates : public testing::TestWithParam<Processor> {
protected:
    void try_row(const Row &row, Medium medium) {
        SCOPED_TRACE(fmt::format("{}, {}", row.name, NameOf(medium)));
        const TemporaryDirectory volume;
        constexpr const char *kNames[] = {"app", "oldapp"};
        for (std::size_t n = 0; n < row.banks.size(); ++n) row.banks[n].write(volume, kNames[n]);
        Chips chips = chips_before(row.before, medium);
        if (row.trouble) row.trouble(chips);
        const Chips before = chips;
        BootCase boot;
        boot.processor = GetParam();
        boot.volume = volume.path();
        boot.chips = &chips;
        boot.most_resets = 1;
        boot.board.straps.pins_12_13 = medium == Medium::nand;
        boot.prepare = [&](Machine &machine) {
            machine.board().reset_controller.refuse = row.refuses_resets;
            std::memset(load_buffer(machine) + kFlushed - kAround, 0xA5, 2 * kAround);
        };
        const std::string rescue =
            row.written.starts_with('r') ? row.banks[0].rescue : Holding(row.before[2], kOldRescue);
        const bool launches = row.end == End::application || row.end == End::update;
        boot.inspect = [&](Machine &machine) {
            EXPECT_TRUE(machine.board().journal.violations().empty());
            EXPECT_EQ(machine.board().watchdog.restarts(), launches ? row.banks.size() : 3);
            if (row.end == End::rescue) expect_flushed(load_buffer(machine), rescue);
        };
        const BootResult result = RunBoot(boot);
        EXPECT_EQ(result.console, StartText(medium) + Spell(row.printed, medium) + ending(row));
        EXPECT_EQ(result.report.verdict, kVerdicts[static_cast<int>(row.end)]) << result.report.place;
        EXPECT_EQ(result.report.launched_bytes, row.end == End::application ? kApplication.size()
                                                : row.end == End::rescue    ? rescue.size()
                                                                            : 0);
        const Chips after = expected(row, medium, before, chips);
        EXPECT_TRUE(chips.eeprom == after.eeprom && chips.nand == after.nand && chips.dataflash == after.dataflash);
    }

    static Chips chips_before(const std::string &before, Medium medium) {
        Chips chips;
        const SlotTable &slots = SlotsOf(medium);
        // What lies around the slots, and on the other medium where this one has slots, is not to be touched.
        chips.nand.write(0, Noise(4096));
        chips.nand.write(0x01000000, Noise(4096));
        for (const std::uint32_t address : {0x7000u, 0x7F10u}) chips.dataflash.write(address, Noise(0xF0));
        put(chips, medium, slots.bootloader[0], Holding(before[0], kOldImages[0]));
        put(chips, medium, slots.bootloader[1], Holding(before[1], kOldImages[1]));
        put(chips, medium, slots.rescue, Holding(before[2], kOldRescue));
        put(chips, medium, slots.record, padded(before.substr(3)));
        return chips;
    }

private:
    static constexpr std::uint32_t kFlushed = 0x3FC000, kAround = 4096;
    static std::uint8_t *load_buffer(Machine &machine) {
        return machine.board().memory.memory().from(0x23000000).data();
    }
    // The launch flushes a length of its own, whatever the image's: lines that hold any of it, and no more.
    static void expect_flushed(const std::uint8_t *buffer, const std::string &image) {
        EXPECT_EQ(std::memcmp(buffer, image.data(), image.size()), 0);
        EXPECT_EQ(std::count(buffer + kFlushed - kAround, buffer + kFlushed, 0xA5), kAround);
        EXPECT_LT(std::count(buffer + kFlushed, buffer + kFlushed + 32, 0xA5), 8);
    }
    static std::string padded(std::string version) {
        if (!version.empty()) version.resize(16);
        return version;
    }
    static std::span<const std::uint8_t> bytes_of(const std::string &text) {
        return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
    }
    static void put(Chips &chips, Medium medium, const Slot &slot, const std::string &content) {
        if (content.empty()) return;
        if (medium == Medium::nand)
            chips.nand.write(slot.address, bytes_of(content));
        else
            chips.dataflash.write(slot.address, bytes_of(content));
    }

    static std::string ending(const Row &row) {
        std::string text;
        if (row.end == End::application || row.end == End::update) return text;
        for (std::size_t missing = row.banks.size(); missing < 3; ++missing) text += kMissingBank;
        text += kNoBankLaunched;
        if (row.end == End::rescue || row.refuses_resets) text += kRescueLaunched;
        return row.end == End::nothing ? text + kNothingLaunched : text;
    }

    // The chips of before with the row's writes. A write to the NAND erases its blocks; of its last page's rest
    // anything may be made, but for short ones, where it is zeros.
    static Chips expected(const Row &row, Medium medium, const Chips &before, const Chips &after) {
        const SlotTable &slots = SlotsOf(medium);
        const bool nand = medium == Medium::nand;
        Chips chips = before;
        for (std::size_t at = 0; at < row.written.size(); at += 3) {
            const char where = row.written[at], what = row.written[at + 1];
            const Slot &slot = where == 'r'   ? slots.rescue
                               : where == 'v' ? slots.record
                                              : slots.bootloader[where - '0'];
            std::string content = where == 'r'   ? row.banks[0].rescue
                                  : where == 'v' ? padded(row.banks[0].rescue_version)
                                  : what == 'z'  ? std::string(kImageHeaderBytes, '\0')
                                                 : row.banks[0].boot;
            if (what == 'n' && where != 'v') content.resize(JudgeImage(bytes_of(content), kLargestStoredImage).size);
            if (nand && (where == 'v' || what == 'z')) content.resize(kNandPageBytes);
            const auto size = static_cast<std::uint32_t>(content.size());
            for (std::uint32_t from = 0; nand && from < size; from += kNandBlockBytes)
                chips.nand.erase((slot.address + from) / kNandBlockBytes);
            const std::uint32_t rest = slot.address + size;
            if (nand) chips.nand.write(rest, after.nand.read(rest, -size % kNandPageBytes));
            put(chips, medium, slot, content);
        }
        return chips;
    }
};
BOTH_PROCESSORS(Updates);

// No DataFlash answers; on the NAND the record's block is bad, and the read goes on into the first bootloader slot.
void LoseRecord(Chips &chips) {
    chips.dataflash.absent = true;
    chips.nand.make_factory_bad(1);
}
// What is programmed to the second bootloader slot and to the rescue slot is lost.
void LosePrograms(Chips &chips) {
    for (const Slot &slot : {SlotsOf(Medium::dataflash).bootloader[1], SlotsOf(Medium::dataflash).rescue})
        for (std::uint32_t page = slot.address / 1056; page <= (slot.address + 5000) / 1056; ++page)
            chips.dataflash.faults.push_back({.page = page, .times = UINT_MAX});
}
void LoseNand(Chips &chips) { chips.nand = NandContents(nullptr); }
void SmallDataflash(Chips &chips) { chips.dataflash = At45Contents(*FindAt45Part("AT45DB321")); }

constexpr std::size_t kSmallRoom = 8192 * 528 - 0x404000 - 32; // of a DataFlash of 32 Mbit, for a rescue image

const std::string kUsual = "o-o1.0", kTwo = "ooo1.0", k16 = "1234567890123456";

const Row kRows[] = {
    // The rescue image.
    {"nothing new", kUsual, Bank(), "{same}", ""},
    {"rescue new", kUsual, Rescue(), "{rescue_stored}{same}", "rn vn"},
    {"rescue new, none there", "o--", Bank(), "{rescue_stored}{same}", "rn vn"},
    {"rescue older", "o-o2.0", Bank(), "{rescue_stored}{same}", "rn vn"},
    {"rescue's version is the stored one's beginning", "o-o1.0.1", Bank(), "{rescue_stored}{same}", "rn vn"},
    {"rescue version of 16 characters, equal", "o-o" + k16, Rescue(kNewRescue, k16), "{same}", ""},
    {"16 characters, new", "o-o1234567890123450", Rescue(kNewRescue, k16), "{rescue_stored}{same}", "rn vn"},
    {"a character fewer", "o-o" + k16, Rescue(kNewRescue, k16.substr(0, 15)), "{rescue_stored}{same}", "rn vn"},
    {"a bootloader where the record should be", "o-oOrvalis Luminati", Rescue(), "{same}", ""},
    {"almost one", "o-oOrvalis Luminat", Rescue(), "{rescue_stored}{same}", "rn vn"},
    {"rescue file of other bytes", kUsual, RescueFile(Damaged(kNewRescue)), "{same}", ""},
    {"rescue file of another size", kUsual, RescueFile("short"), "filesize check 4100 != 5\n{same}", ""},
    {"rescue with wrong sums", kUsual, Rescue(Damaged(kNewRescue)), "{rescue_not_stored}{same}", ""},
    {"rescue of another maker", kUsual, Rescue(Foreign(kNewRescue)), "{rescue_stored}{same}", "rn vn"},
    {"rescue that claims too much", kUsual, Rescue(Claiming(kNewRescue, 4101)), "{rescue_not_stored}{same}", ""},
    {"and launches nothing", kUsual, Broken(Rescue()), "{rescue_stored}{same}{failed}", "rn vn", End::rescue},
    {"rescue alone", "o-d1.0", Bank{"", "", "1.1"}, "{rescue_stored}", "rn vn", End::rescue},
    {"rescue with more after it", "o-o0", Rescue(kNewRescue + "more", "1.0"), "{rescue_stored}{same}", "rn vn"},
    {"rescue and bootloader", kUsual, Bank{"1.8.0", kNewImage, "1.1"}, "{rescue_stored}{older}{v0}{i1}{p1}{done}",
     "rn vn 1n 0z", End::update},

    // The bootloader.
    {"over an erased slot", kUsual, Boot(), "{older}{v0}{i1}{p1}{done}", "1n 0z", End::update},
    {"over an erased first slot", "-oo1.0", Boot(), "{older}{i0}{v1}{p0}{done}", "0n 1z", End::update},
    {"over a retired one", "zoo1.0", Boot(), "{older}{i0}{v1}{p0}{done}", "0n 1z", End::update},
    {"over another maker's", "ofo1.0", Boot(), "{older}{v0}{i1}{p1}{done}", "1n 0z", End::update},
    {"over one of two good ones", kTwo, Boot(), "{older}{v0}{v1}{p0}{done}", "0n 1z", End::update},
    {"over a damaged second one", "odo1.0", Boot(), "{older}{v0}{v1}{p1}{done}", "1n 0z", End::update},
    {"over a damaged first one", "doo1.0", Boot(), "{older}{v0}{v1}{p0}{done}", "0n 1z", End::update},
    {"over two damaged ones", "ddo1.0", Boot(), "{older}{v0}{v1}{p1}{done}", "1n 0z", End::update},
    {"over two erased ones", "--o1.0", Boot(), "{older}{i0}{i1}{p1}{done}", "1n", End::update},
    {"by a second bank", kUsual, Banks(Broken(), Boot()), "{same}{failed}{older}{v0}{i1}{p1}{done}", "1n 0z",
     End::update},
    {"with more after it", kUsual, Boot(kNewImage + "more"), "{older}{v0}{i1}{p1}{done}", "1n 0z", End::update},
    {"damaged", kUsual, Boot(Damaged(kNewImage)), "{older}{not_stored}", ""},
    {"of another maker", kUsual, Boot(Foreign(kNewImage)), "{older}{not_stored}", ""},
    {"shorter than it claims", kUsual, Boot(Claiming(kNewImage, 5001)), "{older}{not_stored}", ""},
    {"shorter than a header", kUsual, Boot(Claiming(kNewImage, 31)), "{older}{not_stored}", ""},

    // One bank's rescue image is looked at in the next bank's pass too, by an empty record.
    {"rescue listed before, not now", kUsual, Banks(Broken(), kWithoutRescue), "{same}{failed}{same}", ""},
    {"rescue file of another size before, none now", kUsual, Banks(Broken(RescueFile("short")), kWithoutRescue),
     "filesize check 4100 != 5\n{same}{failed}{same}", ""},
    {"application listed before, not now", kUsual, Banks(Broken(), Bank{.lists_application = false}), "{same}{failed}",
     "", End::rescue},
    {"bootloader listed before, not now", kUsual, Banks(Broken(), kWithoutBoot), "{same}{failed}", "", End::rescue},
    {"rescue listed before, not now, and a record that cannot be read", kTwo, Banks(Broken(), kWithoutRescue),
     "{unread}{same}{failed}{unread}{same}", "", End::application, LoseRecord},
    {"rescue never listed, no record", kTwo, kWithoutRescue, "{same}", "", End::application, LoseRecord},

    {"no bank, rescue image", kUsual, Banks(), "", "", End::rescue},
    {"no bank, rescue image of another maker", "o-f1.0", Banks(), "", "", End::rescue},
    {"no bank, damaged rescue image", "o-d1.0", Banks(), "", "", End::nothing},
    {"no bank, no rescue image", "o--1.0", Banks(), "", "", End::nothing},
    {"resets that never come", kUsual, Boot(), "{older}{v0}{i1}{p1}{done}{stored}", "1n 0z", End::nothing, nullptr,
     true},
};

TEST_P(Updates, SayAndWriteThisAndNothingElse) {
    for (const Row &row : kRows)
        for (const Medium medium : {Medium::nand, Medium::dataflash}) try_row(row, medium);
}

// Images that fit nowhere, as long as they may be and by one byte more; chips that are not there. The images are long,
// so they are made here alone, and not whenever the program starts.
TEST_P(Updates, StayWithinTheirChip) {
    const Row on_both{"too long", kTwo, Boot(Long(0x200001)), "{older}{v0}{v1}{p0}{not_stored}", ""};
    const Row on_nand[] = {
        {"rescue, too long", kUsual, Rescue(Long(0xC00001)), "{rescue_not_stored}{same}", ""},
        {"far too long", kUsual, Boot(Long(0x480000)), "{older}{v0}{i1}{p1}{not_stored}", ""},
        {"no NAND", "---", Rescue(), "{rescue_not_stored}{same}", "", End::application, LoseNand},
    };
    const Row on_dataflash[] = {
        {"rescue, longest", kUsual, Rescue(Long(kSmallRoom)), "{rescue_stored}{same}", "rn vn", End::application,
         SmallDataflash},
        {"rescue, too long", kUsual, Rescue(Long(kSmallRoom + 1)), "{unwritten}{rescue_not_stored}{same}", "",
         End::application, SmallDataflash},
        {"too long for slot 0", "-oo1.0", Boot(Long(0x1FC001)), "{older}{i0}{v1}{not_stored}", ""},
        {"too long for slot 1", kUsual, Boot(Long(0x200001)), "{older}{v0}{i1}{not_stored}", ""},
        {"programs of the bootloader lost", kUsual, Boot(), "{older}{v0}{i1}{not_stored}", "", End::application,
         LosePrograms},
        {"programs of the rescue image lost", "o--1.0", Rescue(), "{rescue_not_stored}{same}", "", End::application,
         LosePrograms},
        {"no DataFlash", kUsual, Boot(),
         "{unread}{older}{unread}\tSDFlash read header failed\n{unread}\tSDFlash read header failed\n{unwritten}"
         "{not_stored}",
         "", End::application, LoseRecord},
    };
    for (const Medium medium : {Medium::nand, Medium::dataflash}) try_row(on_both, medium);
    for (const Row &row : on_nand) try_row(row, Medium::nand);
    for (const Row &row : on_dataflash) try_row(row, Medium::dataflash);
}

TEST_P(Updates, StartWithTheBuildsRecord) {
    const std::string start = StartText(Medium::nand), banner = start.substr(start.find('*'), 15 * 61);
    const std::string whole(32, 'u'), first = "*   URL:              " + whole + "     *\n";
    std::string more;
    for (int n = 0; n < 7; ++n) more += "*                     " + whole + "     *\n";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"1", "", ""},
        {"31", whole.substr(1), "*   URL:              " + whole.substr(1) + "      *\n"},
        {"", whole, first},
        {"1234M", whole + "v", first + "*                     v                                    *\n"},
        {"a revision of twenty-six lett.", std::string(256, 'u'), first + more},
    };
    StartedBoard started(GetParam());
    char *const record = static_cast<char *>(started.object("svnInfo"));
    const auto put = [&](std::size_t at, std::string text, std::size_t size) {
        text.resize(size);
        text.copy(record + at, size);
    };
    if (GetParam() == Processor::host) { // a constant lies in pages that cannot be written
        const auto page = reinterpret_cast<std::uintptr_t>(record) / 4096 * 4096;
        ASSERT_EQ(mprotect(reinterpret_cast<void *>(page), 2 * 4096, PROT_READ | PROT_WRITE), 0);
    }
    constexpr std::size_t kTextBytes = 32, kUrl = 4 * kTextBytes + 2 * 4, kUrlBytes = 256;
    const std::string kept(record, kUrl + kUrlBytes);
    for (const auto &[number, address, printed] : rows) {
        put(0, number, kTextBytes);
        put(kUrl, address, kUrlBytes);
        started.call("SVNInfo_Splash");
        std::string expected = banner;
        expected.replace(expected.find("319 "), 4, fmt::format("{:<4}", number));
        const std::size_t url = expected.find("*   URL:");
        expected.replace(url, expected.find("*" + std::string(58, ' ')) - url, printed);
        EXPECT_EQ(started.console(), expected);
    }
    put(0, kept, kept.size());
}

} // namespace

} // namespace fixture
