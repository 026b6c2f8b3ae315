// Reads ELF32 executables for the ARM: segments to load, entry, symbols by name. Nothing in the file is trusted.
//
//   const ElfImage image = ElfImage::read(ReadFile("bootloader.elf", kLargestStoredImage), "bootloader.elf");
//   LoadElf(image, memory);                     (machine/firmware.h)
//   processor.run(image.entry(), image.symbol("main"));
#pragma once

#include "formats/refusal.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

// What is read of one at most, debug data included.
inline constexpr std::uintmax_t kLargestElf = 256u << 20;

// Whether a file begins as an ELF file does.
bool IsElf(std::span<const std::uint8_t> file);

struct ElfSegment {
    std::uint32_t address;           // physical address: where it is loaded
    std::vector<std::uint8_t> bytes; // the file's part
    std::uint32_t memory_size;       // at least bytes.size(); the rest is zero
};

class ElfImage {
public:
    // Throws Refusal, with the name that messages give the file: not an ELF32 little-endian ARM executable, parts
    // outside the file, segments over 64 MiB.
    static ElfImage read(std::span<const std::uint8_t> file, const std::filesystem::path &name = {});

    std::uint32_t entry() const { return entry_; }
    const std::vector<ElfSegment> &segments() const { return segments_; }
    // A global or local symbol's value (routine: entry address; object: address).
    std::optional<std::uint32_t> symbol(const std::string &name) const;
    // "name+0x10" of the routine that holds an address, or "0x20001234".
    std::string place(std::uint32_t address) const;

    // The flat binary: segments from the lowest address to the end of the last file part, gaps zero. Throws Refusal
    // where they lie more than 64 MiB apart.
    std::vector<std::uint8_t> flat() const;

private:
    std::filesystem::path name_;
    std::uint32_t entry_ = 0;
    std::vector<ElfSegment> segments_;
    std::map<std::string, std::uint32_t> symbols_;
    std::map<std::uint32_t, std::string> routines_;
};

} // namespace fixture
