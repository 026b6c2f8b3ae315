#include "platform.h"

#include "cp15.h"

#include <memory_map.h>

extern "C" const std::uint32_t _start[]; // the vectors' page

namespace {

// ARMv5 descriptors: everything readable and writable, domain 0.
constexpr std::uint32_t kSectionDevice = 0xC12;
constexpr std::uint32_t kSectionCached = 0xC1E; // write-back
constexpr std::uint32_t kCoarseTable = 0x011;
constexpr std::uint32_t kPageDevice = 0xFF2;
constexpr std::uint32_t kPageCached = 0xFFE;

constexpr std::uint32_t kMebibyte = 0x100000;
constexpr std::uint32_t kPageSize = 0x1000;
constexpr std::uint32_t kHighVectors = 0xFFFF0000;
constexpr std::uint32_t kLastMebibyte = 0xFFF00000;
constexpr std::uint32_t kPeripherals = 0xFFF78000;

struct Range {
    std::uint32_t base;
    std::uint32_t mebibytes;
    std::uint32_t kind;
};
constexpr Range kRanges[] = {
    {0x00300000, 1, kSectionCached}, // on-chip SRAM
    {0x00500000, 1, kSectionCached},
    {0x00700000, 1, kSectionDevice}, // LCD controller
    {kSdramBase, kSdramSize / kMebibyte, kSectionCached},
    {0x40000000, 8, kSectionDevice}, // NAND latches
};

// What the processor walks. An entry of 0 is a translation fault: null pointers and stray addresses show.
struct Tables {
    std::uint32_t first[4096];
    std::uint32_t last_mebibyte[256];
};
__attribute__((section(".translation_tables"), aligned(16384))) Tables g_tables;

constexpr std::uint32_t kControlBits = 1u << 0     // MMU
                                       | 1u << 1   // alignment faults
                                       | 1u << 2   // data cache
                                       | 1u << 12  // instruction cache
                                       | 1u << 13; // high vectors

void MapSections(const Range &range) {
    for (std::uint32_t i = 0; i < range.mebibytes; ++i)
        g_tables.first[range.base / kMebibyte + i] = (range.base + i * kMebibyte) | range.kind;
}

// Peripherals and the vectors share the last mebibyte.
void MapLastMebibyte() {
    for (std::uint32_t page = kPeripherals; page >= kPeripherals; page += kPageSize)
        g_tables.last_mebibyte[(page - kLastMebibyte) / kPageSize] = page | kPageDevice;
    g_tables.last_mebibyte[(kHighVectors - kLastMebibyte) / kPageSize] =
        reinterpret_cast<std::uint32_t>(_start) | kPageCached;
    g_tables.first[kLastMebibyte / kMebibyte] = reinterpret_cast<std::uint32_t>(g_tables.last_mebibyte) | kCoarseTable;
}

} // namespace

void MMU_Enable() {
    g_tables = {};
    for (const Range &range : kRanges) MapSections(range);
    // The LCD controller reads the picture from memory, past the data cache.
    MapSections({reinterpret_cast<std::uint32_t>(__ghsbegin_mr_rwec__videobuffer), 1, kSectionDevice});
    MapLastMebibyte();
    cp15::InvalidateCaches();
    cp15::DrainWriteBuffer();
    cp15::InvalidateTranslations();
    cp15::SetTranslationTable(&g_tables);
    cp15::SetDomains(1); // domain 0: as the descriptors say
    cp15::SetControl(cp15::Control() | kControlBits);
}
