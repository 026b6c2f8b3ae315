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

// Calls for every block or page whose data differ, with its number.
void ForEachChangedBlock(const NandContents &one, const NandContents &other,
                         const std::function<void(std::uint32_t block)> &call);
void ForEachChangedPage(const At45Contents &one, const At45Contents &other,
                        const std::function<void(std::uint32_t page)> &call);

} // namespace fixture
