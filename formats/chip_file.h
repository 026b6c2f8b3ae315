// Chips as files, in the layouts that programmers and this bench write:
//
//   raw         every page with its spare bytes: NAND 2,112 bytes a page, DataFlash 528 or 1,056
//   data only   NAND without spare bytes, 2,048 a page; a DataFlash in pages of a power of two, 512 or 1,024
//
// A file may be shorter than the chip by whole pages, as this bench writes a chip that is mostly blank; what is missing
// counts as erased. The layout is recognised from size and content and named in reports.
//
//   const ChipFileLayout layout = RecogniseChip("nand.bin", file_bytes, shape);
//   ForEachPage(file_bytes, layout, shape, take);              pages may change after this
//   output.write(ChipBytes(layout, shape, used, page));        in the same layout and length, or longer
#pragma once

#include "formats/file.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>

namespace fixture {

// A chip's pages. `whole` bytes a page as the chip has them, the first `data` of them what a data-only file keeps.
struct ChipShape {
    const char *part;
    std::uint32_t pages;
    std::uint32_t whole;
    std::uint32_t data;
    bool nand; // for the words only

    std::uint64_t whole_bytes() const { return std::uint64_t{pages} * whole; }
    std::uint64_t data_bytes() const { return std::uint64_t{pages} * data; }
};

enum class ChipLayout : std::uint8_t { raw, data_only };

// How a file is laid out: what a chip is written back in.
struct ChipFileLayout {
    ChipLayout layout = ChipLayout::raw;
    std::uint64_t bytes = 0; // of the file; a chip that needs more gets more

    // "raw with spare bytes, 32 of 131,072 pages; the rest counts as erased"
    std::string describe(const ChipShape &shape) const;
};

// Throws Refusal for bytes that cannot be a chip of this shape: no whole number of pages, too many, as many as another
// chip's, nothing at all, a text, an ELF file, a picture, a stored image without a chip around it.
ChipFileLayout RecogniseChip(const std::filesystem::path &file, std::span<const std::uint8_t> bytes,
                             const ChipShape &shape);

// Calls `take(page, bytes)` for each page of a file in its order. What the layout leaves out is 0xFF.
void ForEachPage(std::span<const std::uint8_t> bytes, const ChipFileLayout &layout, const ChipShape &shape,
                 const std::function<void(std::uint32_t page, std::span<const std::uint8_t> bytes)> &take);

// The file's bytes, from pages that `page` gives; `used` of them are not blank at the chip's end. Never shorter than
// the file was, nor empty.
Bytes ChipBytes(const ChipFileLayout &layout, const ChipShape &shape, std::uint32_t used,
                const std::function<std::span<const std::uint8_t>(std::uint32_t page)> &page);

// "1, 7, 40 to 44".
std::string Ranges(std::span<const std::uint32_t> numbers);

} // namespace fixture
