#include "machine/chip_store.h"

#include "formats/file.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

Bytes ReadChipFile(const std::filesystem::path &file, std::uintmax_t chip_bytes) {
    return std::filesystem::exists(file) ? ReadFile(file, chip_bytes) : Bytes{};
}

// Hands out a file's pages in order. The last one is filled up as erased flash is.
template <typename Take> void ForEachPage(const Bytes &file, std::size_t page_bytes, Take take) {
    for (std::size_t at = 0; at < file.size(); at += page_bytes) {
        Bytes page(page_bytes, 0xFF);
        std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(at), std::min(page_bytes, file.size() - at),
                    page.begin());
        take(static_cast<std::uint32_t>(at / page_bytes), page);
    }
}

} // namespace

void LoadChip(NandContents &chip, const std::filesystem::path &file) {
    const Bytes bytes = ReadChipFile(file, std::uintmax_t{kNandRows} * kNandRawPageBytes);
    for (std::uint32_t block = 0; block < kNandBlocks; ++block) chip.erase(block);
    ForEachPage(bytes, kNandRawPageBytes, [&](std::uint32_t row, const Bytes &page) {
        NandContents::Page cells;
        std::copy(page.begin(), page.end(), cells.begin());
        chip.set_page(row, cells);
    });
}

void LoadChip(At45Contents &chip, const std::filesystem::path &file) {
    const Bytes bytes = ReadChipFile(file, chip.bytes());
    chip = At45Contents(chip.part());
    ForEachPage(bytes, chip.part().page_bytes,
                [&](std::uint32_t number, const Bytes &page) { chip.set_page(number, page); });
}

void LoadChip(EepromContents &chip, const std::filesystem::path &file) {
    chip = {};
    if (!std::filesystem::exists(file)) return;
    const Bytes bytes = ReadFile(file, EepromContents::kSize);
    if (bytes.size() != EepromContents::kSize)
        throw Refusal(file, fmt::format("{} bytes", bytes.size()), fmt::format("{}", +EepromContents::kSize));
    std::copy(bytes.begin(), bytes.end(), chip.bytes.begin());
}

void SaveChip(const NandContents &chip, const std::filesystem::path &file) {
    std::uint32_t rows = kNandRows;
    while (rows > 0 && chip.erased(rows - 1)) --rows;
    Bytes bytes;
    bytes.reserve(std::size_t{rows} * kNandRawPageBytes);
    for (std::uint32_t row = 0; row < rows; ++row)
        bytes.insert(bytes.end(), chip.page(row).begin(), chip.page(row).end());
    WriteFile(file, bytes);
}

void SaveChip(const At45Contents &chip, const std::filesystem::path &file) {
    std::uint32_t pages = chip.part().pages;
    while (pages > 0 && chip.erased(pages - 1)) --pages;
    Bytes bytes;
    for (std::uint32_t page = 0; page < pages; ++page)
        bytes.insert(bytes.end(), chip.page(page).begin(), chip.page(page).end());
    WriteFile(file, bytes);
}

void SaveChip(const EepromContents &chip, const std::filesystem::path &file) { WriteFile(file, chip.bytes); }

} // namespace fixture
