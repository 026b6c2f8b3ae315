// fixture doctor, diff and the slot commands of fixture flash. A diagnosis is tried on what every cut of an update
// leaves.
#include "formats/doctor.h"
#include "formats/slot_store.h"
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "sweep/scenarios.h"
#include "tools/commands.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const SweepFirmware &Builds() {
    static const SweepFirmware builds(FirmwareDirectory() / "fixed");
    return builds;
}

std::vector<ReferenceImage> References(const World &world) {
    return {{"old", FileRole::bootloader, world.before.bootloader, "1.9.0", ""},
            {"new", FileRole::bootloader, world.after.bootloader, "1.9.1", ""}};
}

// The operations of an update on NAND: slot 1 is erased, its pages are programmed, then slot 0 is erased and its header
// cleared. The page at which the diagnosis sees the cut is the one that was being programmed.
TEST(Doctor, NamesThePageAtWhichAnUpdateWasCut) {
    const World world = WorldOf({"nand-update", "running-broken", {}, 1}, Builds());
    Sweeper sweeper(world, ProcessorKind::host, Builds());
    const auto pages =
        static_cast<std::uint32_t>((world.after.bootloader.size() + kNandPageBytes - 1) / kNandPageBytes);
    ASSERT_EQ(sweeper.operations(), pages + 3u);
    const auto some = [pages](const Cut &each) { return each.operation % 4 == 1 || each.operation + 1 >= pages; };
    for (Snapshot &cut : sweeper.take_snapshots(world.chips, 0, some)) {
        SCOPED_TRACE(testing::Message() << cut.cut.operation << " " << static_cast<int>(cut.cut.moment));
        const FlashDiagnosis found = DiagnoseFlash(RawFlashOf(cut.chips.nand), References(world));
        const auto operation = static_cast<std::uint32_t>(cut.cut.operation);
        const bool after = cut.cut.moment == CutMoment::after, torn = cut.cut.moment == CutMoment::torn;
        if (operation == 0 || (operation == pages && torn)) continue; // before the update; a page whole or not
        if (operation <= pages) {
            const SlotDiagnosis &slot = found.slots[1];
            if (operation == pages && after) {
                EXPECT_EQ(slot.condition, SlotCondition::good);
                EXPECT_THAT(found.history, ElementsAre(HasSubstr("both copies are good")));
                continue;
            }
            const std::uint32_t page = operation - 1 + after;
            if (page == 0) continue; // nothing of it is there yet
            ASSERT_TRUE(slot.cut_page) << NameOf(slot.condition) << " " << slot.holds;
            EXPECT_TRUE(slot.cut_page == page || (torn && slot.cut_page == page + 1)) << *slot.cut_page;
            EXPECT_EQ(found.running, 0u);
            EXPECT_THAT(found.history,
                        ElementsAre(HasSubstr("update to new cut at page " + std::to_string(*slot.cut_page + 1))));
        } else if (operation == pages + 2 && after) {
            EXPECT_EQ(found.slots[0].condition, SlotCondition::retired) << found.slots[0].holds;
        }
        for (const Repair &repair : found.repairs) repair.apply(RawFlashOf(cut.chips.nand));
        EXPECT_TRUE(DiagnoseFlash(RawFlashOf(cut.chips.nand), References(world)).healthy());
    }
}

// After the first page, which the update shares with what lies before the slot, every odd operation erases one. Torn,
// it may look whole.
TEST(Doctor, NamesThePageOfADataflash) {
    for (const char *const slots : {"running-retired", "running-erased", "running-broken"}) {
        SCOPED_TRACE(slots);
        const World world = WorldOf({"dataflash-update", slots, {}, 1}, Builds());
        Sweeper sweeper(world, ProcessorKind::host, Builds());
        // What builds have in common may be there already, so only a page that is broken tells how far it came.
        const auto some = [](const Cut &cut) { return cut.moment != CutMoment::before && cut.operation % 16 == 1; };
        for (Snapshot &cut : sweeper.take_snapshots(world.chips, 0, some)) {
            SCOPED_TRACE(testing::Message() << cut.cut.operation << " " << static_cast<int>(cut.cut.moment));
            const RawFlash flash = RawFlashOf(cut.chips.dataflash);
            const FlashDiagnosis found = DiagnoseFlash(flash, References(world));
            EXPECT_EQ(found.running, 0u);
            const std::uint64_t page = (cut.cut.operation + 1) / 2;
            const SlotDiagnosis &slot = found.slots[1];
            ASSERT_TRUE(slot.cut_page) << NameOf(slot.condition) << " " << slot.holds;
            EXPECT_TRUE(slot.cut_page == page || (cut.cut.moment == CutMoment::torn && slot.cut_page == page + 1))
                << *slot.cut_page << " " << slot.holds;
            EXPECT_THAT(found.history, ElementsAre(testing::StartsWith("update to new cut at page")));
            for (const Repair &repair : found.repairs) repair.apply(flash);
            EXPECT_TRUE(DiagnoseFlash(flash, References(world)).healthy());
        }
    }
}

