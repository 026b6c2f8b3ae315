#include "sweep/chips_compare.h"

#include <cstring>
#include <span>

namespace fixture {

namespace {

class Digest {
public:
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
    if (one.shares_block(other, block)) return true;
    for (std::uint32_t row = block * kNandPagesPerBlock; row < (block + 1) * kNandPagesPerBlock; row++)
        if (&one.page(row) != &other.page(row) && one.page(row) != other.page(row)) return false;
    return true;
}

void AddNand(Digest &digest, const NandContents &nand, const NandContents &base) {
    const bool disturbed = nand.disturbed() || base.disturbed();
    for (std::uint32_t block = 0; block < kNandBlocks; block++) {
        if (disturbed || !nand.shares_block(base, block))
            if (const std::uint64_t hidden = nand.hidden(block); hidden != base.hidden(block)) digest.add(hidden);
        if (SameBlock(nand, base, block)) continue;
        for (std::uint32_t row = block * kNandPagesPerBlock; row < (block + 1) * kNandPagesPerBlock; row++) {
            if (&nand.page(row) == &base.page(row) || nand.page(row) == base.page(row)) continue;
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

} // namespace

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
    for (std::uint32_t block = 0; block < kNandBlocks; block++)
        if (!SameBlock(one, other, block)) call(block);
}

void ForEachChangedPage(const At45Contents &one, const At45Contents &other,
                        const std::function<void(std::uint32_t)> &call) {
    for (std::uint32_t page = 0; page < one.part().pages; page++)
        if (&one.page(page) != &other.page(page) && one.page(page) != other.page(page)) call(page);
}

} // namespace fixture
