// Slots: which image they hold, which one the first stage starts, and the commands that fill and show them.
#include "fixture/parts/at45.h"
#include "fixture/parts/nand.h"
#include "formats/flash_report.h"
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/noise.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"

#include <bit>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

using nlohmann::json;
using testing::AllOf, testing::ElementsAre, testing::HasSubstr, testing::Not;

namespace {

std::vector<std::string> Texts(const Problems &problems) {
    std::vector<std::string> texts;
    for (const Problem &problem : problems) texts.push_back(problem.text());
    return texts;
}

TEST(FlashSlots, AnImageIsJudgedByMakerSizeAndSums) {
    constexpr std::uint32_t kCapacity = 0x1000;
    const Bytes full = Wrap(Noise(kCapacity - 32, 1));
    Bytes maker = full, sums = full;
    maker[3] ^= 0x20;
    sums.back() ^= 1;
    const std::pair<Bytes, ImageVerdict> rows[] = {
        {full, ImageVerdict::good},
        {Wrap(Bytes{}), ImageVerdict::good},
        {Wrap(Noise(kCapacity - 31, 1)), ImageVerdict::bad_size},
        {maker, ImageVerdict::no_maker},
        {sums, ImageVerdict::bad_sums},
        {Bytes(kCapacity, 0xFF), ImageVerdict::erased},
        {Bytes(kCapacity, 0), ImageVerdict::no_maker},
    };
    for (const auto &[bytes, verdict] : rows)
        EXPECT_EQ(JudgeImage(bytes, kCapacity).verdict(), verdict) << bytes.size();
    for (const std::uint32_t size : {0u, 31u, kCapacity + 1, 0xFFFFFFE0u, 0xFFFFFFFFu}) {
        Bytes image = full;
        for (int n = 0; n < 4; ++n) image[20 + n] = static_cast<std::uint8_t>(size >> 8 * n);
        EXPECT_EQ(JudgeImage(image, kCapacity).verdict(), ImageVerdict::bad_size) << size;
    }
}

// Blocks 3 and 4 of slot 0 (blocks 2 to 16) are bad: its image goes on after them, and reading it does likewise.
TEST(FlashSlots, ReadingSkipsBadBlocks) {
    NandContents nand;
    nand.make_factory_bad(3);
    nand.make_factory_bad(4);
    const RawFlash flash = RawFlashOf(nand);
    const Bytes image = Wrap(Noise(3 * kNandBlockBytes, 5));
    flash.write(0x40000, image);
    EXPECT_EQ(nand.read(5 * kNandBlockBytes, 4),
              Bytes(image.begin() + kNandBlockBytes, image.begin() + kNandBlockBytes + 4));
    EXPECT_EQ(ReadSlot(flash.read, SlotsOf(Medium::nand).bootloader[0]).bytes, image);
    EXPECT_EQ(ChooseBootloader(flash.read, SlotsOf(Medium::nand)), 0u);
    EXPECT_EQ(flash.read(kNandBytes - 2, kNandBlockBytes + 1), Bytes(kNandBlockBytes + 1, 0xFF)) << "the chip's end";
}

TEST(FlashSlots, ARescueImageMayReachToTheEndOfADataflash) {
    At45Contents chip(*FindAt45Part(kDefaultAt45));
    const std::uint32_t room = chip.bytes() - 0x404000 - 32;
    EXPECT_EQ(SlotsOf(Medium::dataflash).rescue.capacity, room);
    const Provision fits{.bootloader = Wrap(Bytes{}), .rescue = Wrap(Noise(room - 32, 3)), .rescue_version = "1"};
    StoreProvision(RawFlashOf(chip), fits);
    EXPECT_EQ(ExamineFlash(RawFlashOf(chip)).slots[2].image.verdict(), ImageVerdict::good);
    Provision too_long = fits;
    too_long.rescue = Wrap(Noise(room - 31, 3));
    EXPECT_THROW(StoreProvision(RawFlashOf(chip), too_long), Refusal);
}

TEST(FlashSlots, NeighboursInADataflashPageAreNamed) {
    At45Contents chip(*FindAt45Part("AT45DB321"));
    chip.write(0, Bytes(0x7F00, 0x11)); // a first-stage loader up to the record
    StoreProvision(RawFlashOf(chip), {0, Wrap(Noise(0x1FC000 - 32, 1)), {}, ""});
    EXPECT_THAT(Texts(ExamineFlash(RawFlashOf(chip)).warnings),
                ElementsAre(HasSubstr("version record: page 61 holds 304 bytes of what lies before it"),
                            HasSubstr("bootloader 1: page 4002 holds")));
}

struct FlashTool : testing::Test {
    static CommandResult run(std::vector<std::string> words) {
        words.insert(words.begin(), "flash");
        return RunFixture(words);
    }
    static json report(const CommandResult &result) { return result.json().at("chips").at(0); }
    std::string file(const std::string &name) { return (directory.path() / name).string(); }
    std::string file(const std::string &name, const Bytes &bytes) {
        WriteFile(directory.path() / name, bytes);
        return file(name);
    }
    static std::string warnings(const CommandResult &result) {
        std::string texts;
        const json told = result.json();
        for (const json &warning : told.at("warnings")) texts += warning.at("text").get<std::string>() + "\n";
        return texts;
    }
    static std::string warnings(const RawFlash &flash) { return json(Texts(ExamineFlash(flash).warnings)).dump(); }

