#include "formats/board_volume.h"

#include <algorithm>
#include <sys/stat.h>

namespace fixture {

namespace fs = std::filesystem;

namespace {

// Drive i with its one volume is the only one that the board's file server offers.
constexpr std::string_view kPrefix = "i:/vol0/";

bool LiesWithin(const fs::path &path, const fs::path &directory) {
    const auto [end, rest] = std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
    return end == directory.end();
}

} // namespace

std::optional<fs::path> FindOnVolume(const fs::path &directory, std::string_view path) {
    if (directory.empty() || !path.starts_with(kPrefix)) return std::nullopt;
    std::error_code error;
    const fs::path root = fs::canonical(directory, error);
    if (error) return std::nullopt;
    const fs::path relative(path.substr(kPrefix.size()));
    if (relative.is_absolute()) return std::nullopt;
    // Refused before anything is resolved: whether ".." leads outside may depend on links that are not there yet.
    for (const fs::path &part : relative)
        if (part == "..") return std::nullopt;
    // Links are followed first and judged by where they end: one that leaves the directory is no file of the board's.
    const fs::path file = fs::canonical(root / relative, error);
    if (error || !LiesWithin(file, root) || !fs::is_regular_file(file, error)) return std::nullopt;
    return file;
}

bool BoardMayWrite(const fs::path &file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && (status.st_mode & 0222) != 0;
}

} // namespace fixture
