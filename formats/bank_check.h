// What is wrong with a bank, or dangerous about it; and what a board makes of the three banks of a volume.
//
//   const BankReport bank = ExamineBank("out/volume/data/app", kBankDirectories[0]);
//   const bool sound = bank.good();
//
//   const VolumeReport examined = ExamineVolume("out/volume", {}, state);
//   const bool launches = examined.launches();  no "two-banks-fight" among its problems
//
// ExamineBank judges files, one by one, for whoever ships them. PredictBoot (boot_prediction.h) foretells what the
// board does with all of them, exactly and for any bytes. Tests compare both with the bootloader.
#pragma once

#include "formats/bank.h"
#include "formats/boot_prediction.h"
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

// --- one bank

struct RecordReport {
    ManifestRecord record;
    FileRole role = FileRole::none; // as the bootloader takes it
    bool passes = false;            // the file is there, with the listed size and byte-sum
    bool storable = false;          // and it is an image that the bootloader stores, if the slot takes it
    std::uint32_t image_size = 0;
    ImageSums image_sums{};                  // of a storable one: by size and sums it is known again in a slot
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

// --- a volume

struct VolumeReport {
    std::vector<BankReport> banks; // those that are there, in the bootloader's order
    // What the board does at its power-ups, until one does what the one before it did. Two at most: what a power-up
    // ends with is all that the next one begins with, and files do not change.
    std::vector<Prediction> power_ups;
    Problems problems; // of the volume; the banks have their own
    Problems warnings;

    bool launches() const; // a bank's application, in the end
    bool good() const;
};

// `volume` is the directory that holds data/. `state` is the board that is to start from it: its chip is left as the
// last power-up leaves it, and its volume need not be set. A bootloader that matches no known build is taken for the
// version that its bank states; the board's own one for what `state` says. Throws Refusal where there is no such
// directory.
VolumeReport ExamineVolume(const std::filesystem::path &volume, const BoardView &board, BoardState state);

} // namespace fixture
