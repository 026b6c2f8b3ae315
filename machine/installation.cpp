#include "machine/installation.h"

#include "formats/refusal.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <vector>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr const char *kFirmware = "bootloader.elf";

// The directory above the one that holds this program: by its file, not by the name that it was called by, which may be
// a link from anywhere.
fs::path Prefix() {
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
}

bool Exists(const fs::path &file) {
    std::error_code error;
    return fs::exists(file, error);
}

std::vector<fs::path> Places() {
    std::vector<fs::path> places = {Prefix() / "arm", Prefix() / "share/fixture"};
    // First, since what somebody names counts for more than what is found.
    const char *const named = std::getenv("FIXTURE_DATA");
    if (named && *named) places.insert(places.begin(), named);
    return places;
}

} // namespace

fs::path FirmwareDirectory() {
    const std::vector<fs::path> places = Places();
    const auto found = std::find_if(places.begin(), places.end(), [](const auto &p) { return Exists(p / kFirmware); });
    return found == places.end() ? places.front() : *found;
}

fs::path NeededFirmwareDirectory() {
    fs::path found = FirmwareDirectory();
    if (Exists(found / kFirmware)) return found;
    std::string places;
    for (const fs::path &place : Places()) places += (places.empty() ? "" : ", ") + place.string();
    throw Refusal(Fault::unreadable,
                  {"no-firmware", kFirmware, "in none of " + places,
                   "it in one of them (`make firmware`, or install fixture), or FIXTURE_DATA to name its directory"});
}

fs::path PreviewProgram() {
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / "fixture-preview";
    return Exists(beside) ? beside : Prefix() / "libexec/fixture/fixture-preview";
}

} // namespace fixture
