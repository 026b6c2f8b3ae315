// Examines a bank directory as the bootloader will: what it finds wrong, and what a board would do with it.
#pragma once

#include "formats/bank.h"

#include <filesystem>
#include <string>
#include <vector>

namespace fixture {

struct RecordReport {
    ManifestRecord record;
    FileRole role;       // as the bootloader takes it
    std::string problem; // empty: file there, size and byte-sum as listed, and for stored images header and sums good
};

struct BankReport {
    std::string directory; // on the board's volume, with a "/" at its end
    Descriptor descriptor;
    std::vector<RecordReport> records;
    std::vector<std::string> problems; // of the bank as a whole
    std::vector<std::string> actions;  // what the bootloader does, in its order
    bool launches = false;             // the application is started, at the latest after the update that comes first

    // It launches and nothing at all is wrong with it.
    bool good() const;
};

// `directory` is the bank on this machine, `board_directory` its place on the board. Throws std::runtime_error where
// there is no such directory; whatever is wrong inside is in the report.
BankReport ExamineBank(const std::filesystem::path &directory, const std::string &board_directory);

} // namespace fixture