// That first page is erased and programmed by one command. Torn, it may also look as before, or as it was to become.
TEST(Doctor, TellsOfAFirstPageOfADataflashThatIsTorn) {
    for (const char *const slots : {"running-retired", "running-erased", "running-broken"}) {
        const World world = WorldOf({"dataflash-update", slots, {}, 1}, Builds());
        Sweeper sweeper(world, ProcessorKind::host, Builds());
        At45Contents uncut = world.chips.dataflash;
        const std::string before = DiagnoseFlash(RawFlashOf(uncut), References(world)).slots[1].holds;
        unsigned told = 0;
        for (unsigned way = 1; way <= 8; ++way) {
            SCOPED_TRACE(testing::Message() << slots << " " << way);
            Chips chips = sweeper.cut({{0, CutMoment::torn, way}});
            const RawFlash flash = RawFlashOf(chips.dataflash);
            const FlashDiagnosis found = DiagnoseFlash(flash, References(world));
            const SlotDiagnosis &slot = found.slots[1];
            EXPECT_EQ(found.running, 0u);
            if (slot.cut_page == 0u) {
                ++told;
                EXPECT_THAT(found.history,
                            ElementsAre(testing::StartsWith("update cut at the first page of bootloader 1")));
            } else if (slot.cut_page != 1u) {
                EXPECT_EQ(slot.holds, before);
            }
            for (const Repair &repair : found.repairs) repair.apply(flash);
            EXPECT_TRUE(DiagnoseFlash(flash, References(world)).healthy());
        }
        EXPECT_GT(told, 0u) << slots;
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
    const CommandResult result =
        RunCommand(AddDoctorCommand, {"doctor", "--json", "--nand", file("bad.bin"), "--fix", file("good.bin")});
    EXPECT_EQ(result.exit_status, 1);
    const json slot = json::parse(result.output)["chips"][0]["slots"][0];
    EXPECT_EQ(slot["condition"], "damaged");
    EXPECT_EQ(slot["damages"][0]["page"], 5);
    EXPECT_EQ(slot["damages"][0]["unit"], 2);
    EXPECT_THAT(slot["damages"][0]["text"].get<std::string>(), HasSubstr("1 bit wrong, first in byte 0x11"));
    EXPECT_EQ(ReadFile(file("bad.bin"), 1u << 30), before) << "the input stays";
    SaveChip(board(false), file("right.bin"));
    EXPECT_EQ(ReadFile(file("good.bin"), 1u << 30), ReadFile(file("right.bin"), 1u << 30));
    EXPECT_EQ(RunCommand(AddDoctorCommand, {"doctor", "--nand", file("good.bin")}).exit_status, 0);
    EXPECT_NE(
        RunCommand(AddDoctorCommand, {"doctor", "--nand", file("bad.bin"), "--fix", file("good.bin")}).exit_status, 1)
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
        const CommandResult result =
            RunCommand(AddDoctorCommand, {"doctor", "--nand", file("dump.bin"), "--fix", file(fixed)});
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_THAT(result.output, HasSubstr("page 5 at 0x00042800, block 2: 1 bit wrong"));
        EXPECT_THAT(result.output, HasSubstr("mended in "));
        EXPECT_EQ(ReadFile(file("dump.bin"), 1u << 30), dump);
        EXPECT_EQ(ReadFile(file(fixed), 1u << 30), right);
        EXPECT_EQ(RunCommand(AddDoctorCommand, {"doctor", "--nand", file(fixed)}).exit_status, 0);
    }
    // Cut short in the slot: what is missing counts as erased, and is named.
    Bytes half = ChipBytesOf(board(false), data_only);
    half.resize(std::size_t{0x40000} + 20 * 2048);
    WriteFile(file("half.bin"), half);
    const CommandResult result = RunCommand(AddDoctorCommand, {"doctor", "--nand", file("half.bin")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.output, HasSubstr("page 21"));
    EXPECT_THAT(result.output, HasSubstr("starts nothing"));
}

TEST_F(Repairs, ASectorThatACutCommitLeftIsCleared) {
    EepromContents chip;
    PlaceStoreImage(chip.bytes, 0, MakeStoreImage(1, {{9, {10, 0, 0, 5}}}));
    Bytes half = MakeStoreImage(1, {{9, {10, 0, 0, 6}}});
    half.resize(10);
    PlaceStoreImage(chip.bytes, 1, half);
    SaveChip(chip, file("eeprom.bin"));
    const CommandResult result =
        RunCommand(AddDoctorCommand, {"doctor", "--eeprom", file("eeprom.bin"), "--fix", file("fixed.bin")});
    EXPECT_THAT(result.output, HasSubstr("a commit to sector 1 was cut; sector 0 is whole"));
    EXPECT_EQ(RunCommand(AddDoctorCommand, {"doctor", "--eeprom", file("fixed.bin")}).exit_status, 0);
    EXPECT_THAT(RunCommand(AddDiffCommand, {"diff", file("eeprom.bin"), file("fixed.bin")}).output,
                HasSubstr("sector 1\n"));
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
         "--only: no place \"bootloader0\" on this chip; expected bootloader 0, bootloader 1, rescue or version "
         "record"},
        {"sector 0", 2, "--only: no place \"sector 0\""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.only);
        const std::string out = file(row.only);
        const CommandResult result =
            RunCommand(AddDoctorCommand, {"doctor", "--nand", file("bad.bin"), "--fix", out, "--only", row.only});
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
        const CommandResult result = RunCommand(AddDoctorCommand, {"doctor", "--nand", file(name)});
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
        return RunCommand(AddFlashCommand, words);
    };
    const auto diff = [&](const char *other) {
        json places = json::array();
        const json found = json::parse(
            RunCommand(AddDiffCommand, {"diff", "--json", "--as", "nand", file("a.bin"), file(other)}).output);
        for (const json &difference : found["differences"]) places.push_back(difference["where"]);
        return places;
    };
    ASSERT_EQ(flash({"write", "bootloader1", "--nand", file("a.bin"), "--image", file("image"), "--out", file("b.bin")})
                  .exit_status,
              0);
    EXPECT_THAT(diff("b.bin"), ElementsAre("bootloader 1", "bootloader 1, pages"));
    ASSERT_EQ(flash({"erase", "record", "--nand", file("a.bin"), "--out", file("c.bin")}).exit_status, 0);
    EXPECT_THAT(diff("c.bin"), ElementsAre("version record", "before the slots, pages"));
    ASSERT_EQ(flash({"erase", "bootloader1", "--nand", file("b.bin")}).exit_status, 0);
    EXPECT_EQ(RunCommand(AddDiffCommand, {"diff", "--as", "nand", file("a.bin"), file("b.bin")}).exit_status, 0);
    ASSERT_EQ(flash({"extract", "rescue", "--nand", file("a.bin"), "--out", file("rescue")}).exit_status, 0);
    EXPECT_EQ(ReadFile(file("rescue"), 1u << 20), rescue);
    EXPECT_EQ(flash({"extract", "bootloader1", "--nand", file("a.bin"), "--out", file("none")}).exit_status, 1);
    EXPECT_FALSE(std::filesystem::exists(file("none")));
}

