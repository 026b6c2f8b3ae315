// What a state of the chips is known by, kept up operation by operation.
//
// cells() is a number for all that the chips hold and that can matter later: every byte with its address, spare bytes
// and marks, how often spare areas were programmed. How often, and in which order, data pages were programmed is left
// out: it matters to a power-up that programs a block which it has not erased, and whoever uses these sums has to see
// that there is none.
//
// of_class() leaves out what of an image's body cannot matter. Nobody reads a body page by page: the first stage and
// the bootloader ask whether all of it fits its header, and an update writes its pages in ascending order whatever they
// hold. So of the body of a slot two things count: whether it is, whole, an image that was there before; and which is
// the last page that differs from what the update writes there, since the image is whole once everything up to that
// page is written. The pages with headers, and those that a slot shares with a neighbour, count with every byte. A
// closure that goes by classes explores second members of them, and finds one that goes another way.
//
//   StateSum sum(world, chips);
//   const ChipOperation operation{"NAND", "erase", 0x40000};
//   sum.take_out(chips, operation);     before the operation
//   sum.put_in(chips, operation);       after it
//
// Both are sums over pages, so that a change costs the pages that it touches. What is left of the chances of faults is
// not in them: ChancesSum (chips_compare.h).
#pragma once

#include "sweep/world.h"

#include <cstdint>
#include <optional>
#include <set>
#include <vector>

namespace fixture {

class StateSum {
public:
    // The world lends its images, and outlives this.
    StateSum(const World &world, const Chips &chips);

    void take_out(const Chips &chips, const ChipOperation &operation);
    void put_in(const Chips &chips, const ChipOperation &operation);

    std::uint64_t cells() const { return cells_; }
    std::uint64_t of_class() const;

    struct Range {
        std::uint32_t begin, end; // pages of a chip
    };

private:
    // One image as an update places it in one slot.
    struct Body {
        const Bytes *image;
        bool is_written;                   // by the update; otherwise it can be there from before
        std::uint32_t first_page;          // of the slot, counted in the chip
        std::vector<std::uint32_t> blocks; // on NAND: those that it goes to, bad ones skipped
        std::uint32_t lead;                // bytes of the first page that lie before it
        std::vector<std::uint8_t> differs; // by its pages
    };
    // What one page gives to each sum.
    struct Share {
        std::uint64_t cells, of_class;
    };

    void begin(const Chips &chips);
    void place(const Slot &slot, const Bytes &image, bool is_written, const std::set<std::uint32_t> &skipped);
    void compare(const Chips &chips, Body &body, std::uint32_t index) const;
    std::optional<std::uint32_t> index_of(const Body &body, std::uint32_t page) const;
    bool in_slots(std::uint32_t block) const;
    bool in_body(std::uint32_t page) const;
    Share share(const Chips &chips, Medium chip, std::uint32_t page) const;
    void count(const Share &share, std::int64_t times);
    void count_touched(const Chips &chips, const ChipOperation &operation, std::int64_t times);
    std::uint32_t page_bytes() const;

    const World *world_;
    std::uint64_t cells_ = 0;
    std::uint64_t rest_ = 0;               // of the class: what counts with every byte
    std::vector<Range> ranges_;            // where bodies lie
    std::set<std::uint32_t> header_pages_; // within those ranges, on NAND
    std::set<std::uint32_t> marked_;       // blocks
    std::vector<Body> bodies_;
};

} // namespace fixture
