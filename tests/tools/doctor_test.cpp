// fixture doctor, diff and the slot commands of fixture flash. A diagnosis is tried on what every cut of an update
// leaves.
#include "formats/doctor.h"
#include "formats/slot_store.h"
#include "formats/stored_image.h"
#include "harness/bank_files.h"
#include "harness/builds.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "sweep/scenarios.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

using nlohmann::json;
using testing::AllOf, testing::ElementsAre, testing::HasSubstr;

namespace {

std::vector<ReferenceImage> References(const World &world) {
    return {{"old", FileRole::bootloader, world.before.bootloader, "1.9.0", ""},
            {"new", FileRole::bootloader, world.after.bootloader, "1.9.1", ""}};
}

// What is found on a chip after a cut. Its repairs are made, and then nothing is left to mend.
FlashDiagnosis Diagnosed(const RawFlash &flash, const World &world) {
    FlashDiagnosis found = DiagnoseFlash(flash, References(world));
    for (const Repair &repair : found.repairs) repair.apply(flash);
    EXPECT_TRUE(DiagnoseFlash(flash, References(world)).healthy());
    return found;
}

// The operations of an update on NAND: slot 1 is erased, its pages are programmed, then slot 0 is erased and its header
// cleared. The page at which the diagnosis sees the cut is the one that was being programmed.
TEST(Doctor, NamesThePageAtWhichAnUpdateWasCut) {
    const World world = WorldOf({"nand-update", "running-broken", {}, 1}, FixedBuilds());
    Sweeper sweeper(world, ProcessorKind::host, FixedBuilds());
    const auto pages =
        static_cast<std::uint32_t>((world.after.bootloader.size() + kNandPageBytes - 1) / kNandPageBytes);
    ASSERT_EQ(sweeper.operations(), pages + 3u);
    // Neither the state before the update nor a last page that is whole or not.
    const auto some = [pages](const Cut &each) {
        return each.operation > 0 && (each.operation % 4 == 1 || each.operation + 1 >= pages) &&
               (each.operation != pages || each.moment != CutMoment::torn);
    };
    for (Snapshot &cut : sweeper.take_snapshots(world.chips, 0, some)) {
        SCOPED_TRACE(testing::Message() << cut.cut.operation << " " << static_cast<int>(cut.cut.moment));
        const FlashDiagnosis found = Diagnosed(RawFlashOf(cut.chips.nand), world);
        const auto operation = static_cast<std::uint32_t>(cut.cut.operation);
        const bool after = cut.cut.moment == CutMoment::after, torn = cut.cut.moment == CutMoment::torn;
        const SlotDiagnosis &slot = found.slots[1];
        const std::uint32_t page = operation - 1 + after;
        if (operation == pages && after) {
            EXPECT_EQ(slot.condition, SlotCondition::good);
            EXPECT_THAT(found.history, ElementsAre(HasSubstr("both copies are good")));
        } else if (operation <= pages && page > 0) { // before the first page nothing of it is there
            ASSERT_TRUE(slot.cut_page) << NameOf(slot.condition) << " " << slot.holds;
            EXPECT_TRUE(slot.cut_page == page || (torn && slot.cut_page == page + 1)) << *slot.cut_page;
            EXPECT_EQ(found.running, 0u);
            EXPECT_THAT(found.history,
                        ElementsAre(HasSubstr("update to new cut at page " + std::to_string(*slot.cut_page + 1))));
        } else if (operation == pages + 2 && after) {
            EXPECT_EQ(found.slots[0].condition, SlotCondition::retired) << found.slots[0].holds;
        }
    }
}

// The first page, which the update shares with what lies before the slot, is erased and programmed by one command.
// Torn, it may also look as before, or as it was to become. After it every odd operation erases one. Torn, that may
// look whole.
TEST(Doctor, NamesThePageOfADataflash) {
    for (const char *const slots : {"running-retired", "running-erased", "running-broken"}) {
        SCOPED_TRACE(slots);
        const World world = WorldOf({"dataflash-update", slots, {}, 1}, FixedBuilds());
        Sweeper sweeper(world, ProcessorKind::host, FixedBuilds());
        // What builds have in common may be there already, so only a page that is broken tells how far it came.
        const auto some = [](const Cut &cut) { return cut.moment != CutMoment::before && cut.operation % 16 == 1; };
        for (Snapshot &cut : sweeper.take_snapshots(world.chips, 0, some)) {
            SCOPED_TRACE(testing::Message() << cut.cut.operation << " " << static_cast<int>(cut.cut.moment));
            const FlashDiagnosis found = Diagnosed(RawFlashOf(cut.chips.dataflash), world);
            EXPECT_EQ(found.running, 0u);
            const std::uint64_t page = (cut.cut.operation + 1) / 2;
            const SlotDiagnosis &slot = found.slots[1];
            ASSERT_TRUE(slot.cut_page) << NameOf(slot.condition) << " " << slot.holds;
            EXPECT_TRUE(slot.cut_page == page || (cut.cut.moment == CutMoment::torn && slot.cut_page == page + 1))
                << *slot.cut_page << " " << slot.holds;
            EXPECT_THAT(found.history, ElementsAre(testing::StartsWith("update to new cut at page")));
        }
        At45Contents uncut = world.chips.dataflash;
        const std::string before = DiagnoseFlash(RawFlashOf(uncut), References(world)).slots[1].holds;
        unsigned told = 0;
        for (unsigned way = 1; way <= 8; ++way) {
            SCOPED_TRACE(way);
            Chips chips = sweeper.cut({{0, CutMoment::torn, way}});
            const FlashDiagnosis found = Diagnosed(RawFlashOf(chips.dataflash), world);
            EXPECT_EQ(found.running, 0u);
            const SlotDiagnosis &slot = found.slots[1];
            if (slot.cut_page == 0u) {
                ++told;
                EXPECT_THAT(found.history,
                            ElementsAre(testing::StartsWith("update cut at the first page of bootloader 1")));
            } else if (slot.cut_page != 1u) {
                EXPECT_EQ(slot.holds, before);
            }
        }
        EXPECT_GT(told, 0u);
    }
}

struct Repairs : testing::Test {
    TemporaryDirectory directory;
    std::string file(const std::string &name) const { return (directory.path() / name).string(); }
    const Bytes known = Wrap(KnownFirmware(FirmwareDirectory()).all().front().flat);
    const Bytes rescue = Wrap(Bytes(9000, 3));

