// fixture eeprom: chip files made, updated, shown and refused.
#include "formats/file.h"
#include "formats/parameter_store.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

using testing::HasSubstr;

namespace {

class EepromTool : public testing::Test {
protected:
    TemporaryDirectory directory;
    const std::string file = directory.path() / "eeprom.bin";

    CommandResult set(std::vector<std::string> settings) {
        settings.insert(settings.begin(), {"eeprom", "set", file});
        return RunFixture(settings);
    }
    CommandResult show() { return RunFixture({"eeprom", "show", file}); }
    void make(const Bytes (&sectors)[2]) {
        EepromContents chip;
        for (int sector = 0; sector < 2; ++sector) PlaceStoreImage(chip.bytes, sector, sectors[sector]);
        SaveChip(chip, file);
    }
};

TEST_F(EepromTool, MakesAndUpdatesAStore) {
    EXPECT_EQ(set({"9=0A000002", "0x12=", "10=ff000000"}).exit_status, 0);
    Bytes fresh = {0, 1, 0, 22, 0xFB, 0x87, 0, 0x94, 10, 0, 0, 2, 0x01, 0x20, 0, 0xA4, 0xFF, 0, 0, 0};
    fresh.resize(2048, 0xFF);
    EXPECT_EQ(ReadFile(file, 4096), fresh);

    EXPECT_EQ(set({"mask=255.255.0.0", "11=0A000001"}).exit_status, 0);
    EXPECT_EQ(show().output, "sector 0 at 0x000: empty\n"
                             "  word 0xFFFF, length 65535, checksum 0xFFFF\n"
                             "sector 1 at 0x200: good\n"
                             "  word 0x0001, length 28, checksum 0xF9C3\n"
                             "     9 = 0A000002  (address 10.0.0.2)\n"
                             "    18 = \n"
                             "    10 = FFFF0000  (mask 255.255.0.0)\n"
                             "    11 = 0A000001  (gateway 10.0.0.1)\n"
                             "current: sector 1, since the other sector is empty\n");
}

TEST_F(EepromTool, TellsWhichSectorIsCurrentAndWhy) {
    const Bytes good = MakeStoreImage(5, {{9, {1}}});
    Bytes broken = good, endless = good;
    broken[8] ^= 1;
    endless[3] = 7;
    const std::vector<StoredParameter> many(20, {8, Bytes(15, 0x11)});
    const struct {
        Bytes sectors[2];
        int exit_status;
        const char *text;
    } kCases[] = {
        {{good, good}, 0, "current: sector 0, since the words are equal: sector 0 goes first"},
        {{good, MakeStoreImage(6, {})}, 0, "current: sector 1, since its word is the larger"},
        {{broken, good}, 0, "current: sector 1, since sector 0 goes first, but is bad: checksum 0xFD60 found, 0xFD61"},
        {{endless, {}}, 1, "current: none, since sector 0 goes first, but is bad: length 7 found, 8 to 1000 expected"},
        {{{}, {}}, 1, "current: none, since both sectors are empty"},
        {{MakeStoreImage(1, many), {}}, 1, "checksum"}, // lies over itself
        {{broken, MakeStoreImage(0, {})}, 0, "warning: its word says empty: the bootloader's next commit would lose"},
        {{MakeStoreImage(1, {{0xFF, {}}, {9, {}}}), {}}, 0, "warning: the bootloader finds neither parameter 0xFF"},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.text);
        make(c.sectors);
        const CommandResult result = show();
        EXPECT_EQ(result.exit_status, c.exit_status);
        EXPECT_THAT(result.output, HasSubstr(c.text));
    }
    make({good, {}});
    const auto report = RunFixture({"eeprom", "show", file, "--json"}).json();
    const auto &sectors = report["sectors"];
    EXPECT_EQ(nlohmann::json({report["current"], sectors[0]["state"], sectors[1]["state"]}),
              (nlohmann::json{0, "good", "empty"}));
    EXPECT_EQ(sectors[0]["parameters"][0], nlohmann::json({{"id", 9}, {"hex", "01"}, {"name", "address"}}));
}

TEST_F(EepromTool, RefusesWhatCannotWork) {
    const std::pair<const char *, const char *> kWrongCalls[] = {
        {"9", "ID=HEX"},
        {"=00", "identifier"},
        {"4095=00", "identifier"},
        {"0xFFF=", "identifier"},
        {"-1=00", "identifier"},
        {"9=0", "two hex digits"},
        {"gateway=10.0.0.256", "0 to 255"},
        {"9=0G", "hex digits"},
        {"9=00112233445566778899AABBCCDDEEFF", "0 to 15 bytes"},
    };
    for (const auto &[setting, text] : kWrongCalls) {
        const CommandResult result = set({"8=00", setting});
        EXPECT_EQ(result.exit_status, 2) << setting;
        EXPECT_THAT(result.error, HasSubstr(text));
    }
    EXPECT_FALSE(std::filesystem::exists(file)) << "nothing is written by a wrong call";
    EXPECT_EQ(show().exit_status, 2) << "no such file";

    std::vector<std::string> settings;
    for (unsigned id = 0; id < 14; ++id) settings.push_back(std::to_string(id) + "=" + std::string(30, 'A'));
    ASSERT_EQ(set(settings).exit_status, 0); // 246 bytes
    EXPECT_EQ(set({"20=" + std::string(16, 'A')}).exit_status, 0) << "256 bytes";
    const Bytes full = ReadFile(file, 4096);
    const CommandResult over = set({"20=" + std::string(18, 'A')});
    EXPECT_EQ(over.exit_status, 1);
    EXPECT_THAT(over.error, HasSubstr("257 bytes, and those from 256 on lie over the sector's own start"));
    EXPECT_EQ(ReadFile(file, 4096), full);

    make({Bytes{0, 1}, MakeStoreImage(0, {{9, {1}}})});
    EXPECT_EQ(set({"8=00"}).exit_status, 0);
    EXPECT_THAT(show().output, HasSubstr("word 0x0001, length 14")) << "beside a bad one, the word 0 is not kept";

    make({Bytes{0, 1}, {}}); // a word, no more
    EXPECT_THAT(set({"9=00"}).error, HasSubstr("neither sector is good"));

    WriteFile(file, std::string(2047, 'x'));
    for (const CommandResult &result : {show(), set({"9=00"})}) {
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_THAT(result.error, HasSubstr("2047 bytes; expected 2048"));
    }
}

} // namespace

} // namespace fixture