    TemporaryDirectory directory;
    const Bytes bootloader = Wrap(Noise(70'000, 1));
    const Bytes rescue = Wrap(Noise(9'000, 2));
};

TEST_F(FlashTool, ProvisionedChipsShowWhatProductionStored) {
    const std::string image = file("boot.img", bootloader), bare = file("rescue.bin", Noise(9'000, 2));
    for (const std::string medium : {"nand", "dataflash"}) {
        for (const unsigned slot : {0u, 1u}) {
            const std::string chip = file(medium);
            const CommandResult made = run({"provision", "--medium", medium, "--" + medium, chip, "--bootloader", image,
                                            "--slot", std::to_string(slot), "--rescue", bare + ":2.7", "--json"});
            ASSERT_EQ(made.exit_status, 0);
            const CommandResult shown = run({"info", "--" + medium, chip, "--json"});
            EXPECT_EQ(shown.exit_status, 0);
            EXPECT_EQ(report(shown), report(made));
            const json info = report(shown);
            const json &slots = info["slots"];
            EXPECT_EQ(json({info["first_stage"], slots[slot]["state"], slots[slot]["size"], slots[1 - slot]["state"],
                            slots[2]["size"], info["rescue_version"]}),
                      json({slot, "good", bootloader.size(), "erased", rescue.size(), "2.7"}));
            EXPECT_EQ(warnings(made), "");
            EXPECT_THAT(warnings(shown), HasSubstr(fmt::format("bootloader {}: the only good bootloader", slot)));
        }
    }
    EXPECT_EQ(run({"info", "--nand", file("dataflash")}).exit_status, 1) << "nothing to boot from";
    EXPECT_THAT(
        run({"info", "--nand", file("nand"), "--dataflash", file("dataflash")}).output,
        AllOf(HasSubstr("  bootloader 1    0x00220000  good, 70032 bytes\n"), HasSubstr("DataFlash AT45DB642\n")));
}

TEST_F(FlashTool, BadBlocksAreNamedWithWhatTheyCost) {
    const std::string image = file("boot.img", bootloader), chip = file("nand");
    NandContents nand;
    nand.make_factory_bad(1);
    nand.make_factory_bad(7);
    SaveChip(nand, chip);
    const auto provision = [&](const std::string &stored, const std::string &option, const std::string &value) {
        return run({"provision", "--medium", "nand", "--nand", chip, "--json", "--bootloader", stored, option, value});
    };
    EXPECT_EQ(provision(image, "--rescue", image + ":1").exit_status, 1) << "the record would fall into slot 0";
    EXPECT_EQ(provision(file("large", Wrap(Noise(0x1C0000 - 31, 1))), "--nand-part", kDefaultNand).exit_status, 1)
        << "no room left";
    LoadChip(nand, chip);
    EXPECT_EQ(nand.read(0x40000, 4), Bytes(4, 0xFF)) << "a refused call writes nothing";
    const CommandResult fits = provision(file("fits", Wrap(Noise(0x1C0000 - 32, 1))), "--slot", "0");
    ASSERT_EQ(fits.exit_status, 0);
    EXPECT_EQ(report(fits)["bad_blocks"], (json{1, 7}));
    EXPECT_EQ(report(fits)["slots"][0]["room"], 0x1C0000);
    EXPECT_THAT(warnings(fits), AllOf(HasSubstr("block 1 is bad"), Not(HasSubstr("the last")),
                                      HasSubstr("bootloader 0: 1 bad block inside it; an image above 1835008 bytes")));
    // What an update does that knows nothing of the slot's room.
    LoadChip(nand, chip);
    RawFlashOf(nand).write(0x40000, Wrap(Noise(0x1E0000 - 32, 1)));
    EXPECT_THAT(warnings(RawFlashOf(nand)), HasSubstr("push the last 131072 of 1966080 bytes"));
}

// Two good copies are no reason to warn; spare bytes that only a layer below a file system writes are.
TEST_F(FlashTool, WarnsOfWhatTheSlotsShouldNotHold) {
    const std::string chip = file("nand");
    NandContents nand;
    for (const std::uint32_t address : {0x40000u, 0x220000u}) RawFlashOf(nand).write(address, bootloader);
    const auto with_spare = [&](std::uint32_t block, std::uint32_t byte) {
        NandContents changed = nand;
        NandContents::Page page = changed.page(block * kNandPagesPerBlock + 3);
        page[kNandPageBytes + byte] = 0x5A;
        changed.set_page(block * kNandPagesPerBlock + 3, page);
        SaveChip(changed, chip);
        return warnings(run({"info", "--nand", chip, "--json"}));
    };
    EXPECT_EQ(with_spare(127, 1), "") << "the mark of a 16-bit chip";
    EXPECT_EQ(with_spare(0, 9), "") << "the first stage's own";
    EXPECT_EQ(with_spare(128, 9), "") << "the file system's part";
    EXPECT_THAT(with_spare(127, 9),
                HasSubstr("in use in 1 of the blocks before the file system's part, from block 127"));
}

TEST_F(FlashTool, AnImageIsWarnedOfTheHolesItWouldMeet) {
    const std::string slot0 = "bootloader 0: ", slot1 = "bootloader 1: ", push = "bad blocks push the last ";
    const std::string refused = "bootloader: 1966081 bytes fit neither slot", shared = "the last 1 of 2080289 bytes";
    const struct {
        const char *part; // null: NAND
        std::vector<std::uint32_t> bad_blocks;
        bool rescue;
        std::uint32_t bytes;
        std::vector<std::string> warnings; // as they begin
    } rows[] = {
        {nullptr, {1, 5, 20, 40}, false, 70'000, {}},
        {nullptr, {5}, false, 0x1C0001, {slot0 + push + "1 of 1835009 bytes on into bootloader 1"}},
        {nullptr, {20}, false, 0x1E0000, {slot1 + push + "131072 of 1966080 bytes on into rescue"}},
        {nullptr, {5}, false, 0x1E0001, {refused}},
        {nullptr, {40}, true, 0xC00000, {"rescue: " + push + "131072 of 12582912 bytes on into the file"}},
        {nullptr, {1}, true, 9'000, {"version record: block 1 is bad"}},
        {"AT45DB642", {}, false, 2001 * 1056 - 0x8000, {}},
        {"AT45DB642", {}, false, 2001 * 1056 - 0x8000 + 1, {slot0 + shared + " share page 2001"}},
        {"AT45DB642", {}, false, 0x1FC001, {slot1 + "2080769 bytes fit here alone"}},
        {"AT45DB161", {}, false, 50'000, {slot0 + "50000 bytes fit here alone"}},
        {"AT45DB161", {}, true, 9'000, {"rescue: takes 0 bytes, not 9000"}},
        {"AT45DB642", {}, true, 9'000, {}},
    };
    for (const auto &row : rows) {
        NandContents nand;
        At45Contents dataflash(*FindAt45Part(row.part ? row.part : kDefaultAt45));
        for (const std::uint32_t block : row.bad_blocks) nand.make_factory_bad(block);
        const RawFlash flash = row.part ? RawFlashOf(dataflash) : RawFlashOf(nand);
        std::vector<std::string> found =
            Texts(row.rescue ? WarningsOfRescue(flash, row.bytes) : WarningsOfBootloader(flash, row.bytes));
        for (std::size_t n = 0; n < found.size() && n < row.warnings.size(); ++n)
            found[n].resize(std::min(found[n].size(), row.warnings[n].size()));
        EXPECT_EQ(found, row.warnings) << row.bytes;
    }
    // What only the images on a chip show.
    At45Contents chip(*FindAt45Part(kDefaultAt45));
    const RawFlash flash = RawFlashOf(chip);
    flash.write(0x404000, rescue);
    flash.write(0x7F00, Bytes{'2', 0});
    EXPECT_EQ(WarningsOfRescue(flash, 9'000, "2"), Problems{});
    EXPECT_THAT(WarningsOfRescue(flash, 9'000, "3").at(0).text(), HasSubstr("is replaced in place"));
    flash.write(0x204000, Wrap(Noise(0x200000 - 32, 1)));
    EXPECT_THAT(warnings(flash), HasSubstr("bootloader 1: 2097152 bytes fit here alone"));
    flash.write(0x404020, Bytes{0, 1, 2});
    EXPECT_THAT(warnings(flash), HasSubstr("rescue: no good image"));
}

TEST_F(FlashTool, WhatCannotWorkIsRefused) {
    const std::string image = file("boot.img", bootloader), chip = file("df");
    Bytes broken = bootloader;
    broken.back() ^= 1;
    using Words = std::vector<std::string>;
    const auto given = [&](const Words &more) {
        Words words = {"provision", "--medium", "dataflash", "--dataflash", chip, "--bootloader", image};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    };
    const std::pair<int, Words> calls[] = {
        {2, {"info"}},
        {2, {"info", "--nand", file("missing")}},
        {1, {"info", "--dataflash", file("long", Bytes(2162689)), "--dataflash-part", "AT45DB161"}},
        {2, {"info", "--dataflash", image, "--dataflash-part", "AT45"}},
        {2, {"provision", "--medium", "dataflash", "--bootloader", image}},
        {1, {"provision", "--medium", "dataflash", "--dataflash", chip, "--bootloader", file("broken", broken)}},
        {2, given({"--slot", "2"})},
        {2, given({"--rescue", image})},
        {1, given({"--rescue", image + ":"})},
        {1, given({"--rescue", image + ":12345678901234567"})},
        {1, given({"--rescue", image + ":1", "--dataflash-part", "AT45DB161"})}, // its slot lies beyond this chip
    };
    for (const auto &[status, words] : calls) EXPECT_EQ(run(words).exit_status, status) << words.back();
    EXPECT_FALSE(std::filesystem::exists(chip));
}

// Every part's whole dump, in either layout, against every part: one may be as long as half of another.
TEST_F(FlashTool, ADumpOfAnotherDataflashIsRefused) {
    for (const At45Part &dumped : At45Parts())
        for (const std::uint32_t page : {dumped.page_bytes, std::bit_floor(dumped.page_bytes)})
            for (const At45Part &fitted : At45Parts()) {
                const std::string dump = file("dump", Bytes(std::size_t{dumped.pages} * page, 0xFF));
                const CommandResult result = run({"info", "--dataflash", dump, "--dataflash-part", fitted.name});
                const auto refused = HasSubstr(fmt::format("the length of an {}", dumped.name));
                EXPECT_EQ(testing::Value(result.error, refused), &dumped != &fitted) << page << " for " << fitted.name;
            }
}

} // namespace

} // namespace fixture
