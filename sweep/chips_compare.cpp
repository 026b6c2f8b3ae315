#include "sweep/chips_compare.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

namespace fixture {

namespace {

class Digest {
public:
    // Cheap, since the chips of every cut are summed. The constants are bits of the golden ratio and of pi.
    void add(std::uint64_t word) {
        value_ = (value_ ^ word) * 0x9E3779B97F4A7C15u;
        value_ ^= value_ >> 29;
    }
    void add(std::span<const std::uint8_t> bytes) {
        while (bytes.size() >= sizeof(std::uint64_t)) {
            std::uint64_t word;
            std::memcpy(&word, bytes.data(), sizeof word);
            add(word);
            bytes = bytes.subspan(sizeof word);
        }
        for (const std::uint8_t byte : bytes) add(byte);
    }
    std::uint64_t value() const { return value_; }

private:
    std::uint64_t value_ = 0x243F6A8885A308D3u;
};

bool SameBlock(const NandContents &one, const NandContents &other, std::uint32_t block) {
    // Nearly always: a copy shares what neither side has changed.
    if (one.shares_block(other, block)) return true;
    for (std::uint32_t row = block * kNandPagesPerBlock; row < (block + 1) * kNandPagesPerBlock; ++row)
        if (&one.page(row) != &other.page(row) && one.page(row) != other.page(row)) return false;
    return true;
}

void AddNand(Digest &digest, const NandContents &nand, const NandContents &base) {
    // What does not show when read (unstable and weak cells, counts of programs) makes chips differ too.
    const bool disturbed = nand.disturbed() || base.disturbed();
    for (std::uint32_t block = 0; block < kNandBlocks; ++block) {
        if (disturbed || !nand.shares_block(base, block))
            if (const std::uint64_t hidden = nand.hidden(block); hidden != base.hidden(block)) digest.add(hidden);
        if (SameBlock(nand, base, block)) continue;
        for (std::uint32_t row = block * kNandPagesPerBlock; row < (block + 1) * kNandPagesPerBlock; ++row) {
            if (&nand.page(row) == &base.page(row) || nand.page(row) == base.page(row)) continue;
            // Only what differs from the base, with its place: the sum costs what was changed.
            digest.add(row);
            digest.add(nand.page(row));
        }
    }
}

// Which faults there are is part of the world; what is left of their chances is not.
template <typename Fault> void AddFaults(Digest &digest, const std::vector<Fault> &faults) {
    for (const Fault &fault : faults) digest.add(std::uint64_t{fault.skip} << 32 | fault.times);
}

void AddDataflash(Digest &digest, const At45Contents &flash, const At45Contents &base) {
    ForEachChangedPage(flash, base, [&](std::uint32_t page) {
        digest.add(page);
        digest.add(flash.page(page));
    });
    digest.add(flash.hidden());
}

// --- sums

// These are added up to sums of states, so each is spread over all bits first: plain digests of like pages might add up
// to those of others.
std::uint64_t Spread(std::uint64_t value) {
    value = (value ^ value >> 32) * 0xD6E8FEB86659FD93u;
    return (value ^ value >> 32) * 0xD6E8FEB86659FD93u;
}

enum class Unit : std::uint8_t { nand_page, dataflash_page, eeprom, body };

std::uint64_t SumOf(Unit unit, std::uint64_t number, std::span<const std::uint8_t> bytes, std::uint64_t more = 0) {
    Digest digest;
    digest.add(number << 8 | static_cast<std::uint64_t>(unit));
    digest.add(bytes);
    digest.add(more);
    return Spread(digest.value());
}

// Null: an erased page with no cells of its own. The bytes are the first member of their cells, and so have their
// address.
const NandContents::Cells *CellsOf(const NandContents &nand, std::uint32_t row) {
    static_assert(std::is_standard_layout_v<NandContents::Cells>);
    static const NandContents kBlank;
    const NandContents::Page &page = nand.page(row);
    return &page == &kBlank.page(0) ? nullptr : reinterpret_cast<const NandContents::Cells *>(&page);
}

} // namespace

std::uint64_t NandPageSum(const NandContents &nand, std::uint32_t row) {
    const NandContents::Cells *cells = CellsOf(nand, row);
    // Counts of data programs are left out; EraseWatch (closure.cpp) shows that they cannot matter.
    if (!cells || (cells->spare_programs == 0 && nand.erased(row))) return 0;
    return SumOf(Unit::nand_page, row, cells->bytes, cells->spare_programs);
}

std::uint64_t NandSpareSum(const NandContents &nand, std::uint32_t row) {
    const NandContents::Cells *cells = CellsOf(nand, row);
    if (!cells) return 0;
    const std::span<const std::uint8_t> spare = std::span(cells->bytes).subspan(kNandPageBytes);
    const bool blank = std::all_of(spare.begin(), spare.end(), [](std::uint8_t byte) { return byte == 0xFF; });
    return blank && cells->spare_programs == 0 ? 0 : SumOf(Unit::nand_page, row, spare, cells->spare_programs);
}

std::uint64_t DataflashPageSum(const At45Contents &flash, std::uint32_t page) {
    return SumOf(Unit::dataflash_page, page, flash.page(page));
}

std::uint64_t EepromSum(const EepromContents &eeprom) { return SumOf(Unit::eeprom, 0, eeprom.bytes); }

std::uint64_t BodySum(std::size_t number, std::uint64_t state) { return SumOf(Unit::body, number, {}, state); }

std::uint64_t ChancesSum(const Chips &chips) {
    Digest digest;
    AddFaults(digest, chips.nand.faults);
    AddFaults(digest, chips.dataflash.faults);
    return Spread(digest.value());
}

unsigned DataPrograms(const NandContents &nand, std::uint32_t row) {
    const NandContents::Cells *cells = CellsOf(nand, row);
    return cells ? cells->data_programs : 0;
}

std::uint64_t DigestOf(const Chips &chips, const Chips &base) {
    Digest digest;
    AddNand(digest, chips.nand, base.nand);
    AddDataflash(digest, chips.dataflash, base.dataflash);
    AddFaults(digest, chips.nand.faults);
    AddFaults(digest, chips.dataflash.faults);
    digest.add(chips.eeprom.bytes);
    digest.add(HashOf(chips.eeprom.unstable, 0, EepromContents::kSize));
    return digest.value();
}

void ForEachChangedBlock(const NandContents &one, const NandContents &other,
                         const std::function<void(std::uint32_t)> &call) {
    for (std::uint32_t block = 0; block < kNandBlocks; ++block)
        if (!SameBlock(one, other, block)) call(block);
}

void ForEachChangedPage(const At45Contents &one, const At45Contents &other,
                        const std::function<void(std::uint32_t)> &call) {
    assert(one.part().pages == other.part().pages && "chips of one world");
    for (std::uint32_t page = 0; page < one.part().pages; ++page)
        if (&one.page(page) != &other.page(page) && one.page(page) != other.page(page)) call(page);
}

} // namespace fixture
