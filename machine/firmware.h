// Bootloader images as files: what can be started, and which build an image is.
//
// On this machine's own processor an image stands, by its content, for the native build of the same version; an image
// that no build here made cannot run there.
#pragma once

#include "fixture/processors/processor.h"
#include "formats/elf_image.h"
#include "machine/installation.h"
#include "platform/host/native_processor.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

// Where the bootloader is linked, and so where the first-stage loader puts an image's body.
inline constexpr std::uint32_t kBootloaderLinkAddress = 0x20100000;

// Where it is linked to have the LCD controller's frame.
inline constexpr std::uint32_t kVideoRegion = 0x22F00000;

struct Firmware {
    std::filesystem::path file;
    std::vector<std::uint8_t> flat; // first byte at kBootloaderLinkAddress is the entry
    std::optional<ElfImage> elf;    // with symbols, where the file is an ELF
    BootVersion version;            // of the builds known here
    std::uint32_t entry() const { return elf ? elf->entry() : kBootloaderLinkAddress; }
};

// The builds of one directory: bootloader.elf is version 1.9.0, bootloader-X.Y.Z.elf is X.Y.Z. Missing files are left
// out.
class KnownFirmware {
public:
    explicit KnownFirmware(const std::filesystem::path &directory);
    // The build whose flat binary begins `body` and is followed by nothing but padding of one byte value.
    const Firmware *identify(std::span<const std::uint8_t> body) const;
    const std::vector<Firmware> &all() const { return builds_; }
    // Adds another image, which may pass for a build that it is not.
    void add(Firmware build) { builds_.push_back(std::move(build)); }

private:
    std::vector<Firmware> builds_;
};

// Copies an ELF's segments into memory. Throws Refusal if one does not fit. `clear`: what a segment has beyond its
// file part is zeroed, as a loader of ELF files has to; a first stage that copies a flat image leaves it as it was.
void LoadElf(const ElfImage &image, const Memory &memory, bool clear = true);

// Reads an ELF or a flat binary. Throws Refusal.
Firmware ReadFirmware(const std::filesystem::path &file);

} // namespace fixture
