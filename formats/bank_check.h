// What a board does with a bank, and with the three banks of a volume; and what is wrong or dangerous about them.
//
//   const BankReport bank = ExamineBank("out/volume/data/app", kBankDirectories[0]);
//   const bool launches = StepsOf(bank, state).end == BankEnd::launches;
//
//   const VolumeReport examined = ExamineVolume("out/volume", {}, state);
//   const bool sound = examined.good();  no "two-banks-fight" among its problems
//
// The prediction is exact: it says what the bootloader stores, prints as failed and launches, for any bytes whatever.
// It is made by code of its own, so a disagreement with the bootloader is a fault in one of the two.
#pragma once

#include "formats/bank.h"
#include "formats/flash_report.h"
#include "formats/refusal.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fixture {

// What is known of the board that the bank is for. All of it may be left out.
struct BoardView {
    std::vector<RawFlash> chips; // those whose holes the images may meet
    // Which version a bootloader image calls itself, by its body; none: no build known here made it.
    std::function<std::optional<std::string>(std::span<const std::uint8_t> body)> version_of;
};

// What a bank's fate depends on.
struct UpdateState {
    std::string running = "1.9.0"; // the version that the running bootloader says it is
    // The text of the version record, up to 16 bytes; none: not known, every rescue image counts as new.
    std::optional<std::string> rescue_record;
    std::uint32_t bootloader_room = 0x200000; // the largest image that the slot to be written takes
    std::uint32_t rescue_room = 0xC00000;
    friend bool operator==(const UpdateState &, const UpdateState &) = default;
};
// The state that a chip gives, without the version that runs.
UpdateState StateOf(const RawFlash &flash, const std::string &running);

// --- one bank

struct RecordReport {
    ManifestRecord record;
    FileRole role = FileRole::none; // as the bootloader takes it
    bool passes = false;            // the file is there, with the listed size and byte-sum
    bool storable = false;          // and it is an image that the bootloader stores, if the slot takes it
    std::uint32_t image_size = 0;
    std::optional<std::string> calls_itself; // a bootloader that a known build stands for
    std::string problem; // why it does not pass, is not stored or not launched; empty where all is well
};

struct BankReport {
    std::string directory; // on the board's volume, with a "/" at its end
    Descriptor descriptor;
    bool rejected = false; // given up before any file is looked at
    std::vector<RecordReport> records;
    Problems problems;                // each keeps the bank from being good
    Problems warnings;                // what works, and can still hurt
    std::vector<std::string> actions; // what the bootloader does, in its order
    bool launches = false;            // the application is started, at the latest after the update that comes first

    bool good() const { return launches && problems.empty(); }
    // The record that counts for a role: the last one. Null: none is listed.
    const RecordReport *listed(FileRole role) const;
    const std::string &version(FileRole role) const;
};

// `directory` is the bank on this machine, `board_directory` its place on the board. Throws Refusal where there is no
// such directory; whatever is wrong inside is in the report.
BankReport ExamineBank(const std::filesystem::path &directory, const std::string &board_directory,
                       const BoardView &board = {});

enum class UpdateStep : std::uint8_t {
    none,       // nothing listed, or the pass does not come so far
    same,       // that version is there already
    file_fails, // the file check fails
    refused,    // the file is no image that can be stored
    stored,
};
const char *NameOf(UpdateStep step);

enum class BankEnd : std::uint8_t {
    rejected,   // descriptor or manifest
    incomplete, // no application or no bootloader listed
    resets,     // a bootloader was stored
    launches,
    not_launched, // the application's file check fails
};
const char *NameOf(BankEnd end);

struct BankSteps {
    UpdateStep rescue = UpdateStep::none;
    UpdateStep bootloader = UpdateStep::none;
    BankEnd end = BankEnd::rejected;
    friend bool operator==(const BankSteps &, const BankSteps &) = default;
};
// One pass of the bootloader over the bank.
BankSteps StepsOf(const BankReport &bank, const UpdateState &state);

// --- a volume

struct VolumeBoot {
    std::string running;          // the bootloader's version
    std::vector<BankSteps> steps; // of the banks that were tried, in the volume's order
    bool launches = false;
    bool resets = false; // neither: no bank launches, the rescue image is next
};

struct VolumeReport {
    std::vector<BankReport> banks; // those that are there, in the bootloader's order
    std::vector<VolumeBoot> boots; // up to the first that comes again
    std::size_t cycle_start = 0;   // boots from here on repeat for ever
    Problems problems;             // of the volume; the banks have their own
    Problems warnings;
    bool launches = false;

    bool good() const;
};

// `volume` is the directory that holds data/. Throws Refusal where there is no such directory.
VolumeReport ExamineVolume(const std::filesystem::path &volume, const BoardView &board = {}, UpdateState state = {});

} // namespace fixture
