#include "sweep/scenarios.h"

#include "sweep/skips.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace fixture {

namespace {

using enum SlotState;

// Bytes: an image that reaches into a third block, so that a fault can lie in its first, a middle or its last one.
constexpr std::uint32_t kThreeBlocks = 300'000;
// As many pages of a DataFlash as the bootloader has. On NAND an image of the usual size reaches into a second block.
constexpr std::uint32_t kFortyPages = 42'000;
constexpr std::size_t kSample = 12; // cuts of a variant that is long, or one of many
// First blocks of the second bootloader slot and of the rescue slot on NAND.
constexpr std::uint32_t kSlot1Block = 17;
constexpr std::uint32_t kRescueBlock = 32;
constexpr unsigned kForever = NandFault::kForever;

std::vector<std::uint32_t> Blocks(std::uint32_t first, std::uint32_t end) {
    std::vector<std::uint32_t> blocks(end - first);
    std::iota(blocks.begin(), blocks.end(), first);
    return blocks;
}

// --- updates from every state

std::vector<Variant> Updates(Medium medium) {
    struct Row {
        const char *label;
        std::array<SlotState, 2> slots;
    };
    // Every state that production, an update or a cut leaves a slot in, with the running image in either slot.
    const Row rows[] = {
        {"running-erased", {running, erased}},   {"running-retired", {running, retired}},
        {"running-broken", {running, broken}},   {"running-running", {running, running}},
        {"running-updated", {running, updated}}, {"erased-running", {erased, running}},
        {"retired-running", {retired, running}}, {"broken-running", {broken, running}},
        {"running-endless", {running, endless}},
    };
    std::vector<Variant> variants;
    for (const Row &row : rows) variants.push_back({row.label, {.medium = medium, .slots = row.slots}});
    return variants;
}

std::vector<Variant> RescueUpdates(Medium medium) {
    Situation setup{.medium = medium, .new_bootloader = false, .new_rescue = true};
    if (medium == Medium::dataflash) setup.rescue_bytes = kFortyPages;
    std::vector<Variant> variants = {{"good", setup}, {"broken", setup}, {"none", setup}};
    variants[1].setup.rescue = RescueState::broken;
    variants[2].setup.rescue = RescueState::none;
    if (medium == Medium::nand) return variants; // its driver compares what it writes
    variants.push_back({"lost-program", setup});
    variants[3].setup.dataflash_faults.emplace_back().skip = 5;
    return variants;
}

std::vector<Variant> BothUpdates(Medium medium) {
    Situation setup{.medium = medium, .slots = {running, retired}, .new_rescue = true};
    if (medium == Medium::dataflash) setup.rescue_bytes = kFortyPages;
    std::vector<Variant> variants = {{"running-retired", setup}, {"retired-running", setup}};
    variants[1].setup.slots = {retired, running};
    return variants;
}

std::vector<Variant> Refusals(Medium medium) {
    const Situation setup{.medium = medium, .fate = Fate::refused};
    std::vector<Variant> variants = {{"sums", setup}, {"sums-rescue", setup}, {"too-long", setup}};
    variants[0].setup.damaged = true;
    variants[1].setup.damaged = variants[1].setup.new_rescue = true;
    // A byte more than the larger slot takes.
    variants[2].setup.update_bytes = SlotsOf(medium).bootloader[1].capacity + 1;
    if (medium == Medium::nand) return variants;
    // A chip of half the size, which ends a byte too early for the check of this image.
    variants.push_back({"rescue-at-end", setup});
    variants[3].setup.part = "AT45DB321";
    variants[3].setup.new_bootloader = false;
    variants[3].setup.new_rescue = true;
    variants[3].setup.rescue_bytes = FindAt45Part("AT45DB321")->bytes() - SlotsOf(medium).rescue.address - 31;
    return variants;
}

std::vector<Variant> Parameters() {
    std::vector<Variant> variants;
    for (const int sector : {0, 1})
        for (const bool longer : {false, true}) {
            Situation setup{.new_bootloader = false, .parameters = {sector, true, {}}};
            // The longest data that a parameter can have.
            if (longer) setup.parameters.more.assign(15, 0x5A);
            variants.push_back({fmt::format("{}-to-{}{}", sector, 1 - sector, longer ? "-longer" : ""), setup});
        }
    // A sector that was written before, by a commit with other addresses or with the same ones in another order.
    const std::vector<std::uint32_t> other = {0x0A020025, 0xFF000000, 0x0A020021, 0x0A020022};
    std::vector<std::uint32_t> swapped(kNewNetwork.begin(), kNewNetwork.end());
    // The same bytes in another order have the same checksum, so a torn commit may pass for a whole one.
    std::swap(swapped[2], swapped[3]);
    for (const int sector : {0, 1})
        variants.push_back({fmt::format("{}-to-{}-used", sector, 1 - sector),
                            {.new_bootloader = false, .parameters = {sector, true, {}, other}}});
    variants.push_back(
        {"1-to-0-equal-sum", {.new_bootloader = false, .parameters = {1, true, {}, swapped}}, {kEqualSum}});
    return variants;
}

// --- bad blocks and other faults

std::vector<Variant> FactoryBad() {
    struct Row {
        const char *label;
        std::vector<std::uint32_t> blocks;
    };
    // The slots begin at blocks 2, 17 and 32.
    const Row rows[] = {
        {"target-first", {17}}, {"target-second", {18}}, {"target-last", {19}},    {"target-two", {17, 19}},
        {"kept-second", {3}},   {"both", {2, 18}},       {"rescue-two", {32, 33}},
    };
    std::vector<Variant> variants;
    for (const Row &row : rows)
        variants.push_back({row.label,
                            {.slots = {running, retired},
                             .running_bytes = kThreeBlocks,
                             .update_bytes = kThreeBlocks,
                             .new_rescue = row.blocks.front() == kRescueBlock,
                             .bad_blocks = row.blocks}});
    return variants;
}

std::vector<Variant> Worn() {
    struct Row {
        const char *label;
        NandFault fault;
        Fate fate = Fate::stored;
        std::vector<const char *> holes = {};
    };
    // A grown bad block takes no mark either: what was to be stored in it is not found again.
    const Row rows[] = {
        {"erase-first",
         {.kind = NandFault::erase_fails, .block = kSlot1Block, .times = kForever},
         Fate::stored,
         {kMarkTornOften}},
        {"erase-second",
         {.kind = NandFault::erase_fails, .block = kSlot1Block + 1, .times = kForever},
         Fate::stored,
         {kMarkTornOften}},
        {"erase-once", {.kind = NandFault::erase_fails, .block = kSlot1Block, .times = 1}},
        {"erase-twice", {.kind = NandFault::erase_fails, .block = kSlot1Block, .times = 2}},
        {"program", {.kind = NandFault::program_fails, .block = kSlot1Block + 1, .page = 20, .times = kForever}},
        {"grown", {.kind = NandFault::grown_bad, .block = kSlot1Block + 1, .skip = 30}, Fate::may_fail},
        {"grown-last", {.kind = NandFault::grown_bad, .block = kSlot1Block + 2, .skip = 5}, Fate::may_fail},
        {"retired", {.kind = NandFault::erase_fails, .block = 2, .times = kForever}},
        {"rescue",
         {.kind = NandFault::erase_fails, .block = kRescueBlock, .times = kForever},
         Fate::stored,
         {kMarkTornOften}},
        {"rescue-no-mark", {.kind = NandFault::grown_bad, .block = kRescueBlock, .skip = 10}, Fate::stored, {kNoMark}},
    };
    std::vector<Variant> variants;
    for (const Row &row : rows)
        variants.push_back({row.label,
                            {.slots = {running, erased},
                             // Whatever a dead block got from a rescue image would be there beside every state of an
                             // update.
                             .new_bootloader = std::string_view(row.label) != "rescue-no-mark",
                             .running_bytes = kThreeBlocks,
                             .update_bytes = kThreeBlocks,
                             .new_rescue = std::string_view(row.label).starts_with("rescue"),
                             .nand_faults = {row.fault},
                             .fate = row.fate},
                            row.holes});
    return variants;
}

std::vector<Variant> WrongPages(const SweepFirmware &firmware) {
    const std::size_t image = kImageHeaderBytes + firmware.version(1).flat.size();
    const auto pages = static_cast<std::uint32_t>((image + kNandPageBytes - 1) / kNandPageBytes);
    std::vector<Variant> variants;
    // Wrong once, a second try must store the page; wrong for ever, the block must be given up.
    for (const unsigned times : {1u, kForever})
        for (std::uint32_t page = 0; page < pages; ++page) {
            const NandFault fault{
                // Another column on each page, so that a comparison which skips columns misses some of them.
                .kind = NandFault::wrong_bits,
                .block = kSlot1Block,
                .page = page,
                .times = times,
                .column = 31 * page};
            variants.push_back({fmt::format("{}-{}", times == 1 ? "once" : "always", page), {.nand_faults = {fault}}});
        }
    return variants;
}

std::vector<Variant> LostPrograms(const SweepFirmware &firmware) {
    const std::size_t image = kImageHeaderBytes + firmware.version(1).flat.size();
    const At45Part &part = *FindAt45Part(kDefaultAt45);
    const auto programs = static_cast<unsigned>(image / part.page_bytes + 3); // both ends, and the header retired
    std::vector<Variant> variants;
    for (unsigned n = 0; n < programs; ++n) {
        At45Fault fault;
        fault.skip = n;
        variants.push_back(
            {fmt::format("{}", n), {.medium = Medium::dataflash, .dataflash_faults = {fault}}, {}, 4 * kSample});
    }
    return variants;
}

std::vector<Variant> NoRoom() {
    const Situation setup{
        // From the second slot to the end of the chip nothing can be stored: the update must fail and leave the board
        // alone.
        .rescue = RescueState::none,
        .bad_blocks = Blocks(kSlot1Block, kNandBlocks),
        .fate = Fate::fails};
    std::vector<Variant> variants = {{"no-block", setup}, {"one-block", setup}};
    variants[1].setup.update_bytes = kThreeBlocks;
    variants[1].setup.bad_blocks = Blocks(kSlot1Block + 1, kNandBlocks);
    variants.push_back({"endless", variants[1].setup});
    variants[2].setup.slots = {running, endless};
    variants[2].setup.update_bytes = 0;
    variants[2].setup.fate = Fate::stored;
    return variants;
}

// --- bits that flip by themselves

// Each page of what a board has once: its bootloader in slot 0, the rescue image, the version record.
std::vector<Variant> Rotten(Medium medium, const SweepFirmware &firmware) {
    const Situation setup{.medium = medium, .slots = {running, retired}, .new_bootloader = false};
    const auto image = static_cast<std::uint32_t>(kImageHeaderBytes + firmware.version(0).flat.size());
    const SlotTable &slots = SlotsOf(medium);
    const std::uint32_t page = medium == Medium::nand ? kNandPageBytes : FindAt45Part(kDefaultAt45)->page_bytes;
    std::vector<Variant> variants;
    const auto add = [&](const std::string &label, const Rot &rot) {
        variants.push_back({label, setup, {kRotten}, kSample});
        variants.back().setup.rot = rot;
    };
    const auto add_pages = [&](const char *what, std::uint32_t address, std::uint32_t bytes) {
        for (std::uint32_t n = 0; n * page < bytes; ++n)
            // Another column in each page; the last one may be short.
            add(fmt::format("{}-{}", what, n),
                {Rot::Place::data, address + std::min(n * page + 37 * n % page, bytes - 1)});
    };
    add_pages("bootloader", slots.bootloader[0].address, image);
    add("after-bootloader", {Rot::Place::data, slots.bootloader[0].address + image + 1});
    add_pages("rescue", slots.rescue.address, setup.rescue_bytes);
    add("record", {Rot::Place::data, slots.record.address + 1});
    if (medium == Medium::dataflash) return variants;
    for (const std::uint32_t n : {0u, 1u})
        add(fmt::format("mark-{}", n), {Rot::Place::mark, slots.bootloader[0].address + n * page});
    return variants;
}

// Each page of 16 bytes of the only parameter sector.
std::vector<Variant> RottenParameters() {
    constexpr std::uint32_t kStorePages = 4; // that the four network parameters take
    std::vector<Variant> variants;
    for (std::uint32_t n = 0; n < kStorePages; ++n)
        variants.push_back({fmt::format("page-{}", n),
                            {.new_bootloader = false, .rot = Rot{Rot::Place::eeprom, 16 * n + 5 * n % 16}},
                            {kRotten}});
    return variants;
}

// --- sizes at an edge

// Sizes of images whose end lies at an edge of pages or blocks, a byte before it, and a byte after it.
std::vector<std::uint32_t> EdgeSizes(Medium medium, const Slot &slot, std::uint32_t page) {
    const std::uint32_t begin = slot.address % page;
    std::vector<std::uint32_t> edges = {page - begin, 2 * page - begin, slot.capacity,
                                        (slot.address + slot.capacity - 1) / page * page - slot.address};
    if (medium == Medium::nand)
        edges.insert(edges.end(), {kNandBlockBytes, 2 * kNandBlockBytes, slot.capacity - kNandBlockBytes});
    std::sort(edges.begin(), edges.end());
    std::vector<std::uint32_t> sizes;
    for (const std::uint32_t edge : edges)
        // One too few, exact, one too many: where loops over pages go wrong.
        for (const int off : {-1, 0, 1}) sizes.push_back(edge + static_cast<std::uint32_t>(off));
    // Edges may coincide.
    sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
    return sizes;
}

std::uint32_t PageOf(Medium medium) {
    return medium == Medium::nand ? kNandPageBytes : FindAt45Part(kDefaultAt45)->page_bytes;
}

// Whether the last byte of an image lies in the page that holds the first one of what follows its slot.
bool ReachesNeighbour(Medium medium, const Slot &slot, std::uint32_t size) {
    const std::uint32_t page = PageOf(medium);
    return (slot.address + size - 1) / page == (slot.address + slot.capacity) / page;
}

// A boot takes seconds with an image of many megabytes, or of some where every byte goes over a serial bus.
std::size_t MostCuts(Medium medium, std::uint32_t size) {
    constexpr std::uint32_t kManyMegabytes = 4 << 20;
    if (size <= kThreeBlocks) return 0;
    return medium == Medium::nand && size < kManyMegabytes ? kSample : kSample / 4;
}

std::vector<Variant> BootloaderEdges(Medium medium) {
    std::vector<Variant> variants;
    for (const unsigned target : {0u, 1u}) {
        const Slot &slot = SlotsOf(medium).bootloader[target];
        for (const std::uint32_t size : EdgeSizes(medium, slot, PageOf(medium))) {
            Situation setup{.medium = medium, .slots = {running, erased}, .update_bytes = size};
            // The update goes to the slot that the board does not run from.
            if (target == 0) std::swap(setup.slots[0], setup.slots[1]);
            const bool fits = size <= slot.capacity;
            if (!fits) setup.fate = Fate::refused;
            std::vector<const char *> holes;
            // DataFlash slot 1 is the larger one: an image may fit there alone.
            if (fits && size > SlotsOf(medium).bootloader[0].capacity) holes.push_back(kFitsOneSlot);
            if (fits && ReachesNeighbour(medium, slot, size)) holes.push_back(kSharedPage);
            variants.push_back({fmt::format("slot-{}-{}", target, size), setup, holes, MostCuts(medium, size)});
        }
    }
    return variants;
}

std::vector<Variant> RescueEdges(Medium medium) {
    const Slot &slot = SlotsOf(medium).rescue;
    std::vector<Variant> variants;
    for (const std::uint32_t size : EdgeSizes(medium, slot, PageOf(medium))) {
        Situation setup{.medium = medium, .new_bootloader = false, .new_rescue = true, .rescue_bytes = size};
        if (size > slot.capacity) setup.fate = Fate::refused;
        variants.push_back({fmt::format("{}", size), setup, {}, MostCuts(medium, size)});
    }
    return variants;
}

// --- the holes

std::vector<Variant> Holes() {
    const Slot &nand_slot = SlotsOf(Medium::nand).bootloader[0];
    const Slot &flash_slot = SlotsOf(Medium::dataflash).bootloader[0];
    const NandFault worn{.kind = NandFault::erase_fails, .block = 1, .times = kForever};
    std::vector<Variant> holes = {
        {"no-slot-0", {.slots = {erased, running}, .bad_blocks = Blocks(2, kSlot1Block)}, {kPushedOn}},
        {"tail-into-slot-1",
         {.slots = {retired, running}, .update_bytes = nand_slot.capacity, .bad_blocks = {5}},
         {kPushedOn},
         4 * kSample},
        {"tail-into-rescue",
         {.slots = {running, retired}, .update_bytes = nand_slot.capacity, .bad_blocks = {20}},
         {kPushedOn},
         4 * kSample},
        {"worn-record", {.new_bootloader = false, .new_rescue = true, .nand_faults = {worn}}, {kWornRecord}},
        {"head-on-tail",
         {.medium = Medium::dataflash, .slots = {running, erased}, .running_bytes = flash_slot.capacity},
         {kSharedPage},
         kSample},
        {"banks-fight-nand", {.banks_fight = true}, {kTwoBanksFight}, kSample},
        {"banks-fight-dataflash", {.medium = Medium::dataflash, .banks_fight = true}, {kTwoBanksFight}, kSample},
    };
    // In these the update itself runs into its neighbours: that is the hole, not a finding.
    for (Variant &variant : holes) variant.setup.watches_slots = false;
    return holes;
}

constexpr unsigned kHostileBoards = 500;
constexpr std::string_view kAnotherBlock = ": another block is erased than the one that was meant";
constexpr std::string_view kMarkedByAccident = ": the new copy's block passes for bad";

// What is known to go wrong, where, and what comes of it.
struct Hole {
    std::string_view name;
    std::vector<Outcome> outcomes;
    bool uncut = false;               // the run without a cut ends so too, and then every cut of it may
    const char *chip = nullptr;       // that the cut has to strike; null: any
    std::vector<ByteRange> at = {};   // and where; empty: anywhere
    const char *said = "";            // part of what the judge says
    std::vector<CutMoment> left = {}; // what that cut has to leave; empty: anything
    std::vector<ByteRange> then = {}; // where a cut after it has to strike; empty: none need come
};

std::vector<Hole> MakeHoles() {
    using enum Outcome;
    const std::vector<CutMoment> unsure = {CutMoment::unstable, CutMoment::late};
    // A hole explains its own damage and no other: any further outcome is a finding, in its variants too.
    std::vector<Hole> holes = {
        {kPushedOn, {no_bootloader, wrong_rescue}, true},
        {kWornRecord, {no_bootloader, wrong_rescue}, true},
        // The pages that two slots share, and the page that is rewritten to retire slot 0.
        {kSharedPage, {no_bootloader, wrong_rescue}, false, "DataFlash", {{0x203E20, 0x204240}, {0x403E60, 0x404280}}},
        // The last pages of the images that fit slot 1 alone.
        {kFitsOneSlot, {wrong_bootloader}, false, "DataFlash", {{0x7FE0, 0x8400}, {0x3FFBE0, 0x404280}}},
        {kNoMark, {wrong_rescue}, true},
        // Each loss in the middle of the mark costs one of the programs that a page bears.
        {kMarkTornOften, {violation}, false, "NAND", {}, "page 0 programmed too often without an erase"},
        // The pages of the record that the checksum is over.
        {kEqualSum, {wrong_parameters}, false, "EEPROM", {{0, 0x20}}},
        {kFailingNand, {no_bootloader}, true},
        {kOtherVersion, {reset_loop}, true},
        {kTwoBanksFight, {reset_loop}, true},
        {kLatePage, {wrong_parameters}, false, "EEPROM", {}, "", {CutMoment::late}},
        {kRotten, {no_bootloader, wrong_rescue, wrong_parameters}, true},
    };
    for (const Medium medium : {Medium::nand, Medium::dataflash}) {
        const char *chip = medium == Medium::nand ? "NAND" : "DataFlash";
        const SlotTable &slots = SlotsOf(medium);
        const auto range_of = [medium](const Slot &place) {
            // An operation is known by where its page begins.
            const std::uint32_t page = PageOf(medium);
            return std::vector<ByteRange>{{place.address / page * page, place.address + place.capacity}};
        };
        holes.push_back({kTwoWhole,
                         {no_bootloader},
                         false,
                         chip,
                         range_of(slots.bootloader[1]),
                         "",
                         unsure,
                         range_of(slots.bootloader[0])});
        holes.push_back({kOldReturns, {restless}, false, chip, {}, "", unsure});
        holes.push_back({kOldReturns, {wrong_bootloader}, false, chip, {}, kStillOld, unsure});
        holes.push_back({kUnsureRecord, {wrong_rescue}, false, chip, range_of(slots.record), "", unsure});
    }
    return holes;
}

} // namespace

