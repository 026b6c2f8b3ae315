// An LCD controller that is programmed for a panel of 4 x 2 pixels, at 0x20000100 in a memory of 4 KiB.
#pragma once

#include "fixture/chip/lcdc.h"
#include "fixture/core/clock.h"
#include "fixture/core/journal.h"

#include <cstdint>
#include <vector>

namespace fixture {

struct SmallScreen {
    Clock clock;
    Journal journal{clock};
    bool clocked = true, pins = true, backlight = true;
    Lcdc lcdc{journal, {[this] { return clocked; }, [this] { return pins; }}};
    std::vector<std::uint8_t> sdram = std::vector<std::uint8_t>(0x1000);

    SmallScreen() {
        constexpr std::uint32_t kSettings[][2] = {{0x000, 0x20000100},    {0x018, 4},          {0x01C, 1},
                                                  {0x804, 0x80009E82},    {0x808, 0x00020E04}, {0x80C, 0x02601D25},
                                                  {0x810, 3u << 21 | 1u}, {0x83C, 0x0D}};
        for (const auto &[offset, value] : kSettings) lcdc.write(offset, 4, value);
    }
    void pixel(unsigned index, unsigned value) {
        sdram[0x100 + index * 2] = static_cast<std::uint8_t>(value);
        sdram[0x101 + index * 2] = static_cast<std::uint8_t>(value >> 8);
    }
};

} // namespace fixture
