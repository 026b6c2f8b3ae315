#include "machine/raw_flash.h"

#include <algorithm>

namespace fixture {

namespace {

std::vector<std::uint32_t> BadBlocksOf(const NandContents &contents) {
    std::vector<std::uint32_t> bad;
    for (std::uint32_t block = 0; block < kNandBlocks; ++block)
        if (contents.marked_bad(block)) bad.push_back(block);
    return bad;
}

// The first spare byte of a page is the mark; on a 16-bit chip the second one too.
bool UsesSpare(const NandContents &contents, std::uint32_t block) {
    for (std::uint32_t row = block * kNandPagesPerBlock; row < (block + 1) * kNandPagesPerBlock; ++row) {
        if (contents.erased(row)) continue;
        const NandContents::Page &page = contents.page(row);
        if (std::any_of(page.begin() + kNandPageBytes + 2, page.end(), [](std::uint8_t byte) { return byte != 0xFF; }))
            return true;
    }
    return false;
}

// Block 0 is the first stage's: whoever writes it may use its spare bytes.
std::vector<std::uint32_t> SpareInUse(const NandContents &contents) {
    std::vector<std::uint32_t> blocks;
    for (std::uint32_t block = 1; block < kFileSystemBlock; ++block)
        if (!contents.marked_bad(block) && UsesSpare(contents, block)) blocks.push_back(block);
    return blocks;
}

} // namespace

FlashReader ReaderOf(const At45Contents &contents) {
    return [&contents](std::uint32_t address, std::uint32_t length) { return contents.read(address, length); };
}

// As the bootloader's driver reads: blocks that are marked bad are skipped, so what follows lies further on.
FlashReader ReaderOf(const NandContents &contents) {
    return [&contents](std::uint32_t address, std::uint32_t length) {
        std::vector<std::uint8_t> bytes;
        for (std::uint32_t block = address / kNandBlockBytes; block < kNandBlocks && bytes.size() < length; ++block) {
            if (contents.marked_bad(block)) continue;
            const auto rest = static_cast<std::uint32_t>(length - bytes.size());
            const std::vector<std::uint8_t> part =
                contents.read(block * kNandBlockBytes, std::min(rest, kNandBlockBytes));
            bytes.insert(bytes.end(), part.begin(), part.end());
        }
        // A reader gives as much as was asked for; beyond the chip's end there is erased flash.
        bytes.resize(length, 0xFF);
        return bytes;
    };
}

RawFlash RawFlashOf(At45Contents &contents) {
    return {
        Medium::dataflash,
        contents.part().name,
        contents.bytes(),
        contents.part().page_bytes,
        {},
        ReaderOf(contents),
        [&contents](std::uint32_t address, std::span<const std::uint8_t> bytes) { contents.write(address, bytes); }};
}

RawFlash RawFlashOf(NandContents &contents) {
    RawFlash flash{Medium::nand,
                   contents.part() ? contents.part()->name : "(none)",
                   kNandBytes,
                   kNandBlockBytes,
                   BadBlocksOf(contents),
                   ReaderOf(contents),
                   {}};
    flash.write = [&contents](std::uint32_t address, std::span<const std::uint8_t> bytes) {
        for (std::uint32_t block = address / kNandBlockBytes; !bytes.empty() && block < kNandBlocks; ++block) {
            if (contents.marked_bad(block)) continue;
            const auto part = bytes.first(std::min<std::size_t>(bytes.size(), kNandBlockBytes));
            // As a write on the board: the block is erased as a whole, the rest of its last one stays blank.
            contents.erase(block);
            contents.write(block * kNandBlockBytes, part);
            bytes = bytes.subspan(part.size());
        }
    };
    flash.spare_in_use = SpareInUse(contents);
    return flash;
}

} // namespace fixture