std::vector<Variant> HostileBoards(unsigned count) {
    std::vector<Variant> variants;
    for (unsigned seed = 1; seed <= count; ++seed)
        // Two cuts a board: the time is better spent on other boards.
        variants.push_back({fmt::format("{}", seed), {.hostile = seed}, {}, 2});
    return variants;
}

bool HoleTakes(std::string_view hole, const Judgement &judgement, const Struck &struck) {
    static const std::vector<Hole> kHoles = MakeHoles();
    const auto within = [](const std::vector<ByteRange> &ranges, std::uint32_t address) {
        return ranges.empty() || std::any_of(ranges.begin(), ranges.end(), [=](const ByteRange &range) {
                   return range.begin <= address && address < range.end;
               });
    };
    const auto takes = [&](const Hole &known) {
        if (known.name != hole) return false;
        if (std::find(known.outcomes.begin(), known.outcomes.end(), judgement.outcome) == known.outcomes.end())
            return false;
        if (judgement.detail.find(known.said) == std::string::npos) return false;
        if (struck.uncut) return known.uncut;
        const std::vector<ChipOperation> &cuts = struck.operations;
        const auto strikes = [&](const ChipOperation &cut, const std::vector<ByteRange> &ranges) {
            return (!known.chip || std::string_view(known.chip) == cut.chip) && within(ranges, cut.address);
        };
        if (known.left.empty())
            return std::any_of(cuts.begin(), cuts.end(), [&](const auto &cut) { return strikes(cut, known.at); });
        // The cut that left such cells, and the one after it.
        for (std::size_t n = 0; n < struck.moments.size(); ++n) {
            if (std::find(known.left.begin(), known.left.end(), struck.moments[n]) == known.left.end()) continue;
            if (!strikes(cuts.at(n), known.at)) continue;
            if (known.then.empty() || (n + 1 < cuts.size() && strikes(cuts[n + 1], known.then))) return true;
        }
        return false;
    };
    return std::any_of(std::begin(kHoles), std::end(kHoles), takes);
}

