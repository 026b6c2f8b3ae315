// Where a path of the board lies on this machine. The file system's volume, drive "i", volume "vol0", is a directory.
//
//   FindOnVolume("out/volume", "i:/vol0/data/app/x")     out/volume/data/app/x, if it is a regular file
#pragma once

#include "formats/file.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace fixture {

// Nothing for a path that leaves the directory, by "..", by a link or otherwise, and for what is not a regular file. An
// empty directory name is a volume that holds nothing.
std::optional<std::filesystem::path> FindOnVolume(const std::filesystem::path &directory, std::string_view path);

// What the bootloader's check by size and byte-sum makes of a file, here and on the board.
struct FileCheck {
    std::string problem;                      // why it fails; empty where it passes
    std::optional<std::uintmax_t> other_size; // the file's length, where the check fails by it
    Bytes content;                            // where it passes
};
// No file, or one that cannot be opened, is a failure like any other.
FileCheck CheckFile(const std::optional<std::filesystem::path> &file, std::uint32_t size, std::uint32_t sum);

// Whether the file's own mode lets a board write it; whoever runs this program may be allowed to write anything, which
// says nothing of the board. Nothing of a bank depends on it: the platform reads a file that it may not write.
bool BoardMayWrite(const std::filesystem::path &file);

} // namespace fixture
