// What is foretold of banks, against what the bootloader does: hostile banks by the hundred, and volumes whose banks
// work against each other. FIXTURE_BANKS=5000 in the environment makes it thousands.
#include "formats/bank_check.h"
#include "formats/stored_image.h"
#include "harness/bank_files.h"
#include "harness/command.h"
#include "harness/hostile_bank.h"
#include "harness/started_board.h"
#include "harness/texts.h"
#include "harness/unprivileged.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "sweep/foretold.h"

#include <cstdlib>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace fixture {

namespace fs = std::filesystem;
using testing::HasSubstr, testing::Not;

namespace {

// A provisioned board, on one medium or the other, with a rescue image or without.
World Provisioned(const TemporaryDirectory &volume, unsigned seed) {
    World world;
    world.medium = seed % 2 ? Medium::nand : Medium::dataflash;
    world.board.straps.pins_12_13 = seed % 2;
    world.volume = std::make_shared<const fs::path>(volume.path());
    Provision provision{0, Wrap(Bootloader().flat), {}, ""};
    if (seed % 3 == 0) {
        provision.rescue = Wrap(Bytes(99, 1));
        provision.rescue_version = "2.0";
    }
    StoreProvision(seed % 2 ? RawFlashOf(world.chips.nand) : RawFlashOf(world.chips.dataflash), provision);
    return world;
}

// In what a boot went otherwise than foretold: its end, what is launched, any line of any start, slots and record.
std::string Disagreement(const World &world, const Foretold &foretold, Processor processor) {
    // What an image does that is no build of ours is nobody's to say: the run ends where it would be started.
    const bool stranger = foretold.prediction().end == BootEnd::unknown_bootloader;
    Chips chips = world.chips;
    std::string console;
    Machine machine(chips, {.processor = processor,
                            .known = &TestFirmware(),
                            .slots = true,
                            .volume = *world.volume,
                            .board = world.board,
                            .most_resets = stranger ? foretold.prediction().resets : 4,
                            .run_launched = false,
                            .console = [&console](char c) { console += c; }});
    RunReport report = machine.run();
    if (stranger && report.verdict == Verdict::reset_loop) {
        report.verdict = Verdict::no_bootloader;
        report.slot = foretold.prediction().slot;
    }
    return foretold.compare(report, console, machine.board().memory.memory(), chips);
}

// What is said of one bank file by file, against what is foretold of the first start from it.
void ExpectSameWord(const BankReport &bank, const Prediction &told) {
    std::set<std::string> ids;
    for (const BootStep &step : told.steps)
        if (step.start == 1 && step.place.starts_with(kBankDirectories[0])) ids.insert(step.id);
    const auto storable = [&](FileRole role) { return bank.listed(role) && bank.listed(role)->storable; };
    EXPECT_EQ(bank.rejected, ids.contains("bank-rejected"));
    const bool stored = ids.contains("bootloader-stored"), launched = ids.contains("application-launched");
    EXPECT_TRUE(storable(FileRole::rescue) || !ids.contains("rescue-stored"));
    EXPECT_TRUE(storable(FileRole::bootloader) || !stored);
    EXPECT_FALSE(storable(FileRole::bootloader) &&
                 (ids.contains("bootloader-refused") || ids.contains("bootloader-fails")));
    EXPECT_TRUE(bank.launches || !launched);
    EXPECT_FALSE(bank.launches && ids.contains("application-rejected"));
}

TEST(BankCheck, ForetellsWhatTheBootloaderDoes) {
    const char *const wanted = std::getenv("FIXTURE_BANKS");
    const unsigned banks = wanted ? static_cast<unsigned>(std::atoi(wanted)) : 200;
    std::map<std::string, unsigned> met;
    for (unsigned seed = 0; seed < banks && !HasFailure(); ++seed) {
        HostileBank bank(seed);
        const TemporaryDirectory volume;
        bank.write(volume);
        const World world = Provisioned(volume, seed);
        SCOPED_TRACE(fmt::format("bank {}: {}", seed, bank.descriptor));
        const Foretold foretold(world, world.chips, TestFirmware());
        ExpectSameWord(ExamineBank(volume.path() / "data/app", kBankDirectories[0]), foretold.prediction());
        for (const BootStep &step : foretold.prediction().steps) ++met[step.id];
        for (const Processor processor : {Processor::host, Processor::arm})
            if (processor == Processor::host || wanted || seed % 8 == 0) {
                EXPECT_EQ(Disagreement(world, foretold, processor), "");
            }
    }
    for (const char *const step : {"bank-rejected", "bank-incomplete", "rescue-kept", "rescue-fails", "rescue-stored",
                                   "bootloader-kept", "bootloader-refused", "bootloader-fails", "bootloader-stored",
                                   "application-rejected", "application-launched", "rescue-launched"})
        EXPECT_GT(met[step], banks / 50) << step << " is hardly tried";
}

// A file whose mode forbids reading is there for whoever lists the directory, and for nobody who opens it.
TEST(BankCheck, ForetellsABankOfWhichAFileCannotBeRead) {
    const std::vector<BankFile> files = {
        {FileRole::application, "demo.bin", "2.0", Bytes(3000, 5)},
        {FileRole::bootloader, "boot2.bin", "1.9.1", Wrap(Bootloader("1.9.1").flat)},
        {FileRole::rescue, "help.bin", "3.0", Wrap(Bytes(900, 3))},
    };
    const std::pair<std::string, const char *> rows[] = {
        {kDescriptorName, "bank-rejected"},       {kManifestName, "bank-rejected"},
        {"bin/demo.bin", "application-rejected"}, {"bin/boot2.bin", "bootloader-refused"},
        {"bin/help.bin", "rescue-kept"},
    };
    for (const auto &[name, id] : rows) {
        SCOPED_TRACE(name);
        const TemporaryDirectory volume;
        WriteBank(volume.path() / "data/app", files);
        fs::permissions(volume.path(), fs::perms(0755));
        fs::permissions(volume.path() / "data/app" / name, fs::perms::none);
        const World world = Provisioned(volume, 1);
        const Unprivileged unprivileged;
        const Foretold foretold(world, world.chips, TestFirmware());
        const auto &steps = foretold.prediction().steps;
        EXPECT_TRUE(std::any_of(steps.begin(), steps.end(), [&, expected = std::string(id)](const BootStep &step) {
            return step.id == expected && step.text.find("permission denied") != std::string::npos;
        }));
        ExpectSameWord(ExamineBank(volume.path() / "data/app", kBankDirectories[0]), foretold.prediction());
        EXPECT_EQ(Disagreement(world, foretold, Processor::host), "");
    }
}

// Volumes of good banks, each with its bootloader's version and whether its application works.
struct VolumeBank {
    const char *name;
    const char *bootloader;
    bool application_works;
};

std::string Build(const TemporaryDirectory &volume, const VolumeBank &bank) {
    std::string place = (volume.path() / "data" / bank.name).string();
    volume.write("data/keep", "");
    const std::string build = std::string_view(bank.bootloader) == "1.9.0" ? "" : std::string("-") + bank.bootloader;
    const CommandResult built = RunFixture(
        {"bank", "build", place, "--app", volume.write("demo.bin", "x"), "--app-version", "1", "--bootloader",
         FirmwareDirectory() / "fixed" / ("bootloader" + build + ".bin"), "--bootloader-version", bank.bootloader});
    EXPECT_EQ(built.exit_status, 0) << built.error;
    if (!bank.application_works) volume.write(fs::path("data") / bank.name / "bin/demo.bin", "y");
    return place;
}

TEST(BankCheck, NamesBanksThatFight) {
    const struct {
        std::vector<VolumeBank> banks;
        bool fight;
        bool launches;
    } rows[] = {
        {{{"app", "1.9.1", false}, {"oldapp", "1.9.0", true}}, true, false},
        {{{"app", "1.9.1", true}, {"oldapp", "1.9.0", true}}, false, true},
        {{{"app", "1.9.0", false}, {"oldapp", "1.9.0", true}}, false, true},
        {{{"app", "1.9.0", false}}, false, false},
    };
    for (const auto &row : rows) {
        TemporaryDirectory volume;
        for (const VolumeBank &bank : row.banks) Build(volume, bank);
        const CommandResult result = RunFixture({"bank", "check", "--json", volume.path()});
        const nlohmann::json json = result.json();
        std::set<std::string> ids;
        for (const nlohmann::json &problem : json["problems"]) ids.insert(problem["id"]);
        EXPECT_EQ(ids.contains("two-banks-fight"), row.fight) << result.output;
        EXPECT_EQ(json["launches"], row.launches) << result.output;
        // The board itself, from its slots.
        Chips chips;
        StoreProvision(RawFlashOf(chips.dataflash), {0, Wrap(Bootloader().flat), {}, ""});
        BootCase boot;
        boot.processor = Processor::host;
        boot.volume = volume.path();
        boot.chips = &chips;
        boot.from_slots = true;
        const RunReport report = RunBoot(boot).report;
        EXPECT_EQ(report.verdict, row.launches ? Verdict::launched : row.fight ? Verdict::reset_loop : Verdict::idle);
    }
}

TEST(BankCheck, WarningsCanFailOrBeAllowed) {
    TemporaryDirectory volume;
    const std::string bank = Build(volume, {"app", "1.9.1", true});
    const auto check = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {"bank", "check", bank});
        return RunFixture(more);
    };
    EXPECT_EQ(check({"--strict"}).exit_status, kBad) << "images with the fixed build record are no known build";
    EXPECT_THAT(check({}).error, HasSubstr("(unknown-build)"));
    EXPECT_EQ(check({"--strict", "--allow", "unknown-build"}).exit_status, kGood);
    EXPECT_THAT(check({"--allow", "unknown-build"}).error, Not(HasSubstr("unknown-build")));
    EXPECT_EQ(check({"--allow", "no-such-warning"}).exit_status, kWrongCall);
}

