#include "machine/chip_store.h"

#include "formats/file.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

namespace fixture {

namespace {

ChipShape ShapeOf(const At45Part &part) {
    // A data-only file has pages of the next smaller power of two: 512 of 528 bytes.
    return {part.name, part.pages, part.page_bytes, std::bit_floor(part.page_bytes), false};
}

bool IsWhole(std::size_t bytes, const At45Part &part) {
    const ChipShape shape = ShapeOf(part);
    return bytes == shape.whole_bytes() || bytes == shape.data_bytes();
}

// Refuses by the part whose full length the file has, which helps more than a list of lengths. A smaller part's file
// would else pass for the first pages of a larger one, and its slots for damaged ones.
void RefuseOtherPart(const std::filesystem::path &file, std::size_t bytes, const At45Part &part) {
    if (IsWhole(bytes, part)) return;
    for (const At45Part &other : At45Parts())
        if (IsWhole(bytes, other))
            throw Refusal(file, fmt::format("{} bytes: the length of an {}", bytes, other.name),
                          fmt::format("an {}; see --dataflash-part", part.name), "wrong-length");
}

bool IsBlank(std::span<const std::uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0xFF; });
}

} // namespace

ChipShape ShapeOf(const NandContents &chip) {
    return {chip.part() ? chip.part()->name : kDefaultNand, kNandRows, kNandRawPageBytes, kNandPageBytes, true};
}
ChipShape ShapeOf(const At45Contents &chip) { return ShapeOf(chip.part()); }

ChipFileLayout LoadChip(NandContents &chip, const std::filesystem::path &file) {
    const ChipShape shape = ShapeOf(chip);
    const Bytes bytes = ReadFile(file, shape.whole_bytes());
    const ChipFileLayout layout = RecogniseChip(file, bytes, shape);
    // Recognised first and erased then: a refused file leaves the contents as they were.
    for (std::uint32_t block = 0; block < kNandBlocks; ++block) chip.erase(block);
    ForEachPage(bytes, layout, shape, [&](std::uint32_t row, std::span<const std::uint8_t> page) {
        NandContents::Page cells;
        std::copy(page.begin(), page.end(), cells.begin());
        chip.set_page(row, cells);
    });
    return layout;
}

ChipFileLayout LoadChip(At45Contents &chip, const std::filesystem::path &file) {
    const ChipShape shape = ShapeOf(chip);
    // More than any part holds, so that the file of a larger one can be told by its length.
    const Bytes bytes = ReadFile(file, std::uintmax_t{1} << 28);
    RefuseOtherPart(file, bytes.size(), chip.part());
    const ChipFileLayout layout = RecogniseChip(file, bytes, shape);
    chip = At45Contents(chip.part());
    ForEachPage(bytes, layout, shape, [&](std::uint32_t number, std::span<const std::uint8_t> page) {
        if (!IsBlank(page)) chip.set_page(number, {page.begin(), page.end()});
    });
    return layout;
}

ChipFileLayout LoadChip(EepromContents &chip, const std::filesystem::path &file) {
    const Bytes bytes = ReadFile(file, EepromContents::kSize);
    if (bytes.size() != EepromContents::kSize)
        throw Refusal(file, fmt::format("{} bytes", bytes.size()), fmt::format("{}", +EepromContents::kSize),
                      "wrong-length");
    std::copy(bytes.begin(), bytes.end(), chip.bytes.begin());
    return {ChipLayout::raw, bytes.size()};
}

Bytes ChipBytesOf(const NandContents &chip, const ChipFileLayout &layout, const std::filesystem::path &file) {
    std::uint32_t used = kNandRows;
    while (used > 0 && chip.erased(used - 1)) --used;
    if (layout.layout == ChipLayout::data_only)
        for (std::uint32_t block = 0; block < kNandBlocks; ++block)
            if (chip.marked_bad(block))
                throw Refusal(file, fmt::format("block {} is marked bad now", block),
                              "a raw file: without spare bytes the mark would be lost", "layout-too-small");
    return ChipBytes(layout, ShapeOf(chip), used,
                     [&](std::uint32_t row) { return std::span<const std::uint8_t>(chip.page(row)); });
}

Bytes ChipBytesOf(const At45Contents &chip, const ChipFileLayout &layout, const std::filesystem::path &file) {
    const ChipShape shape = ShapeOf(chip);
    if (layout.layout == ChipLayout::data_only)
        for (std::uint32_t page = 0; page < shape.pages; ++page)
            if (!IsBlank(std::span(chip.page(page)).subspan(shape.data)))
                throw Refusal(file, fmt::format("page {} holds bytes from {} on", page, shape.data),
                              fmt::format("a file of {}-byte pages", shape.whole), "layout-too-small");
    // A DataFlash is small: a new file holds all of it.
    const ChipFileLayout whole{layout.layout, layout.bytes == 0 ? shape.whole_bytes() : layout.bytes};
    std::uint32_t used = shape.pages;
    while (used > 0 && chip.erased(used - 1)) --used;
    return ChipBytes(whole, shape, used,
                     [&](std::uint32_t page) { return std::span<const std::uint8_t>(chip.page(page)); });
}

Bytes ChipBytesOf(const EepromContents &chip, const ChipFileLayout &, const std::filesystem::path &) {
    return {chip.bytes.begin(), chip.bytes.end()};
}

} // namespace fixture
