#include "sweep/state_sum.h"

#include "sweep/chips_compare.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace fixture {

namespace {

// Pages that a NAND operation touches.
StateSum::Range RowsOf(const ChipOperation &operation) {
    const std::uint32_t row = operation.address / kNandPageBytes;
    if (std::string_view(operation.kind) != "erase") return {row, row + 1};
    const std::uint32_t first = row / kNandPagesPerBlock * kNandPagesPerBlock;
    return {first, first + kNandPagesPerBlock};
}

std::uint32_t PageCount(std::uint32_t bytes, std::uint32_t page) { return (bytes + page - 1) / page; }

} // namespace

std::uint32_t StateSum::page_bytes() const {
    return world_->medium == Medium::nand ? kNandPageBytes : world_->chips.dataflash.part().page_bytes;
}

StateSum::StateSum(const World &world, const Chips &chips) : world_(&world) {
    const SlotTable &slots = SlotsOf(world.medium);
    const std::uint32_t page = page_bytes();
    for (const Slot *slot : {&slots.bootloader[0], &slots.bootloader[1], &slots.rescue}) {
        // On NAND bad blocks decide which page has the header; on DataFlash it is the first one.
        const std::uint32_t head = world.medium == Medium::nand ? 0 : kImageHeaderBytes;
        ranges_.push_back({PageCount(slot->address + head, page), (slot->address + slot->capacity) / page});
    }
    begin(chips);
}

// Anew, from all that the chips hold.
void StateSum::begin(const Chips &chips) {
    cells_ = rest_ = 0;
    header_pages_.clear();
    marked_.clear();
    bodies_.clear();
    std::set<std::uint32_t> also;
    if (world_->medium == Medium::nand) {
        for (const Range &range : ranges_)
            for (std::uint32_t row = range.begin; row < range.end; row += kNandPagesPerBlock)
                if (chips.nand.marked_bad(row / kNandPagesPerBlock)) marked_.insert(row / kNandPagesPerBlock);
        also = marked_;
        // A block with a fault may be marked later. What follows then lies a block further on.
        for (const NandFault &fault : chips.nand.faults)
            if (fault.block) also.insert(*fault.block);
    }
    const SlotTable &slots = SlotsOf(world_->medium);
    for (const std::set<std::uint32_t> *skipped : {&marked_, &also}) {
        if (skipped == &also && (also == marked_ || world_->medium != Medium::nand)) continue;
        for (const Slot &slot : slots.bootloader) {
            place(slot, world_->after.bootloader, true, *skipped);
            place(slot, world_->before.bootloader, false, *skipped);
        }
        place(slots.rescue, world_->after.rescue, true, *skipped);
        place(slots.rescue, world_->before.rescue, false, *skipped);
    }
    for (Body &body : bodies_)
        for (std::uint32_t index = 0; index < body.differs.size(); ++index) compare(chips, body, index);
    cells_ = rest_ = EepromSum(chips.eeprom);
    // Relative to the world's own chips, of which a state shares most.
    const auto add = [&](Medium chip, std::uint32_t page) {
        count(share(chips, chip, page), 1);
        count(share(world_->chips, chip, page), -1);
    };
    for (std::uint32_t block = 0; block < kNandBlocks; ++block)
        if (!chips.nand.shares_block(world_->chips.nand, block))
            for (std::uint32_t n = 0; n < kNandPagesPerBlock; ++n) add(Medium::nand, block * kNandPagesPerBlock + n);
    for (std::uint32_t page = 0; page < chips.dataflash.part().pages; ++page)
        if (&chips.dataflash.page(page) != &world_->chips.dataflash.page(page)) add(Medium::dataflash, page);
}

void StateSum::place(const Slot &slot, const Bytes &image, bool is_written, const std::set<std::uint32_t> &skipped) {
    if (image.empty()) return;
    const std::uint32_t page = page_bytes();
    Body body{&image, is_written, slot.address / page, {}, slot.address % page, {}};
    body.differs.resize(PageCount(body.lead + static_cast<std::uint32_t>(image.size()), page));
    if (world_->medium == Medium::nand) {
        const std::size_t count = PageCount(static_cast<std::uint32_t>(body.differs.size()), kNandPagesPerBlock);
        for (std::uint32_t block = slot.address / kNandBlockBytes; body.blocks.size() < count && block < kNandBlocks;
             ++block)
            if (!skipped.contains(block)) body.blocks.push_back(block);
        header_pages_.insert(body.blocks.front() * kNandPagesPerBlock);
    }
    bodies_.push_back(std::move(body));
}

bool StateSum::in_slots(std::uint32_t block) const {
    const std::uint32_t row = block * kNandPagesPerBlock;
    return std::any_of(ranges_.begin(), ranges_.end(),
                       [row](const Range &range) { return range.begin <= row && row < range.end; });
}