std::string AstrayHole(Outcome outcome, std::string_view routine) {
    static constexpr std::pair<std::string_view, std::string_view> kMisled[] = {
        // Where what is left to write is counted, a short write runs on over the slots.
        {"NandFlash_Write", kAnotherBlock},
        {"__aeabi_uidivmod", kAnotherBlock},
        // Where a mark is read, the record's block passes for bad, and the record is written to the next one.
        {"CheckBlock", kAnotherBlock},
        {"NandBus_Take8", kAnotherBlock},
        // Where the bytes of a page are counted, those of the next one follow into its spare bytes, where the mark is.
        {"NandBus_Give8", kMarkedByAccident}};
    switch (outcome) {
    case Outcome::wrong_rescue:
    case Outcome::wrong_parameters:
    case Outcome::outside:
    case Outcome::restless: return kAstrayHarm;
    default: break;
    }
    const auto *const known = std::find_if(std::begin(kMisled), std::end(kMisled),
                                           [&](const auto &misled) { return misled.first == routine; });
    const bool misled = outcome == Outcome::no_bootloader && known != std::end(kMisled);
    return fmt::format("an instruction left out in {}{}", routine, misled ? known->second : "");
}

bool IsKnownAstray(std::string_view hole) {
    return hole == kAstrayHarm || hole.ends_with(kAnotherBlock) || hole.ends_with(kMarkedByAccident);
}