TEST_F(Repairs, AChipIsVerifiedAgainstABank) {
    const std::vector<BankFile> files = {{FileRole::application, "application.bin", "2.0", Bytes(3000, 5)},
                                         {FileRole::bootloader, "bootloader.bin", "1.9.0", known},
                                         {FileRole::rescue, "rescue.bin", "1.1", rescue}};
    directory.write(std::string("bank/") + kDescriptorName, MakeDescriptor(files));
    directory.write(std::string("bank/") + kManifestName, MakeManifest(files));
    for (const BankFile &each : files) directory.write("bank/" + each.path(), {each.bytes.begin(), each.bytes.end()});
    SaveChip(board(false), file("a.bin"));
    const auto verify = [&](const char *chip) {
        return RunCommand(AddFlashCommand,
                          {"flash", "verify", "--json", "--nand", file(chip), "--against", file("bank")});
    };
    const CommandResult result = verify("a.bin");
    EXPECT_EQ(result.exit_status, 1);
    const json problems = json::parse(result.output)["problems"];
    ASSERT_EQ(problems.size(), 1u) << result.output;
    EXPECT_EQ(problems[0]["where"], "version record");
    ASSERT_EQ(RunCommand(AddFlashCommand, {"flash", "write", "record", "--nand", file("a.bin"), "--version", "1.1"})
                  .exit_status,
              0);
    EXPECT_EQ(verify("a.bin").exit_status, 0);
}

} // namespace

} // namespace fixture
