// fixture diff of banks and of whole boards: each row changes one thing, and that one is named. Chips alone are
// compared in doctor_test.cpp, beside what mends them.
#include "formats/bank.h"
#include "formats/flash_report.h"
#include "formats/parameter_store.h"
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include <fmt/format.h>
#include <functional>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Diff : testing::Test {
    TemporaryDirectory here;

    std::vector<BankFile> files() const {
        return {{FileRole::application, "application.bin", "2.0", Bytes(3000, 5)},
                {FileRole::bootloader, "bootloader.bin", "1.9.1", Wrap(Bytes(5000, 7))}};
    }
    void write_bank(const fs::path &at, const std::vector<BankFile> &files) const {
        here.write(at / kDescriptorName, MakeDescriptor(files));
        here.write(at / kManifestName, MakeManifest(files));
        for (const BankFile &file : files) here.write(at / file.path(), {file.bytes.begin(), file.bytes.end()});
    }
    void write_board(const fs::path &at, const NandContents &nand, const EepromContents &eeprom) const {
        write_bank(at / "volume/data/app", files());
        SaveChip(nand, here.path() / at / "nand.bin");
        SaveChip(eeprom, here.path() / at / "eeprom.bin");
    }
    // The exit status, and where the two differ.
    std::pair<int, std::vector<std::string>> compare(const char *one, const char *other) const {
        const CommandResult result = RunCommand(
            AddDiffCommand, {"diff", "--json", (here.path() / one).string(), (here.path() / other).string()});
        std::vector<std::string> places;
        const json said = json::parse(result.output);
        for (const json &difference : said["differences"]) places.push_back(difference["where"].get<std::string>());
        return {result.exit_status, places};
    }
};

TEST_F(Diff, NamesWhatTwoBanksDifferIn) {
    write_bank("a", files());
    const auto with = [&](const std::function<void(std::vector<BankFile> &)> &change) {
        std::vector<BankFile> changed = files();
        change(changed);
        write_bank("b", changed);
    };
    const struct {
        const char *name;
        std::function<void()> change;
        std::vector<std::string> places;
    } rows[] = {
        {"nothing", [&] { with([](auto &) {}); }, {}},
        {"a version", [&] { with([](auto &f) { f[0].version = "2.1"; }); }, {"application version", kDescriptorName}},
        {"a file with the same size and sum",
         [&] {
             with([](auto &f) {
                 ++f[0].bytes[7];
                 --f[0].bytes[9];
             });
         },
         {"bin/application.bin"}},
        {"a longer file, which the manifest lists",
         [&] { with([](auto &f) { f[0].bytes.push_back(0); }); },
         {"bin/application.bin", kManifestName}},
        {"a file that is damaged",
         [&] {
             with([](auto &) {});
             here.write("b/bin/application.bin", "short");
         },
         {"bin/application.bin", "launch"}},
        {"a rescue image more",
         [&] { with([](auto &f) {
                   f.push_back({FileRole::rescue, "rescue.bin", "1.0", Wrap(Bytes(90, 3))});
               }); },
         {"rescue version", "bin/rescue.bin", kDescriptorName, kManifestName}},
        {"headings, which nobody reads",
         [&] {
             std::string manifest = MakeManifest(files());
             manifest[3] ^= 1;
             with([](auto &) {});
             here.write(fs::path("b") / kManifestName, manifest);
         },
         {kManifestName}},
        {"no manifest",
         [&] {
             with([](auto &) {});
             fs::remove(here.path() / "b" / kManifestName);
         },
         {"bin/application.bin", "bin/bootloader.bin", kManifestName, "launch"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(here.path() / "b");
        row.change();
        const auto [status, places] = compare("a", "b");
        EXPECT_EQ(status, row.places.empty() ? 0 : 1);
        EXPECT_THAT(places, testing::UnorderedElementsAreArray(row.places));
    }
}

TEST_F(Diff, NamesWhatTwoBoardsDifferIn) {
    NandContents nand;
    StoreProvision(RawFlashOf(nand), {0, Wrap(Bytes(5000, 7)), {}, ""});
    EepromContents eeprom;
    PlaceStoreImage(eeprom.bytes, 0, MakeStoreImage(1, {{9, {10, 0, 0, 5}}}));
    write_board("a", nand, eeprom);
    const struct {
        const char *name;
        std::function<void(NandContents &, EepromContents &)> chips;
        std::function<void(const fs::path &)> after;
        std::vector<std::string> places;
    } rows[] = {
        {"nothing", {}, {}, {}},
        {"a parameter",
         [](auto &, auto &store) {
             PlaceStoreImage(store.bytes, 0, MakeStoreImage(1, {{9, {10, 0, 0, 6}}}));
         },
         {},
         {"eeprom.bin: parameter 9 (address)", "eeprom.bin: bytes"}},
        {"a bad block", [](auto &chip, auto &) { chip.make_factory_bad(900); }, {}, {"nand.bin: bad blocks"}},
        {"the other slot",
         [](auto &chip, auto &) {
             StoreProvision(RawFlashOf(chip), {1, Wrap(Bytes(5000, 7)), {}, ""});
         },
         {},
         {"nand.bin: bootloader 0", "nand.bin: bootloader 1", "nand.bin: first stage", "nand.bin: bootloader 0, pages",
          "nand.bin: bootloader 1, pages"}},
        {"a chip that is not there", {}, [](const fs::path &board) { fs::remove(board / "nand.bin"); }, {"nand.bin"}},
        {"a bank that is not there",
         {},
         [](const fs::path &board) { fs::remove_all(board / "volume/data/app"); },
         {"volume/data/app"}},
        {"a file of a bank",
         {},
         [](const fs::path &board) { fs::remove(board / "volume/data/app/bin/application.bin"); },
         {"volume/data/app: bin/application.bin", "volume/data/app: launch"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(here.path() / "b");
        NandContents other_nand = nand;
        EepromContents other_eeprom = eeprom;
        if (row.chips) row.chips(other_nand, other_eeprom);
        write_board("b", other_nand, other_eeprom);
        if (row.after) row.after(here.path() / "b");
        const auto [status, places] = compare("a", "b");
        EXPECT_EQ(status, row.places.empty() ? 0 : 1);
        EXPECT_THAT(places, testing::IsSupersetOf(row.places));
        EXPECT_LE(places.size(), row.places.size() + 1) << "one sector's line may stand beside its parameter's";
    }
    fs::create_directories(here.path() / "c");
    fs::create_directories(here.path() / "d");
    EXPECT_NE(
        RunCommand(AddDiffCommand, {"diff", (here.path() / "c").string(), (here.path() / "d").string()}).exit_status, 1)
        << "two directories with nothing in them are no boards that are alike";
}

} // namespace

} // namespace fixture