std::vector<Scenario> AllScenarios(const SweepFirmware &firmware) {
    // In the order of --list and of every table.
    const Medium nand = Medium::nand;
    const Medium flash = Medium::dataflash;
    return {
        {"nand-update", "bootloader update on NAND, from every state of the two slots", Updates(nand)},
        {"dataflash-update", "bootloader update on DataFlash, from every state of the two slots", Updates(flash)},
        {"nand-rescue", "rescue update on NAND", RescueUpdates(nand)},
        {"dataflash-rescue", "rescue update on DataFlash", RescueUpdates(flash)},
        {"nand-both", "rescue and bootloader update in one boot on NAND", BothUpdates(nand)},
        {"dataflash-both", "rescue and bootloader update in one boot on DataFlash", BothUpdates(flash)},
        {"nand-refused", "updates that are refused on NAND", Refusals(nand)},
        {"dataflash-refused", "updates that are refused on DataFlash", Refusals(flash)},
        {"parameters", "parameter commit from either sector to the other", Parameters()},
        {"nand-factory-bad", "updates with factory-bad blocks inside the slots", FactoryBad()},
        {"nand-worn", "updates during which a block goes bad", Worn()},
        {"nand-wrong-page", "update with a page that silently keeps wrong bits, each in turn", WrongPages(firmware)},
        {"dataflash-lost-program", "update with a DataFlash that loses one program, each in turn",
         LostPrograms(firmware)},
        {"nand-no-room", "update with every further block bad", NoRoom()},
        {"nand-edge", "bootloaders that end at an edge on NAND", BootloaderEdges(nand)},
        {"dataflash-edge", "bootloaders that end at an edge on DataFlash", BootloaderEdges(flash)},
        {"nand-rescue-edge", "rescue images that end at an edge on NAND", RescueEdges(nand)},
        {"dataflash-rescue-edge", "rescue images that end at an edge on DataFlash", RescueEdges(flash)},
        {"holes", "where the layout of the flash, or the rule of updates, leaves a hole", Holes()},
        {"nand-rot", "a flipped bit in each page of what a NAND board has once", Rotten(nand, firmware)},
        {"dataflash-rot", "a flipped bit in each page of what a DataFlash board has once", Rotten(flash, firmware)},
        {"parameters-rot", "a flipped bit in each page of the only parameter sector", RottenParameters()},
        {"hostile", "hostile boards: random chips, files and faults", HostileBoards(kHostileBoards)},
    };
}

