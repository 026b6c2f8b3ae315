#include "machine/firmware.h"

#include "formats/stored_image.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <fmt/format.h>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLargestImage = 16 * 1024 * 1024; // the load buffer: no board is given a larger one

std::optional<BootVersion> VersionFromName(const std::string &name) {
    if (name == "bootloader") return BootVersion{};
    constexpr std::string_view kPrefix = "bootloader-";
    if (!name.starts_with(kPrefix)) return std::nullopt;
    BootVersion version;
    const char *end = name.data() + name.size();
    // "bootloader-1.9.1": two numbers, and the rest is a text.
    const auto major = std::from_chars(name.data() + kPrefix.size(), end, version.major);
    if (major.ec != std::errc{} || major.ptr == end) return std::nullopt;
    const auto minor = std::from_chars(major.ptr + 1, end, version.minor);
    if (minor.ec != std::errc{} || minor.ptr == end) return std::nullopt;
    version.build.assign(minor.ptr + 1, end);
    return version;
}

} // namespace

Firmware ReadFirmware(const fs::path &file) {
    FlatImage image = ReadFlatImage(file);
    if (image.bytes.empty()) throw Refusal(file, "no bytes to load", "an image", "empty");
    if (image.bytes.size() > kLargestImage)
        throw Refusal(file, fmt::format("{} bytes", image.bytes.size()), fmt::format("at most {}", kLargestImage),
                      "too-large");
    Firmware firmware;
    firmware.file = file;
    firmware.flat = std::move(image.bytes);
    firmware.elf = std::move(image.elf);
    return firmware;
}

KnownFirmware::KnownFirmware(const fs::path &directory) {
    std::error_code error;
    // A missing directory has no builds. Callers that need some ask NeededFirmwareDirectory() first.
    for (const fs::directory_entry &entry : fs::directory_iterator(directory, error)) {
        const std::optional<BootVersion> version = VersionFromName(entry.path().stem().string());
        if (entry.path().extension() != ".elf" || !version) continue;
        builds_.push_back(ReadFirmware(entry.path()));
        builds_.back().version = *version;
    }
    // A directory has no order; which build a body is taken for must not depend on it.
    std::sort(builds_.begin(), builds_.end(), [](const Firmware &a, const Firmware &b) { return a.file < b.file; });
}

const Firmware *KnownFirmware::identify(std::span<const std::uint8_t> body) const {
    for (const Firmware &build : builds_) {
        if (body.size() < build.flat.size() || !std::equal(build.flat.begin(), build.flat.end(), body.begin()))
            continue;
        // An image of a chosen size is a build with one byte repeated after it: still the same program.
        const auto padding = body.subspan(build.flat.size());
        if (std::all_of(padding.begin(), padding.end(), [&](std::uint8_t b) { return b == padding.front(); }))
            return &build;
    }
    return nullptr;
}

void LoadElf(const ElfImage &image, const Memory &memory, bool clear) {
    for (const ElfSegment &segment : image.segments()) {
        const std::span<std::uint8_t> place = memory.at(segment.address, segment.memory_size);
        if (place.empty())
            throw Refusal("program",
                          fmt::format("{} bytes at 0x{:08X}: no memory there", segment.memory_size, segment.address),
                          "", "bad-elf");
        assert(segment.bytes.size() <= segment.memory_size && "ElfImage::read refuses any other segment");
        std::copy(segment.bytes.begin(), segment.bytes.end(), place.begin());
        if (clear)
            std::fill(place.begin() + static_cast<std::ptrdiff_t>(segment.bytes.size()), place.end(), std::uint8_t{0});
    }
}

} // namespace fixture
