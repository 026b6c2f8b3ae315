// Where a path of the board lies on this machine. The file system's volume, drive "i", volume "vol0", is a directory.
//
//   FindOnVolume("out/volume", "i:/vol0/data/app/x")     out/volume/data/app/x, if it is a regular file
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace fixture {

// Nothing for a path that leaves the directory, by "..", by a link or otherwise, and for what is not a regular file. An
// empty directory name is a volume that holds nothing.
std::optional<std::filesystem::path> FindOnVolume(const std::filesystem::path &directory, std::string_view path);

// Whether the file's own mode lets a board write it; whoever runs this program may be allowed to write anything, which
// says nothing of the board. Nothing of a bank depends on it: the platform reads a file that it may not write.
bool BoardMayWrite(const std::filesystem::path &file);

} // namespace fixture