std::vector<Scenario> FindScenarios(const std::vector<std::string> &names, const SweepFirmware &firmware) {
    const std::vector<Scenario> all = AllScenarios(firmware);
    std::vector<Scenario> found;
    for (const std::string &name : names) {
        const std::string scenario = name.substr(0, name.find('/'));
        const auto has_name = [&](const Scenario &s) { return s.name == scenario; };
        const auto row = std::find_if(all.begin(), all.end(), has_name);
        if (row == all.end())
            throw Refusal(Fault::call, {"no-such-case", scenario, "no such scenario", "one of `fixture sweep --list`"});
        std::vector<Variant> variants = row->variants;
        if (scenario != name)
            std::erase_if(variants, [&](const Variant &v) { return v.label != name.substr(scenario.size() + 1); });
        if (variants.empty())
            throw Refusal(Fault::call, {"no-such-case", name, "no such variant", "one of `fixture sweep --list`"});
        const auto before = std::find_if(found.begin(), found.end(), has_name);
        // Several variants of one scenario make one row of the tables.
        if (before == found.end())
            found.push_back({row->name, row->summary, variants});
        else
            before->variants.insert(before->variants.end(), variants.begin(), variants.end());
    }
    return found;
}

World MakeWorld(const std::string &scenario, const Variant &variant, std::uint64_t seed,
                const SweepFirmware &firmware) {
    World world = MakeWorld(variant.setup, firmware);
    // From the names, so that a variant keeps its noise when others are added beside it.
    for (const char c : scenario + "/" + variant.label) seed = NoiseSource(seed, static_cast<unsigned char>(c))();
    world.board.seed = seed;
    world.board.slow_chips = seed % 2 != 0;
    return world;
}

World WorldOf(const CaseId &id, const SweepFirmware &firmware) {
    const std::vector<Scenario> scenarios = FindScenarios({id.scenario + "/" + id.variant}, firmware);
    return MakeWorld(id.scenario, scenarios.front().variants.front(), id.seed, firmware);
}

Judgement RunCase(const CaseId &id, ProcessorKind processor, const SweepFirmware &firmware) {
    const World world = WorldOf(id, firmware);
    Sweeper sweeper(world, processor, firmware);
    if (!id.skipped) return sweeper.run(id.cuts);
    Sweeper arm(world, ProcessorKind::arm, firmware);
    Skips skips(arm, world);
    return sweeper.judge_astray(skips.leave_out(skips.find(*id.skipped)));
}

} // namespace fixture