    // A board whose only bootloader has a bit that flipped, with a rescue image of version 1.0.
    NandContents board(bool damaged) const {
        NandContents nand;
        StoreProvision(RawFlashOf(nand), {0, known, rescue, "1.0"});
        if (!damaged) return nand;
        const std::uint32_t row = 0x40000 / kNandPageBytes + 5;
        NandContents::Page page = nand.page(row);
        page[17] ^= 4;
        nand.set_page(row, page);
        return nand;
    }
};

TEST_F(Repairs, ADamagedBitIsNamedAndMendedInACopy) {
    SaveChip(board(true), file("bad.bin"));
    const Bytes before = ReadFile(file("bad.bin"), 1u << 30);
    const CommandResult result = RunFixture({"doctor", "--json", "--nand", file("bad.bin"), "--fix", file("good.bin")});
    EXPECT_EQ(result.exit_status, 1);
    const json slot = result.json()["chips"][0]["slots"][0];
    const json damage = slot["damages"][0];
    EXPECT_EQ(json({slot["condition"], damage["page"], damage["unit"]}), json({"damaged", 5, 2}));
    EXPECT_THAT(damage["text"].get<std::string>(), HasSubstr("1 bit wrong, first in byte 0x11"));
    EXPECT_EQ(ReadFile(file("bad.bin"), 1u << 30), before) << "the input stays";
    SaveChip(board(false), file("right.bin"));
    EXPECT_EQ(ReadFile(file("good.bin"), 1u << 30), ReadFile(file("right.bin"), 1u << 30));
    EXPECT_EQ(RunFixture({"doctor", "--nand", file("good.bin")}).exit_status, 0);
    EXPECT_NE(RunFixture({"doctor", "--nand", file("bad.bin"), "--fix", file("good.bin")}).exit_status, 1)
        << "an older file is never written over";
}

// What a programmer read without the spare bytes, as far as it read: mended in its own layout and length.
TEST_F(Repairs, ADumpOfDataAloneStaysOne) {
    const ChipFileLayout data_only{ChipLayout::data_only, 0};
    for (const std::size_t longer : {std::size_t{0}, std::size_t{64} * 2048}) {
        SCOPED_TRACE(longer);
        Bytes dump = ChipBytesOf(board(true), data_only), right = ChipBytesOf(board(false), data_only);
        dump.resize(dump.size() + longer, 0xFF);
        right.resize(dump.size(), 0xFF);
        WriteFile(file("dump.bin"), dump);
        const std::string fixed = fmt::format("fixed-{}.bin", longer);
        const CommandResult result = RunFixture({"doctor", "--nand", file("dump.bin"), "--fix", file(fixed)});
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_THAT(result.output,
                    AllOf(HasSubstr("page 5 at 0x00042800, block 2: 1 bit wrong"), HasSubstr("mended in ")));
        EXPECT_EQ(ReadFile(file("dump.bin"), 1u << 30), dump);
        EXPECT_EQ(ReadFile(file(fixed), 1u << 30), right);
        EXPECT_EQ(RunFixture({"doctor", "--nand", file(fixed)}).exit_status, 0);
    }
    // Cut short in the slot: what is missing counts as erased, and is named.
    Bytes half = ChipBytesOf(board(false), data_only);
    half.resize(std::size_t{0x40000} + 20 * 2048);
    WriteFile(file("half.bin"), half);
    const CommandResult result = RunFixture({"doctor", "--nand", file("half.bin")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("page 21"), HasSubstr("starts nothing")));
}

TEST_F(Repairs, ASectorThatACutCommitLeftIsCleared) {
    EepromContents chip;
    PlaceStoreImage(chip.bytes, 0, MakeStoreImage(1, {{9, {10, 0, 0, 5}}}));
    Bytes half = MakeStoreImage(1, {{9, {10, 0, 0, 6}}});
    half.resize(10);
    PlaceStoreImage(chip.bytes, 1, half);
    SaveChip(chip, file("eeprom.bin"));
    const CommandResult result = RunFixture({"doctor", "--eeprom", file("eeprom.bin"), "--fix", file("fixed.bin")});
    EXPECT_THAT(result.output, HasSubstr("a commit to sector 1 was cut; sector 0 is whole"));
    EXPECT_EQ(RunFixture({"doctor", "--eeprom", file("fixed.bin")}).exit_status, 0);
    EXPECT_THAT(RunFixture({"diff", file("eeprom.bin"), file("fixed.bin")}).output, HasSubstr("sector 1\n"));
}

TEST_F(Repairs, OnlyThePlaceNamedIsMended) {
    SaveChip(board(true), file("bad.bin"));
    const struct {
        const char *only;
        int exit_status;
        const char *told;
    } rows[] = {
        {"bootloader 0", 1, "mended in OUT: bootloader 0: write "},
        {"rescue", 1, "mended in OUT: nothing\n"},
        {"version record", 1, "mended in OUT: nothing\n"},
        {"bootloader0", 2,
         "\"bootloader0\" on this chip; expected bootloader 0, bootloader 1, rescue or version record"},
        {"sector 0", 2, "--only: no place \"sector 0\""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.only);
        const std::string out = file(row.only);
        const CommandResult result =
            RunFixture({"doctor", "--nand", file("bad.bin"), "--fix", out, "--only", row.only});
        EXPECT_EQ(result.exit_status, row.exit_status);
        std::string told = result.output + result.error;
        if (const std::size_t at = told.find("mended in " + out); at != std::string::npos)
            told.replace(at + 10, out.size(), "OUT");
        EXPECT_THAT(told, HasSubstr(row.told));
        EXPECT_EQ(std::filesystem::exists(out), row.exit_status == 1) << "a refused call writes nothing";
    }
}

TEST_F(Repairs, WhatIsPrintedToBePastedCanBe) {
    const std::pair<const char *, const char *> rows[] = {
        {"plain.bin", "/plain.bin"},
        {"board 7.bin", "'/board 7.bin'"},
        {"board's.bin", "'/board'\\''s.bin'"},
        {"red\x1b[31m'.bin", "$'/red\\x1B[31m\\'.bin'"},
    };
    for (const auto &[name, word] : rows) {
        SaveChip(board(true), file(name));
        const CommandResult result = RunFixture({"doctor", "--nand", file(name)});
        EXPECT_EQ(result.output.find('\x1b'), std::string::npos);
        // The directory stands between what opens the word and the slash.
        std::string told = result.output;
        for (std::size_t at; (at = told.find(directory.path().string())) != std::string::npos;)
            told.erase(at, directory.path().string().size());
        EXPECT_THAT(told, HasSubstr(fmt::format("--nand {} --out FIXED", word)));
    }
}

TEST_F(Repairs, OneSlotIsWrittenAndTheOthersStay) {
    SaveChip(board(false), file("a.bin"));
    WriteFile(file("image"), known);
    const auto flash = [&](std::vector<std::string> words) {
        words.insert(words.begin(), "flash");
        return RunFixture(words).exit_status;
    };
    const auto diff = [&](const char *other) {
        json places = json::array();
        const json found = RunFixture({"diff", "--json", "--as", "nand", file("a.bin"), file(other)}).json();
        for (const json &difference : found["differences"]) places.push_back(difference["where"]);
        return places;
    };
    const std::string a = file("a.bin");
    ASSERT_EQ(flash({"write", "bootloader1", "--nand", a, "--image", file("image"), "--out", file("b.bin")}), 0);
    EXPECT_THAT(diff("b.bin"), ElementsAre("bootloader 1", "bootloader 1, pages"));
    ASSERT_EQ(flash({"erase", "record", "--nand", a, "--out", file("c.bin")}), 0);
    EXPECT_THAT(diff("c.bin"), ElementsAre("version record", "before the slots, pages"));
    ASSERT_EQ(flash({"erase", "bootloader1", "--nand", file("b.bin")}), 0);
    EXPECT_EQ(RunFixture({"diff", "--as", "nand", a, file("b.bin")}).exit_status, 0);
    ASSERT_EQ(flash({"extract", "rescue", "--nand", a, "--out", file("rescue")}), 0);
    EXPECT_EQ(ReadFile(file("rescue"), 1u << 20), rescue);
    EXPECT_EQ(flash({"extract", "bootloader1", "--nand", a, "--out", file("none")}), 1);
    EXPECT_FALSE(std::filesystem::exists(file("none")));
}

TEST_F(Repairs, AChipIsVerifiedAgainstABank) {
    const std::vector<BankFile> files = {{FileRole::application, "application.bin", "2.0", Bytes(3000, 5)},
                                         {FileRole::bootloader, "bootloader.bin", "1.9.0", known},
                                         {FileRole::rescue, "rescue.bin", "1.1", rescue}};
    WriteBank(directory.path() / "bank", files);
    SaveChip(board(false), file("a.bin"));
    const auto verify = [&](const char *chip) {
        return RunFixture({"flash", "verify", "--json", "--nand", file(chip), "--against", file("bank")});
    };
    const CommandResult result = verify("a.bin");
    EXPECT_EQ(result.exit_status, 1);
    const json problems = result.json()["problems"];
    ASSERT_EQ(problems.size(), 1u) << result.output;
    EXPECT_EQ(problems[0]["where"], "version record");
    ASSERT_EQ(RunFixture({"flash", "write", "record", "--nand", file("a.bin"), "--version", "1.1"}).exit_status, 0);
    EXPECT_EQ(verify("a.bin").exit_status, 0);
}

} // namespace

} // namespace fixture