// A header with nothing after it counts as good everywhere on the board, which is then lost.
TEST(BankCheck, ABootloaderWithoutABodyIsNamed) {
    TemporaryDirectory volume;
    const std::string bank = Build(volume, {"app", "1.9.1", true});
    const Bytes header = Wrap(Bytes{});
    const std::string empty = volume.write("empty.bin", AsText(header)).string();
    const CommandResult built = RunFixture({"bank", "build", bank, "--app", volume.path() / "demo.bin", "--app-version",
                                            "1", "--bootloader", empty, "--bootloader-version", "2"});
    EXPECT_THAT(built.error, HasSubstr("without a body"));
    fs::copy_file(empty, fs::path(bank) / "bin/bootloader-1.9.1.bin", fs::copy_options::overwrite_existing);
    Bytes manifest = ReadFile(fs::path(bank) / "BankContent.txt", 10000);
    const std::string numbers = fmt::format("{:>9} | {:>9}", header.size(), ByteSum(header));
    std::copy(numbers.begin(), numbers.end(), manifest.begin() + 3 * 282);
    WriteFile(fs::path(bank) / "BankContent.txt", manifest);
    const CommandResult checked = RunFixture({"bank", "check", bank});
    EXPECT_EQ(checked.exit_status, kBad);
    EXPECT_THAT(checked.output, HasSubstr("a board that stores it is lost"));
    NandContents chip;
    RawFlashOf(chip).write(SlotsOf(Medium::nand).bootloader[0].address, header);
    SaveChip(chip, volume.path() / "chip");
    const CommandResult shown = RunFixture({"flash", "info", "--nand", volume.path() / "chip"});
    EXPECT_EQ(shown.exit_status, kBad);
    EXPECT_THAT(shown.output, HasSubstr("NO BODY"));
}

} // namespace

} // namespace fixture
