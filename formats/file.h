// Whole files in, whole files out: what is written appears under its name complete or not at all.
//
//   const Bytes image = ReadFile("bootloader.bin", kLargestStoredImage);
//   WriteFile("wrapped.bin", Wrap(image));
//
//   NewDirectory bank("out/app");              an empty directory beside the target
//   WriteFile(bank.path() / "BankContent.txt", manifest);
//   bank.take_place();                         now it is out/app; without this call nothing is left of it
//
// Everything here throws std::runtime_error with the file's name and what is wrong with it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace fixture {

using Bytes = std::vector<std::uint8_t>;

// An input was examined and cannot work: `fixture` prints the text and ends with 1. Other exceptions end it with 2.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    // "FILE: FOUND; expected EXPECTED"
    Refusal(const std::filesystem::path &file, std::string_view found, std::string_view expected);
};

// The bytes of a regular file. A larger one than `most` is refused.
Bytes ReadFile(const std::filesystem::path &file, std::uintmax_t most);

// Writes beside the file, then renames; an older file is replaced.
void WriteFile(const std::filesystem::path &file, std::span<const std::uint8_t> bytes);
void WriteFile(const std::filesystem::path &file, std::string_view text);

class NewDirectory {
public:
    explicit NewDirectory(const std::filesystem::path &target);
    ~NewDirectory();
    NewDirectory(const NewDirectory &) = delete;
    NewDirectory &operator=(const NewDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }
    // Renames the directory to the target's name. A directory that is there is replaced, with all it holds: the
    // caller has made sure that it may go.
    void take_place();

private:
    std::filesystem::path target_;
    std::filesystem::path path_;
};

} // namespace fixture
