#include "formats/chip_file.h"

#include "formats/elf_image.h"
#include "formats/slots.h"

#include <algorithm>
#include <cassert>
#include <fmt/format.h>

namespace fixture {

namespace {

// Pages to an erase block: a short file that this bench makes ends with a whole one.
constexpr std::uint32_t kPagesTogether = 64;

// Lengths of dumps differ in the middle of nine digits, which nobody sees without separators.
std::string Grouped(std::uint64_t number) {
    const std::string digits = std::to_string(number);
    std::string text;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
        text += digits[i];
    }
    return text;
}

// A log or a source of just the right length would otherwise become a chip. Real dumps begin with code or erased pages.
bool IsText(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t kLook = 4096;
    const auto part = bytes.first(std::min(bytes.size(), kLook));
    return std::all_of(part.begin(), part.end(), [](std::uint8_t byte) {
        return (byte >= 0x20 && byte < 0x7F) || byte == '\n' || byte == '\r' || byte == '\t';
    });
}

bool StartsWith(std::span<const std::uint8_t> bytes, std::string_view text) {
    return bytes.size() >= text.size() && std::equal(text.begin(), text.end(), bytes.begin(),
                                                     [](char c, std::uint8_t byte) { return std::uint8_t(c) == byte; });
}

// What a file that is no chip is instead; empty where nothing speaks against a chip.
std::string OtherContent(std::span<const std::uint8_t> bytes) {
    if (IsElf(bytes)) return "an ELF file";
    // The likeliest slip of all: the image is given in place of the chip that is to hold it.
    if (HasMaker(bytes)) return "a stored image, not a chip that holds one";
    if (StartsWith(bytes, "\x89PNG") || StartsWith(bytes, "GIF8")) return "a picture";
    if (StartsWith(bytes, "\x1F\x8B") || StartsWith(bytes, "PK\x03\x04")) return "a compressed file";
    return IsText(bytes) ? "a text" : "";
}

std::string Expected(const ChipShape &shape) {
    return fmt::format("{} ({}) or {} ({}), or fewer whole pages", Grouped(shape.whole_bytes()),
                       shape.nand ? "raw pages" : fmt::format("{}-byte pages", shape.whole),
                       Grouped(shape.data_bytes()),
                       shape.nand ? "data only" : fmt::format("{}-byte pages", shape.data));
}

// Whether a raw reading of the file makes sense: nearly every page has erased or sparse spare bytes. Data read as raw
// pages puts data there.
bool SpareLooksSpare(std::span<const std::uint8_t> bytes, const ChipShape &shape) {
    const std::size_t pages = bytes.size() / shape.whole;
    std::size_t odd = 0, looked = 0;
    for (std::size_t page = 0; page < pages; ++page) {
        const auto whole = bytes.subspan(page * shape.whole, shape.whole);
        const auto is_blank = [](std::uint8_t byte) { return byte == 0xFF; };
        // Erased pages look alike in either layout and say nothing.
        if (std::all_of(whole.begin(), whole.end(), is_blank)) continue;
        const auto spare = whole.subspan(shape.data);
        ++looked;
        // Error-correction codes and a block's mark fill less than half of the spare bytes.
        odd += std::count_if(spare.begin(), spare.end(), is_blank) * 2 < std::ssize(spare);
    }
    // A quarter may be odd: bit errors, and file systems that keep notes of their own there.
    return odd * 4 <= looked;
}

// A length that both layouts could have is a full file's, or the content decides.
ChipLayout LayoutOf(std::span<const std::uint8_t> bytes, const ChipShape &shape) {
    const bool raw = bytes.size() % shape.whole == 0 && bytes.size() <= shape.whole_bytes();
    const bool data = bytes.size() % shape.data == 0 && bytes.size() <= shape.data_bytes();
    if (raw != data) return raw ? ChipLayout::raw : ChipLayout::data_only;
    // Both lengths divide; a full chip's length is the stronger sign.
    if (bytes.size() == shape.data_bytes()) return ChipLayout::data_only;
    return !shape.nand || SpareLooksSpare(bytes, shape) ? ChipLayout::raw : ChipLayout::data_only;
}

} // namespace

