// What a board will do at its next power-up, foretold from what its chips and files hold.
//
// Nothing of the bootloader runs. The rules are stated here a second time, on purpose: tests compare the two over many
// boards (tests/sweep/sweep_test.cpp).
//
//   NandContents copy = chips.nand;                       a prediction changes the flash as the board would
//   BoardState board{.pins_12_13 = true, .flash = RawFlashOf(copy), .volume = "demo/volume"};
//   board.version_of = version_of;                        names the build that an image's body is
//   const Prediction told = PredictBoot(board);
//   std::puts(told.reason.c_str());
//
// What it cannot foretell: chips that fail while the board runs, a watchdog that bites, a file server that does not
// start, and what a bootloader does that matches no known build.
#pragma once

#include "formats/flash_report.h"
#include "formats/parameter_store.h"

#include <array>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

struct BoardState {
    // The boot straps that are fitted. Either one selects NAND; without any the board boots from DataFlash.
    bool pins_12_13 = false;
    bool pins_14_18 = false;
    Medium medium() const { return pins_12_13 || pins_14_18 ? Medium::nand : Medium::dataflash; }

    RawFlash flash;               // the chip that the straps select; it is left as the board would leave it
    bool unstrapped_nand = false; // no strap selects the NAND that is fitted, and it holds a bootloader
    bool chip_answers = true;     // false: none is fitted, or one that the bootloader's driver does not know
    std::optional<EepromBytes> eeprom;
    std::filesystem::path volume; // directory of the file system; empty: no files
    // The version of the build that an image's body is; empty: no known build.
    std::function<std::string(std::span<const std::uint8_t> body)> version_of;
};

// One thing that happens, with its reason.
struct BootStep {
    unsigned start;      // 0: before the first bootloader, 1: in it, 2: after the first reset, and so on
    const char *id;      // stable: "straps", "bootloader-starts", "bank-rejected", ...
    std::string place;   // a slot, a bank's directory or a file on the board
    std::string text;    // what the board does there, and why
    std::string console; // what it prints there, without what is said of bad blocks
};

// The hazards of a board that resets for ever: two banks replace each other's bootloader, or one bank alone does.
inline constexpr const char *kBanksFight = "two-banks-fight";
inline constexpr const char *kResetsForEver = "resets-for-ever";

// What can go wrong with this board although the next power-up may go well.
struct BootHazard {
    std::string id; // stable
    std::string place;
    std::string text;
    std::string remedy;
};

enum class BootEnd : std::uint8_t {
    application,        // a bank's application is launched
    rescue,             // no bank could be launched; the rescue image is
    nothing,            // neither
    no_bootloader,      // the first stage finds no good slot
    loop,               // the board resets for ever
    unknown_bootloader, // the first stage starts an image that matches no known build
};
const char *NameOf(BootEnd end);

struct Prediction {
    std::vector<BootStep> steps;
    std::vector<BootHazard> hazards;
    BootEnd end = BootEnd::nothing;
    std::string reason;           // the end in one sentence
    std::optional<unsigned> slot; // the bootloader slot that was started last
    std::string version;          // of the bootloader that ran last
    std::string launched;         // the application by its path on the board, or "rescue image"
    std::uint32_t launched_bytes = 0;
    Bytes image;                            // what is launched
    unsigned resets = 0;                    // until the end, or until a loop has come round once
    unsigned loop_resets = 0;               // of one turn of a loop
    std::array<std::uint32_t, 4> network{}; // in the order of kNetworkParameters
    std::uint64_t loop_erases = 0;          // blocks, or pages, that one turn of a loop wears
};

Prediction PredictBoot(const BoardState &board);

} // namespace fixture
