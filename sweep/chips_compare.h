// Comparing the chips of two moments of one board, quickly where they share most of what they hold.
#pragma once

#include "fixture/board.h"

#include <cstdint>
#include <functional>

namespace fixture {

// A number that differs where the chips' contents or what is wrong with them differ. Only what is not shared with
// `base` is looked at; digests of one base can be compared.
// What no read shows counts as well: cells that a loss of power left between two states, how often a page was
// programmed.
std::uint64_t DigestOf(const Chips &chips, const Chips &base);

// What one unit gives to the sum that a state of the chips is known by (sweep/state_sum.h): a page with its number, on
// NAND with its spare bytes and how often these were programmed; a page's spare bytes alone; the EEPROM; what is left
// of the faults' chances.
std::uint64_t NandPageSum(const NandContents &nand, std::uint32_t row);
std::uint64_t NandSpareSum(const NandContents &nand, std::uint32_t row);
std::uint64_t DataflashPageSum(const At45Contents &flash, std::uint32_t page);
std::uint64_t EepromSum(const EepromContents &eeprom);
std::uint64_t BodySum(std::size_t number, std::uint64_t state);
std::uint64_t ChancesSum(const Chips &chips);

// Since the last erase.
unsigned DataPrograms(const NandContents &nand, std::uint32_t row);

// Calls for every block or page whose data differ, with its number.
void ForEachChangedBlock(const NandContents &one, const NandContents &other,
                         const std::function<void(std::uint32_t block)> &call);
void ForEachChangedPage(const At45Contents &one, const At45Contents &other,
                        const std::function<void(std::uint32_t page)> &call);

} // namespace fixture
