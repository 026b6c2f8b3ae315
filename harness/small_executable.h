// An ELF file small enough to look at: two segments, of which the second is zeros alone, a routine `main`, an object
// `object`, and a mapping symbol that is no name. Fields may be changed before bytes() is called.
#pragma once

#include "formats/file.h"

#include <array>
#include <cstdint>
#include <elf.h>
#include <span>

namespace fixture {

struct SmallExecutable {
    static constexpr std::uint32_t kBase = 0x20100000;

    SmallExecutable();
    std::span<const std::uint8_t> bytes() const { return {reinterpret_cast<const std::uint8_t *>(this), sizeof *this}; }

    Elf32_Ehdr header{};
    std::array<Elf32_Phdr, 2> segments{};
    std::array<Elf32_Shdr, 4> sections{};
    std::array<Elf32_Sym, 4> symbols{};
    char names[24] = "\0main\0object\0$a";
    std::array<std::uint8_t, 8> code{1, 2, 3, 4, 5, 6, 7, 8};
};

} // namespace fixture
