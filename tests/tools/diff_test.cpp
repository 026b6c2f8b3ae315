// fixture diff of banks and of whole boards: each row changes one thing, and that one is named. Chips alone are
// compared in doctor_test.cpp, beside what mends them.
#include "formats/flash_report.h"
#include "formats/parameter_store.h"
#include "formats/stored_image.h"
#include "harness/bank_files.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"

#include <functional>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char *kApplication = "bin/application.bin";

struct Diff : testing::Test {
    TemporaryDirectory here;

    std::vector<BankFile> files() const {
        return {{FileRole::application, "application.bin", "2.0", Bytes(3000, 5)},
                {FileRole::bootloader, "bootloader.bin", "1.9.1", Wrap(Bytes(5000, 7))}};
    }
    fs::path at(const char *place) const { return here.path() / place; }
    void write_board(const fs::path &board, const NandContents &nand, const EepromContents &eeprom) const {
        WriteBank(board / "volume/data/app", files());
        SaveChip(nand, board / "nand.bin");
        SaveChip(eeprom, board / "eeprom.bin");
    }
    // The exit status, and where the two differ.
    std::pair<int, std::vector<std::string>> compare(const char *one, const char *other) const {
        const CommandResult result = RunFixture({"diff", "--json", at(one).string(), at(other).string()});
        std::vector<std::string> places;
        const json said = result.json();
        for (const json &difference : said["differences"]) places.push_back(difference["where"].get<std::string>());
        return {result.exit_status, places};
    }
};

TEST_F(Diff, NamesWhatTwoBanksDifferIn) {
    WriteBank(at("a"), files());
    using Files = std::vector<BankFile>;
    std::string headings = MakeManifest(files());
    headings[3] ^= 1; // nobody reads them
    const struct {
        const char *name;
        void (*change)(Files &files);
        std::pair<const char *, std::string> spoiled; // a file of the bank, and what it holds then; "-": it is missing
        std::vector<std::string> places;
    } rows[] = {
        {"nothing", [](Files &) {}, {}, {}},
        {"a version", [](Files &f) { f[0].version = "2.1"; }, {}, {"application version", kDescriptorName}},
        {"a file with the same size and sum", [](Files &f) { ++f[0].bytes[7], --f[0].bytes[9]; }, {}, {kApplication}},
        {"a longer file", [](Files &f) { f[0].bytes.push_back(0); }, {}, {kApplication, kManifestName}},
        {"a damaged file", [](Files &) {}, {kApplication, "short"}, {kApplication, "launch"}},
        {"a rescue image more",
         [](Files &f) {
             f.push_back({FileRole::rescue, "rescue.bin", "1.0", Wrap(Bytes(90, 3))});
         },
         {},
         {"rescue version", "bin/rescue.bin", kDescriptorName, kManifestName}},
        {"headings", [](Files &) {}, {kManifestName, headings}, {kManifestName}},
        {"no manifest",
         [](Files &) {},
         {kManifestName, "-"},
         {kApplication, "bin/bootloader.bin", kManifestName, "launch"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(at("b"));
        Files changed = files();
        row.change(changed);
        WriteBank(at("b"), changed);
        const auto &[spoiled, content] = row.spoiled;
        if (content == "-")
            fs::remove(at("b") / spoiled);
        else if (spoiled)
            WriteFile(at("b") / spoiled, content);
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
    write_board(at("a"), nand, eeprom);
    const struct {
        const char *name;
        std::function<void(NandContents &, EepromContents &)> chips;
        const char *removed; // afterwards
        std::vector<std::string> places;
    } rows[] = {
        {"nothing", {}, nullptr, {}},
        {"a parameter",
         [](auto &, auto &store) {
             PlaceStoreImage(store.bytes, 0, MakeStoreImage(1, {{9, {10, 0, 0, 6}}}));
         },
         nullptr,
         {"eeprom.bin: parameter 9 (address)", "eeprom.bin: bytes"}},
        {"a bad block", [](auto &chip, auto &) { chip.make_factory_bad(900); }, nullptr, {"nand.bin: bad blocks"}},
        {"the other slot",
         [](auto &chip, auto &) {
             StoreProvision(RawFlashOf(chip), {1, Wrap(Bytes(5000, 7)), {}, ""});
         },
         nullptr,
         {"nand.bin: bootloader 0", "nand.bin: bootloader 1", "nand.bin: first stage", "nand.bin: bootloader 0, pages",
          "nand.bin: bootloader 1, pages"}},
        {"a chip that is not there", {}, "nand.bin", {"nand.bin"}},
        {"a bank that is not there", {}, "volume/data/app", {"volume/data/app"}},
        {"a file of a bank",
         {},
         "volume/data/app/bin/application.bin",
         {"volume/data/app: bin/application.bin", "volume/data/app: launch"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(at("b"));
        NandContents other_nand = nand;
        EepromContents other_eeprom = eeprom;
        if (row.chips) row.chips(other_nand, other_eeprom);
        write_board(at("b"), other_nand, other_eeprom);
        if (row.removed) fs::remove_all(at("b") / row.removed);
        const auto [status, places] = compare("a", "b");
        EXPECT_EQ(status, row.places.empty() ? 0 : 1);
        EXPECT_THAT(places, testing::IsSupersetOf(row.places));
        EXPECT_LE(places.size(), row.places.size() + 1) << "one sector's line may stand beside its parameter's";
    }
    fs::create_directories(at("c"));
    fs::create_directories(at("d"));
    EXPECT_NE(RunFixture({"diff", at("c").string(), at("d").string()}).exit_status, 1)
        << "two directories with nothing in them are no boards that are alike";
}

} // namespace

} // namespace fixture
