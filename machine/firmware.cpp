#include "machine/firmware.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLargestImage = 16 * 1024 * 1024;

std::optional<BootVersion> VersionFromName(const std::string &name) {
    if (name == "bootloader") return BootVersion{};
    constexpr std::string_view kPrefix = "bootloader-";
    if (!name.starts_with(kPrefix)) return std::nullopt;
    BootVersion version;
    const char *end = name.data() + name.size();
    const auto major = std::from_chars(name.data() + kPrefix.size(), end, version.major);
    if (major.ec != std::errc{} || major.ptr == end) return std::nullopt;
    const auto minor = std::from_chars(major.ptr + 1, end, version.minor);
    if (minor.ec != std::errc{} || minor.ptr == end) return std::nullopt;
    version.build.assign(minor.ptr + 1, end);
    return version;
}

} // namespace

Firmware ReadFirmware(const fs::path &file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw std::runtime_error(fmt::format("{}: cannot be read", file.string()));
    std::error_code error;
    if (fs::file_size(file, error) > kLargestImage || error)
        throw std::runtime_error(fmt::format("{}: not a file of at most 16 MiB", file.string()));
    Firmware firmware;
    firmware.file = file;
    firmware.flat.assign(std::istreambuf_iterator<char>(stream), {});
    constexpr std::uint8_t kElfMagic[] = {0x7F, 'E', 'L', 'F'};
    if (firmware.flat.empty()) throw std::runtime_error(fmt::format("{}: empty", file.string()));
    if (!std::equal(std::begin(kElfMagic), std::end(kElfMagic), firmware.flat.begin(),
                    firmware.flat.begin() + std::min<std::ptrdiff_t>(4, std::ssize(firmware.flat))))
        return firmware;
    try {
        firmware.elf = ElfImage::read(firmware.flat);
        firmware.flat = firmware.elf->flat();
    } catch (const ElfError &bad) {
        throw std::runtime_error(fmt::format("{}: {}", file.string(), bad.what()));
    }
    return firmware;
}

KnownFirmware::KnownFirmware(const fs::path &directory) {
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory, error)) {
        const std::optional<BootVersion> version = VersionFromName(entry.path().stem().string());
        if (entry.path().extension() != ".elf" || !version) continue;
        builds_.push_back(ReadFirmware(entry.path()));
        builds_.back().version = *version;
    }
    std::sort(builds_.begin(), builds_.end(), [](const Firmware &a, const Firmware &b) { return a.file < b.file; });
}

const Firmware *KnownFirmware::identify(std::span<const std::uint8_t> body) const {
    for (const Firmware &build : builds_) {
        if (body.size() < build.flat.size() || !std::equal(build.flat.begin(), build.flat.end(), body.begin()))
            continue;
        const auto padding = body.subspan(build.flat.size());
        if (std::all_of(padding.begin(), padding.end(), [&](std::uint8_t b) { return b == padding.front(); }))
            return &build;
    }
    return nullptr;
}

fs::path FirmwareDirectory() {
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path().parent_path() / "arm";
}

void LoadElf(const ElfImage &image, const Memory &memory, bool clear) {
    for (const ElfSegment &segment : image.segments()) {
        const std::span<std::uint8_t> place = memory.at(segment.address, segment.memory_size);
        if (place.empty())
            throw ElfError(fmt::format("{} bytes at 0x{:08X}: no memory there", segment.memory_size, segment.address));
        std::copy(segment.bytes.begin(), segment.bytes.end(), place.begin());
        if (clear)
            std::fill(place.begin() + static_cast<std::ptrdiff_t>(segment.bytes.size()), place.end(), std::uint8_t{0});
    }
}

} // namespace fixture