bool StateSum::in_body(std::uint32_t page) const {
    const auto holds = [page](const Range &range) { return range.begin <= page && page < range.end; };
    return std::any_of(ranges_.begin(), ranges_.end(), holds) && !header_pages_.contains(page);
}

StateSum::Share StateSum::share(const Chips &chips, Medium chip, std::uint32_t page) const {
    const bool is_body = chip == world_->medium && in_body(page);
    if (chip == Medium::nand) {
        const std::uint64_t whole = NandPageSum(chips.nand, page);
        return {whole, is_body ? NandSpareSum(chips.nand, page) : whole};
    }
    const std::uint64_t whole = DataflashPageSum(chips.dataflash, page);
    return {whole, is_body ? 0 : whole};
}

// Unsigned, so that what is taken out and put in adds up to the right sum whatever the order.
void StateSum::count(const Share &share, std::int64_t times) {
    cells_ += share.cells * static_cast<std::uint64_t>(times);
    rest_ += share.of_class * static_cast<std::uint64_t>(times);
}

void StateSum::count_touched(const Chips &chips, const ChipOperation &operation, std::int64_t times) {
    const std::string_view chip = operation.chip;
    if (chip == "EEPROM") {
        const std::uint64_t sum = EepromSum(chips.eeprom);
        return count({sum, sum}, times);
    }
    if (chip == "DataFlash")
        return count(share(chips, Medium::dataflash, operation.address / chips.dataflash.part().page_bytes), times);
    const Range rows = RowsOf(operation);
    for (std::uint32_t row = rows.begin; row < rows.end; ++row) count(share(chips, Medium::nand, row), times);
}

void StateSum::take_out(const Chips &chips, const ChipOperation &operation) { count_touched(chips, operation, -1); }

void StateSum::put_in(const Chips &chips, const ChipOperation &operation) {
    const bool on_nand = std::string_view(operation.chip) == "NAND";
    if (on_nand && world_->medium == Medium::nand) {
        const std::uint32_t block = operation.address / kNandBlockBytes;
        // A new mark moves the images after it, and their headers.
        if (chips.nand.marked_bad(block) != marked_.contains(block) && in_slots(block)) return begin(chips);
    }
    count_touched(chips, operation, 1);
    if (on_nand != (world_->medium == Medium::nand) || std::string_view(operation.chip) == "EEPROM") return;
    const Range pages =
        on_nand ? RowsOf(operation) : Range{operation.address / page_bytes(), operation.address / page_bytes() + 1};
    for (Body &body : bodies_)
        for (std::uint32_t page = pages.begin; page < pages.end; ++page)
            if (const auto index = index_of(body, page)) compare(chips, body, *index);
}

// Which page of the image a page of the chip is for.
std::optional<std::uint32_t> StateSum::index_of(const Body &body, std::uint32_t page) const {
    std::uint32_t index = page - body.first_page;
    if (world_->medium == Medium::nand) {
        const auto found = std::find(body.blocks.begin(), body.blocks.end(), page / kNandPagesPerBlock);
        if (found == body.blocks.end()) return std::nullopt;
        index =
            static_cast<std::uint32_t>(found - body.blocks.begin()) * kNandPagesPerBlock + page % kNandPagesPerBlock;
    }
    return index < body.differs.size() ? std::optional(index) : std::nullopt;
}

void StateSum::compare(const Chips &chips, Body &body, std::uint32_t index) const {
    const bool on_nand = world_->medium == Medium::nand;
    const std::size_t block = index / kNandPagesPerBlock;
    // An image that ends where the chip does has no place for what is left of it.
    if (on_nand && block >= body.blocks.size()) return;
    const std::uint8_t *page =
        on_nand ? chips.nand.page(body.blocks[block] * kNandPagesPerBlock + index % kNandPagesPerBlock).data()
                : chips.dataflash.page(body.first_page + index).data();
    // The first and the last page can hold more than the image.
    const std::size_t lead = index == 0 ? body.lead : 0;
    const std::size_t from = std::size_t{index} * page_bytes() + lead - body.lead;
    const std::size_t count = std::min(page_bytes() - lead, body.image->size() - from);
    body.differs[index] = std::memcmp(page + lead, body.image->data() + from, count) != 0;
}

std::uint64_t StateSum::of_class() const {
    std::uint64_t sum = rest_;
    for (std::size_t n = 0; n < bodies_.size(); ++n) {
        const std::vector<std::uint8_t> &differs = bodies_[n].differs;
        const auto last = std::find(differs.rbegin(), differs.rend(), std::uint8_t{1});
        const auto pages = static_cast<std::uint64_t>(differs.rend() - last); // up to the last one that differs
        sum += BodySum(n, bodies_[n].is_written ? pages : pages > 0);
    }
    return sum;
}

} // namespace fixture