std::string ChipFileLayout::describe(const ChipShape &shape) const {
    const std::uint32_t page = layout == ChipLayout::raw ? shape.whole : shape.data;
    std::string text = !shape.nand                 ? fmt::format("pages of {} bytes", Grouped(page))
                       : layout == ChipLayout::raw ? "raw with spare bytes"
                                                   : "data only, without spare bytes";
    const std::uint64_t pages = bytes / page;
    if (pages < shape.pages)
        text += fmt::format(", {} of {} pages; the rest counts as erased", Grouped(pages), Grouped(shape.pages));
    return text;
}

ChipFileLayout RecogniseChip(const std::filesystem::path &file, std::span<const std::uint8_t> bytes,
                             const ChipShape &shape) {
    const bool whole_pages = bytes.size() % shape.whole == 0 && bytes.size() <= shape.whole_bytes();
    const bool data_pages = bytes.size() % shape.data == 0 && bytes.size() <= shape.data_bytes();
    if (bytes.empty() || (!whole_pages && !data_pages))
        throw Refusal(file, fmt::format("{} bytes cannot be a {}", Grouped(bytes.size()), shape.part), Expected(shape),
                      "wrong-length");
    if (const std::string other = OtherContent(bytes); !other.empty())
        throw Refusal(file, other, fmt::format("the contents of a {}", shape.part), "not-a-chip");
    return {LayoutOf(bytes, shape), bytes.size()};
}

void ForEachPage(std::span<const std::uint8_t> bytes, const ChipFileLayout &layout, const ChipShape &shape,
                 const std::function<void(std::uint32_t, std::span<const std::uint8_t>)> &take) {
    const std::uint32_t stored = layout.layout == ChipLayout::raw ? shape.whole : shape.data;
    assert(bytes.size() % stored == 0 && "RecogniseChip refuses what is no whole number of pages");
    // Spare bytes that a file leaves out are erased ones, so no block counts as marked bad.
    Bytes whole(shape.whole, 0xFF);
    for (std::uint32_t page = 0; std::size_t{page} * stored < bytes.size(); ++page) {
        const auto part = bytes.subspan(std::size_t{page} * stored, stored);
        if (stored == shape.whole) {
            take(page, part);
            continue;
        }
        std::copy(part.begin(), part.end(), whole.begin());
        take(page, whole);
    }
}

Bytes ChipBytes(const ChipFileLayout &layout, const ChipShape &shape, std::uint32_t used,
                const std::function<std::span<const std::uint8_t>(std::uint32_t page)> &page) {
    const std::uint32_t stored = layout.layout == ChipLayout::raw ? shape.whole : shape.data;
    assert(used <= shape.pages && "the caller counts the chip's own pages");
    // A file that was loaded keeps its length, unless the chip now holds more than fits it.
    const auto had = static_cast<std::uint32_t>(layout.bytes / stored);
    const std::uint32_t needed = std::min(shape.pages, (used + kPagesTogether - 1) / kPagesTogether * kPagesTogether);
    const std::uint32_t pages = had >= used && had > 0 ? had : std::max(needed, kPagesTogether);
    Bytes bytes;
    bytes.reserve(std::size_t{pages} * stored);
    for (std::uint32_t number = 0; number < pages; ++number) {
        const auto part = page(number).first(stored);
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

std::string Ranges(std::span<const std::uint32_t> numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t last = i;
        while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) ++last;
        text += fmt::format("{}{}", text.empty() ? "" : ", ", numbers[i]);
        // Two neighbours stand side by side: "3 to 4" would say no more.
        if (last > i) text += fmt::format("{}{}", last == i + 1 ? ", " : " to ", numbers[last]);
        i = last + 1;
    }
    return text;
}

} // namespace fixture
