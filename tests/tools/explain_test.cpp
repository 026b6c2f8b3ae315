// fixture explain: what it says of boards whose fate is known. That it is right is shown by the sweeps, which compare
// every boot with what was foretold of it (tests/sweep/sweep_test.cpp).
#include "formats/flash_report.h"
#include "formats/stored_image.h"
#include "harness/bank_files.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace fixture {

using nlohmann::json;
using testing::HasSubstr;

namespace {

struct BankText {
    const char *directory;
    const char *image;   // which build the bank carries
    const char *version; // and what its descriptor calls it
    bool good_application = true;
};

struct Board {
    const char *straps;
    const char *running; // which build slot 0 holds; "other": an image that no build stands for; empty: none
    const BankText *bank, *other_bank; // null: none
    bool rescue;
    int exit_status;
    const char *reason;
    const char *shown; // somewhere in the object
};

const KnownFirmware &Builds() {
    static const KnownFirmware builds(FirmwareDirectory());
    return builds;
}

Bytes ImageOf(const std::string &version) {
    for (const Firmware &build : Builds().all())
        if ("1.9." + build.version.build == version) return Wrap(build.flat);
    return Wrap(Bytes(5000, 7));
}

class Explain : public testing::Test {
protected:
    TemporaryDirectory directory;

    void write_bank(const BankText &bank) const {
        const std::vector<BankFile> files = {
            {FileRole::application, "application.bin", "2.0", Bytes(3000, 5)},
            {FileRole::bootloader, "bootloader.bin", bank.version, ImageOf(bank.image)}};
        WriteBank(directory.path() / "volume/data" / bank.directory, files);
        if (!bank.good_application)
            directory.write(std::string("volume/data/") + bank.directory + "/bin/application.bin",
                            std::string(2999, 5) + '\4');
    }
    CommandResult run(const Board &board) const {
        std::filesystem::create_directories(directory.path() / "volume");
        NandContents nand;
        const RawFlash flash = RawFlashOf(nand);
        if (*board.running) flash.write(0x40000, ImageOf(board.running));
        if (board.rescue) flash.write(0x400000, Wrap(Bytes(900, 3)));
        SaveChip(nand, directory.path() / "nand.bin");
        for (const BankText *bank : {board.bank, board.other_bank})
            if (bank) write_bank(*bank);
        return RunFixture({"explain", "--json", "--straps", board.straps, "--nand", directory.path() / "nand.bin",
                           "--volume", directory.path() / "volume"});
    }
};

TEST_F(Explain, TellsWhatABoardWillDoAndWhy) {
    const BankText update{"app", "1.9.1", "1.9.1"}, damaged{"app", "1.9.1", "1.9.1", false};
    const BankText second{"oldapp", "1.9.1", "1.9.1"}, older{"oldapp", "1.9.0", "1.9.0"};
    const BankText misnamed{"app", "1.9.1", "2.0"};
    const Board boards[] = {
        {"12-13", "1.9.0", &update, nullptr, false, 0, "launches i:/vol0/data/app/bin/application.bin",
         "stored in bootloader 1, bootloader 0 is retired, and the board resets"},
        {"14-18", "1.9.1", &damaged, &second, true, 0, "launches i:/vol0/data/oldapp/bin/application.bin",
         "byte-sum 14999 found, 15000 listed: the next bank is tried"},
        {"both", "1.9.0", &damaged, &older, true, 1,
         "resets for ever: i:/vol0/data/app/ installs 1.9.1 and i:/vol0/data/oldapp/ installs 1.9.0",
         "each round takes 2 resets and wears the chip by 4 block erases"},
        {"12-13", "1.9.0", &misnamed, nullptr, true, 1,
         "resets for ever: i:/vol0/data/app/ installs 2.0 at every start", "resets-for-ever"},
        {"12-13", "1.9.0", nullptr, nullptr, true, 1, "falls back to the rescue image (932 bytes)", ""},
        {"12-13", "1.9.0", nullptr, nullptr, false, 1, "launches nothing", "rescue slot holds no good image (erased)"},
        {"none", "1.9.0", nullptr, nullptr, true, 1, "no bootloader", "try --straps 12-13"},
        {"none", "1.9.0", nullptr, nullptr, true, 1, "no bootloader", "nand-without-strap"}, // what it costs
        {"12-13", "", nullptr, nullptr, false, 1, "neither slot of the NAND holds a good one", ""},
        {"12-13", "other", nullptr, nullptr, false, 1, "matches no known build", "--assume-version"},
    };
    for (const Board &board : boards) {
        SCOPED_TRACE(board.reason);
        std::filesystem::remove_all(directory.path() / "volume");
        const CommandResult result = run(board);
        EXPECT_EQ(result.exit_status, board.exit_status);
        const json told = result.json();
        EXPECT_EQ(told["ok"], board.exit_status == 0);
        EXPECT_THAT(told["reason"].get<std::string>(), HasSubstr(board.reason));
        EXPECT_THAT(result.output, HasSubstr(board.shown));
    }
}

} // namespace

} // namespace fixture
