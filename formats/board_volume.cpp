#include "formats/board_volume.h"

#include "formats/bank.h"

#include <algorithm>
#include <fmt/format.h>
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

FileCheck CheckFile(const std::optional<fs::path> &file, std::uint32_t size, std::uint32_t sum) {
    if (!file) return {"no such file", {}, {}};
    try {
        // The size comes first, as on the board, which reads nothing of a file whose length is wrong.
        const std::uintmax_t found = FileSize(*file);
        if (found != size) return {fmt::format("{} bytes found, {} listed", found, size), found, {}};
        if (found > kLoadBufferBytes)
            return {fmt::format("{} bytes; expected at most {}, the load buffer", found, kLoadBufferBytes), {}, {}};
        Bytes content = ReadFile(*file, kLoadBufferBytes);
        if (const std::uint32_t own = ByteSum(content); own != sum)
            return {fmt::format("byte-sum {} found, {} listed", own, sum), {}, {}};
        return {"", {}, std::move(content)};
    } catch (const Refusal &refusal) {
        return {refusal.problem().found, {}, {}};
    }
}

bool BoardMayWrite(const fs::path &file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && (status.st_mode & 0222) != 0;
}

} // namespace fixture
