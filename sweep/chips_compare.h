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

// A number for all that the chips hold and that can matter later: every byte with its address, spare bytes and marks,
// how often spare areas were programmed, what is left of the faults' chances. How often, and in which order, data pages
// were programmed is left out: it matters to a power-up that programs a block which it has not erased, and whoever uses
// these sums has to see that there is none. It is a sum over units (a NAND page, a DataFlash page, the EEPROM), so that
// a change costs what it touches: take TouchedSum off before an operation and add it after. Sums of one base can be
// compared. The state is CellsSum plus ChancesSum.
std::uint64_t CellsSum(const Chips &chips, const Chips &base);
std::uint64_t TouchedSum(const Chips &chips, const ChipOperation &operation); // of what one operation can change
std::uint64_t ChancesSum(const Chips &chips);                                 // of the faults

// Since the last erase.
unsigned DataPrograms(const NandContents &nand, std::uint32_t row);

// Calls for every block or page whose data differ, with its number.
void ForEachChangedBlock(const NandContents &one, const NandContents &other,
                         const std::function<void(std::uint32_t block)> &call);
void ForEachChangedPage(const At45Contents &one, const At45Contents &other,
                        const std::function<void(std::uint32_t page)> &call);

} // namespace fixture
