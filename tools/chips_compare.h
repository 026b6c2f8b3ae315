// Comparing the chips of two moments of one board, quickly where they share most of what they hold.
#pragma once

#include "board.h"

#include <cstdint>
#include <functional>

// A number that differs where the chips' contents or what is wrong with them differ. Only what is not shared with
// `base` is looked at; digests of one base can be compared.
// How often a page was programmed counts for nothing.
std::uint64_t DigestOf(const fixture::Chips &chips, const fixture::Chips &base);

// Calls for every block or page whose data differ, with its number.
void ForEachChangedBlock(const fixture::NandContents &one, const fixture::NandContents &other,
                         const std::function<void(std::uint32_t block)> &call);
void ForEachChangedPage(const fixture::At45Contents &one, const fixture::At45Contents &other,
                        const std::function<void(std::uint32_t page)> &call);
