#include "sweep/case.h"
#include "machine/raw_flash.h"

#include "formats/parameter_store.h"
#include "machine/first_stage.h"
#include "sweep/chips_compare.h"
#include "sweep/foretold.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

namespace {

// Two would do for an update (store and reset, then launch); two more let a board repair what a cut left half-way.
constexpr unsigned kMostBoots = 4;
constexpr char kMoments[] = {'b', 't', 'a', 'u', 'l', 's', 'o'}; // by CutMoment
static_assert(std::size(kMoments) == static_cast<std::size_t>(CutMoment::brownout) + 1);

bool HasWays(CutMoment moment) { return moment != CutMoment::before && moment != CutMoment::after; }

std::string NameOf(const Cut &cut) {
    std::string name = fmt::format("{}{}", cut.operation, kMoments[static_cast<unsigned>(cut.moment)]);
    return cut.way == 1 ? name : fmt::format("{}.{}", name, cut.way);
}

template <typename Number> bool TakeNumber(std::string_view &text, Number &number) {
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number);
    if (end.ec != std::errc{}) return false;
    text.remove_prefix(static_cast<std::size_t>(end.ptr - text.data()));
    return true;
}

bool Take(std::string_view &text, char expected) {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(1);
    return true;
}

bool TakeCut(std::string_view &text, Cut &cut) {
    if (!TakeNumber(text, cut.operation) || text.empty()) return false;
    const char *moment = std::find(std::begin(kMoments), std::end(kMoments), text.front());
    if (moment == std::end(kMoments)) return false;
    cut.moment = static_cast<CutMoment>(moment - kMoments);
    text.remove_prefix(1);
    if (!Take(text, '.')) return true;
    // Way 1 is written without a suffix, so that every case has exactly one name.
    return HasWays(cut.moment) && TakeNumber(text, cut.way) && cut.way > 1;
}

bool Disturbed(const Chips &chips) {
    return chips.nand.disturbed() || chips.dataflash.disturbed() || !chips.eeprom.unstable.empty();
}

FlashReader ReaderFor(const World &world, const Chips &chips) {
    return world.medium == Medium::nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
}

Bytes GoodImage(const FlashReader &read, const Slot &slot) {
    StoredImage image = ReadSlot(read, slot);
    return image.verdict() == ImageVerdict::good ? std::move(image.bytes) : Bytes{};
}

// The first bootloader that is good whichever way unstable cells read. One that reads well at times may not do so when
// it is needed, and is no bootloader to count on.
std::optional<unsigned> BootloaderOf(const World &world, const Chips &chips) {
    if (!Disturbed(chips)) return ChooseBootloader(ReaderFor(world, chips), SlotsOf(world.medium));
    Chips other = chips;
    for (const auto &[row, unstable] : chips.nand.unstable()) {
        NandContents::Page page{};
        std::copy(unstable.also.begin(), unstable.also.end(), page.begin());
        other.nand.set_page(row, page);
    }
    for (const auto &[page, unstable] : chips.dataflash.unstable()) other.dataflash.set_page(page, unstable.also);
    const FlashReader read = ReaderFor(world, chips), read_other = ReaderFor(world, other);
    const SlotTable &slots = SlotsOf(world.medium);
    for (unsigned slot = 0; slot < slots.bootloader.size(); ++slot) {
        const Bytes image = GoodImage(read, slots.bootloader[slot]);
        if (!image.empty() && image == GoodImage(read_other, slots.bootloader[slot])) return slot;
    }
    return std::nullopt;
}

} // namespace

std::string NameOf(const CaseId &id) {
    std::string name = id.scenario + "/" + id.variant;
    if (id.skipped) name += fmt::format(":i{}", *id.skipped);
    for (std::size_t n = 0; n < id.cuts.size(); ++n) name += (n == 0 ? ":" : "+") + NameOf(id.cuts[n]);
    // Left out where it is 1: nearly all names are of the usual sweep.
    return id.seed == 1 ? name : fmt::format("{}~{}", name, id.seed);
}

std::optional<CaseId> ParseCase(std::string_view name) {
    const std::size_t slash = name.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    // No label contains either character.
    const std::size_t end = std::min(name.find_first_of(":~", slash), name.size());
    CaseId id{std::string(name.substr(0, slash)), std::string(name.substr(slash + 1, end - slash - 1)), {}, 1};
    name.remove_prefix(end);
    if (name.starts_with(":i")) {
        name.remove_prefix(2);
        if (!TakeNumber(name, id.skipped.emplace())) return std::nullopt;
    } else
        for (char before = ':'; Take(name, before); before = '+')
            if (!TakeCut(name, id.cuts.emplace_back())) return std::nullopt;
    if (Take(name, '~') && !TakeNumber(name, id.seed)) return std::nullopt;
    return name.empty() ? std::optional(id) : std::nullopt;
}

CutKinds KindsOf(std::string_view name) {
    struct Row {
        std::string_view name;
        CutMoment moment;
        unsigned ways;
    };
    // Ways: of reading, of decaying, of noise; a chip that has stopped answers as if it were not there, or as if idle.
    static constexpr Row kRows[] = {{"unstable", CutMoment::unstable, 3},
                                    {"late", CutMoment::late, 3},
                                    {"spoiled", CutMoment::spoiled, 2},
                                    {"brownout", CutMoment::brownout, 2}};
    CutKinds kinds;
    for (const Row &row : kRows)
        for (unsigned way = 1; row.name == name && way <= row.ways; ++way) kinds.push_back({row.moment, way});
    if (kinds.empty() && name != "plain")
        throw Refusal(Fault::call, {"no-such-case", std::string(name), "no kind of loss",
                                    "plain, unstable, late, spoiled or brownout"});
    return kinds.empty() ? kPlainCuts : kinds;
}

PowerCut PlanOf(const Cut &cut, const World &world) { return {cut.operation, cut.moment, world.board.seed, cut.way}; }

const char *NameOf(Outcome outcome) {
    static constexpr std::array kNames = {"good",
                                          "brick: no good bootloader",
                                          "brick: nothing launched",
                                          "wrong bootloader",
                                          "wrong launch",
                                          "wrong rescue image or record",
                                          "wrong parameters",
                                          "other flash changed",
                                          "violation",
                                          "hang",
                                          "fault",
                                          "resets without end",
                                          "changes chips though all is done",
                                          "not as foretold"};
    static_assert(kNames.size() == static_cast<std::size_t>(Outcome::not_foretold) + 1);
    return kNames[static_cast<std::size_t>(outcome)];
}

// What one power-up came to.
struct Sweeper::PowerUp {
    RunReport report;
    std::string console;
    std::string outside; // the first operation on flash that is none of the update's business
    Bytes launched;
    std::array<std::uint32_t, 4> network{};
    std::uint64_t operations = 0;
    bool fired = false;
    std::string difference; // from what was foretold
};

struct Sweeper::Watched {
    unsigned number;
    PowerUp power_up;
    Chips left;
};

Sweeper::Sweeper(const World &world, ProcessorKind processor, const SweepFirmware &firmware)
    : world_(world), processor_(processor), firmware_(firmware) {}

RunOptions Sweeper::options(const Chips &chips, unsigned number) const {
    RunOptions options;
    options.processor = processor_;
    options.known = &firmware_.known;
    options.slots = true;
    options.volume = *world_.volume;
    options.board = world_.board;
    // Cells between two levels read anew at each power-up. With one seed they would read alike at all of them.
    constexpr unsigned kWays = 1 << 16;
    if (Disturbed(chips)) options.board.seed = NoiseSource(world_.board.seed, std::uint64_t{number} * kWays + way_)();
    // What is launched is judged by its bytes in the load buffer. What it would do then is not the update's business.
    options.run_launched = false;
    return options;
}

bool Sweeper::may_touch(const ChipOperation &operation) const {
    const std::string_view chip = operation.chip;
    if (chip == "EEPROM") return world_.commits;
    // The chip that the board does not boot from is none of the update's business.
    if ((chip == "NAND") != (world_.medium == Medium::nand)) return false;
    // An operation concerns a whole block or page, whatever part of it was addressed.
    const std::uint32_t unit = chip == "NAND" ? kNandBlockBytes : world_.chips.dataflash.part().page_bytes;
    const std::uint32_t begin = operation.address / unit * unit;
    return std::any_of(world_.touched.begin(), world_.touched.end(),
                       [=](const ByteRange &range) { return begin < range.end && range.begin < begin + unit; });
}

// Changes and commits the parameters, as a task of the running system does through the two-wire device.
RunReport Sweeper::commit(Machine &machine) const {
    // SDRAM that neither the image nor the load buffer uses.
    constexpr std::uint32_t kScratch = 0x22000000;
    // The device takes a pointer into the board's memory, so the data must lie there and not in this program.
    const std::span<std::uint8_t> scratch = machine.board().memory.memory().at(kScratch, 16);
    StageResult end = machine.start();
    const auto call = [&](const char *routine, std::vector<std::uint32_t> arguments) {
        std::uint32_t result = 0;
        // After a power cut, or a fault, no further routine is called: `end` keeps what ended the commit.
        if (end.end == StageEnd::stopped_at) end = machine.call(routine, arguments, result);
        if (result != 0) throw std::runtime_error(fmt::format("{} gives {}", routine, result));
    };
    const auto set = [&](std::uint32_t identifier, std::span<const std::uint8_t> data) {
        if (end.end != StageEnd::stopped_at) return;
        std::copy(data.begin(), data.end(), scratch.begin());
        call("WriteEEpromParameter", {identifier, kScratch, static_cast<std::uint32_t>(data.size())});
    };
    for (std::uint32_t n = 0; n < world_.after.network.size(); ++n) {
        std::array<std::uint8_t, 4> bytes;
        for (unsigned i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(world_.after.network[n] >> (24 - 8 * i));
        set(9 + n, bytes);
    }
    if (!world_.more.empty()) set(kMoreParameter, world_.more);
    call("CommitBuffer", {});
    RunReport report;
    report.verdict = end.end == StageEnd::stopped_at   ? Verdict::idle
                     : end.end == StageEnd::power_lost ? Verdict::power_lost
                                                       : Verdict::fault;
    report.place = end.place;
    const std::vector<JournalEntry> &violations = machine.board().journal.violations();
    // A driver that was stopped in the middle may well have left a command unfinished: no fault of its own.
    if (violations.empty() || report.verdict == Verdict::power_lost) return report;
    report.verdict = Verdict::violation;
    report.place = violations.front().where + ": " + violations.front().what;
    return report;
}

RunReport Sweeper::run(Machine &machine, unsigned number) const {
    return number == 0 && world_.commits ? commit(machine) : machine.run();
}

Sweeper::PowerUp Sweeper::power_up(Chips &chips, unsigned number, const std::function<void(Machine &)> &prepare) {
    return power_up(chips, number, options(chips, number), prepare, {});
}

Sweeper::PowerUp Sweeper::power_up(Chips &chips, unsigned number, RunOptions options,
                                   const std::function<void(Machine &)> &prepare,
                                   const std::function<void(Machine &)> &done) {
    PowerUp result;
    options.console = [&result](char c) { result.console += c; };
    Machine machine(chips, options);
    PowerSupply &supply = machine.board().supply;
    supply.observer = [&](std::uint64_t, const ChipOperation &operation) {
        // Judged as it is made: a block that is erased and written back as it was would not show afterwards.
        if (!world_.hostile && result.outside.empty() && !may_touch(operation))
            result.outside = fmt::format("{} {} at 0x{:08X}", operation.chip, operation.kind, operation.address);
    };
    if (prepare) prepare(machine);
    ++boots;
    // Only whole boots are foretold: a prediction knows no cut, and no commit by a running system.
    const bool boots_uncut = !prepare && !(number == 0 && world_.commits);
    std::optional<Foretold> foretold;
    // Nor does it know which way a cell between two levels will read.
    if (foretells && boots_uncut && !Disturbed(chips) && Foretold::possible(world_))
        foretold.emplace(world_, chips, firmware_.known);
    result.report = run(machine, number);
    if (foretold) {
        ++foretold_boots;
        result.difference = foretold->compare(result.report, result.console, machine.board().memory.memory(), chips);
    }
    if (done) done(machine);
    result.operations = supply.operations();
    result.fired = supply.fired();
    // The buffers below are filled for a launch. Without one they hold whatever was there before.
    if (result.report.verdict != Verdict::launched) return result;
    const auto image = machine.board().memory.memory().at(kLoadBuffer, result.report.launched_bytes);
    result.launched.assign(image.begin(), image.end());
    // Read out of the image's memory by its symbol: what the bootloader hands over, not what the store holds.
    const void *network = machine.object("NetDevs");
    if (network) std::memcpy(result.network.data(), network, sizeof result.network);
    if (foretold && result.difference.empty() && network && result.network != foretold->prediction().network)
        result.difference = fmt::format("network {:08X} foretold", fmt::join(foretold->prediction().network, " "));
    return result;
}

void Sweeper::boot(Chips &chips, unsigned number) { power_up(chips, number, {}); }

RunReport Sweeper::first_start(Chips &chips, const std::function<void(Machine &)> &prepare,
                               const std::function<void(Machine &)> &done) {
    RunOptions options = this->options(chips, 0);
    // What follows a reset is a boot like any other; whoever wants it boots these chips.
    options.most_resets = 1;
    return power_up(chips, 0, std::move(options), prepare, done).report;
}

std::uint64_t Sweeper::digest(const Chips &chips) const { return DigestOf(chips, world_.chips); }

// --- what has to hold

bool Sweeper::check_choice(const Chips &chips, Judgement &judgement) const {
    const FlashReader read = ReaderFor(world_, chips);
    const SlotTable &slots = SlotsOf(world_.medium);
    const std::optional<unsigned> slot = BootloaderOf(world_, chips);
    judgement.outcome = Outcome::no_bootloader;
    if (!slot) return false;
    const Bytes chosen = ReadSlot(read, slots.bootloader[*slot]).bytes;
    judgement.outcome = Outcome::wrong_bootloader;
    judgement.detail = fmt::format("slot {} is chosen, with neither the old nor the new image", *slot);
    // Either is right at any moment: which one it is depends on how far the update came.
    if (chosen != world_.before.bootloader && chosen != world_.after.bootloader) return false;
    judgement.outcome = Outcome::good;
    judgement.detail.clear();
    return true;
}

// Neighbours in a DataFlash page can be lost to a cut, or to a chip that loses what it programs; to nothing else.
bool Sweeper::check_outside(const Chips &chips, Judgement &judgement, bool was_cut) const {
    // A page is rewritten as a whole. Without a cut, and with a sound chip, it gets its neighbours back.
    const bool may_lose_neighbours = was_cut || !world_.chips.dataflash.faults.empty();
    std::string changed;
    if (!world_.commits && chips.eeprom.bytes != world_.chips.eeprom.bytes) changed = "EEPROM";
    const auto inside = [this](std::uint32_t address) {
        return std::any_of(world_.touched.begin(), world_.touched.end(),
                           [=](const ByteRange &range) { return address >= range.begin && address < range.end; });
    };
    // Both chips are looked at, also the one that this board does not start from: nothing may be written there.
    ForEachChangedBlock(chips.nand, world_.chips.nand, [&](std::uint32_t block) {
        if (world_.medium != Medium::nand || !inside(block * kNandBlockBytes))
            changed = fmt::format("NAND block {}", block);
    });
    const std::uint32_t page_bytes = chips.dataflash.part().page_bytes;
    ForEachChangedPage(chips.dataflash, world_.chips.dataflash, [&](std::uint32_t page) {
        bool any_inside = false;
        bool any_outside = false;
        for (std::uint32_t n = 0; n < page_bytes; ++n) {
            const bool in = world_.medium == Medium::dataflash && inside(page * page_bytes + n);
            any_inside |= in;
            any_outside |= !in && chips.dataflash.page(page)[n] != world_.chips.dataflash.page(page)[n];
        }
        if (!any_outside) return;
        if (any_inside && may_lose_neighbours)
            judgement.neighbour = true;
        else
            changed = fmt::format("DataFlash page {}", page);
    });
    if (changed.empty()) return true;
    judgement.outcome = Outcome::outside;
    judgement.detail = changed;
    return false;
}

// A block that is marked bad is lost for good. Where nothing is wrong with the chip, none may be.
bool Sweeper::check_marks(const Chips &chips, Judgement &judgement) const {
    if (!world_.chips.nand.faults.empty()) return true;
    for (std::uint32_t block = 0; block < kNandBlocks; ++block) {
        if (!chips.nand.marked_bad(block) || world_.chips.nand.marked_bad(block)) continue;
        judgement.outcome = Outcome::outside;
        judgement.detail = fmt::format("NAND block {} is marked bad, and is not", block);
        return false;
    }
    return true;
}

void Sweeper::check_rescue_gap(const Chips &chips, Judgement &judgement) const {
    if (world_.before.rescue.empty()) return;
    judgement.rescue_gap = GoodImage(ReaderFor(world_, chips), SlotsOf(world_.medium).rescue).empty();
}

// Only a cut may leave something as it was: parameters at once, rescue image and record up to the last boot.
bool Sweeper::settled(const Chips &chips, const PowerUp &last, Judgement &judgement, When when) const {
    const FlashReader read = ReaderFor(world_, chips);
    const SlotTable &slots = SlotsOf(world_.medium);
    const auto fails = [&](Outcome outcome, std::string detail) {
        judgement.outcome = outcome;
        judgement.detail = std::move(detail);
        return false;
    };
    // By content: the right file name may stand for the wrong bytes.
    if (last.launched != world_.after.application)
        return fails(Outcome::wrong_launch, fmt::format("{} of {} bytes", last.report.launched, last.launched.size()));
    const std::optional<unsigned> slot = BootloaderOf(world_, chips);
    if (!slot) return fails(Outcome::no_bootloader, "");
    const Bytes chosen = ReadSlot(read, slots.bootloader[*slot]).bytes;
    // Where a worn block keeps the update out, it is out; a cut may change that.
    const bool is_old = world_.may_stay && chosen == world_.before.bootloader;
    const bool is_new = (!world_.may_stay || when.was_cut) && chosen == world_.after.bootloader;
    if (!is_old && !is_new)
        return fails(
            Outcome::wrong_bootloader,
            fmt::format("{} in slot {}", chosen == world_.before.bootloader ? kStillOld : "another one", *slot));
    const Bytes rescue = GoodImage(read, slots.rescue);
    const Bytes text = read(slots.record.address, slots.record.capacity);
    const auto stands = [&](const Expected &expected) {
        // A cut may leave anything after the end of a text: the bootloader looks no further either.
        return rescue == expected.rescue &&
               (text == expected.record || (when.was_cut && SaysTheSame(text, expected.record)));
    };
    if (!stands(world_.after) && !(when.was_cut && when.last_boot && stands(world_.before)))
        return fails(Outcome::wrong_rescue, rescue.empty() ? "no good rescue image" : "rescue image and record differ");
    const StoreReport store = ReadStore(chips.eeprom.bytes);
    const auto has = [&](const Expected &expected) {
        return last.network == expected.network && store.current &&
               store.sectors[*store.current].parameters == expected.parameters;
    };
    // From two sides: what the bootloader hands to the application, and what the store would give the next start.
    if (!has(world_.after) && !(when.was_cut && has(world_.before)))
        return fails(Outcome::wrong_parameters, fmt::format("{:08X}", fmt::join(last.network, " ")));
    judgement.outcome = Outcome::good;
    judgement.detail.clear();
    return true;
}

// --- the boots

// One cold boot, with what is wrong with it whatever the board is. One that was watched is not made again.
Sweeper::PowerUp Sweeper::boot_once(Chips &chips, unsigned number, Judgement &judgement, const Watched *watched) {
    PowerUp last = watched ? watched->power_up : power_up(chips, number, {});
    if (watched) chips = watched->left;
    ++judgement.boots;
    judgement.console += last.console;
    judgement.chips = digest(chips);
    judgement.detail = last.report.place;
    switch (last.report.verdict) {
    case Verdict::violation: judgement.outcome = Outcome::violation; break;
    case Verdict::hang: judgement.outcome = Outcome::hang; break;
    case Verdict::fault: judgement.outcome = Outcome::fault; break;
    case Verdict::reset_loop: judgement.outcome = Outcome::reset_loop; break;
    case Verdict::no_bootloader: judgement.outcome = Outcome::no_bootloader; break;
    // Launched or idle. Whether that is right depends on the world, so it is not judged here.
    default: break;
    }
    if (last.difference.empty()) return last;
    judgement.outcome = Outcome::not_foretold;
    judgement.detail = last.difference;
    return last;
}

Judgement Sweeper::boot_hostile(Chips chips, unsigned number) {
    // The first may update, the second must get along with the result. More would be the same again.
    constexpr unsigned kBoots = 2;
    // Faults drawn at random can spoil both slots; then nobody can start. Only chips without faults must.
    const bool failing = world_.medium == Medium::nand && !world_.chips.nand.faults.empty();
    Judgement judgement;
    for (unsigned boot = 0; boot < kBoots && judgement.outcome == Outcome::good; ++boot) {
        const PowerUp last = boot_once(chips, number + boot, judgement);
        if (judgement.outcome == Outcome::no_bootloader && failing) judgement.hole = kFailingNand;
        // A bank whose version text is not its bootloader's is stored at every start, by design.
        const bool updates = last.console.find(" header at address ") != std::string::npos;
        if (judgement.outcome == Outcome::reset_loop && updates) judgement.hole = kOtherVersion;
    }
    return judgement;
}

// What is good has to stay so: an update made once more, a slot retired late, would show in later boots alone. Without
// a cut a boot depends on the chips, so chips that were steady once are so for good.
bool Sweeper::stays(Chips chips, unsigned number, Judgement &judgement, When when) {
    constexpr unsigned kMoreBoots = 2;
    const std::uint64_t key = digest(chips);
    if (!Disturbed(chips) && steady_.contains(key)) return true;
    Judgement more;
    for (unsigned boot = 0; boot < kMoreBoots && more.outcome == Outcome::good; ++boot) {
        const PowerUp last = boot_once(chips, number + boot, more);
        if (more.outcome != Outcome::good || !check_choice(chips, more)) break;
        if (last.report.verdict != Verdict::launched)
            more.outcome = Outcome::no_launch;
        else if (settled(chips, last, more, when) && last.operations != 0 && !world_.tries_again)
            more.outcome = Outcome::restless;
    }
    if (more.outcome == Outcome::good) return steady_.insert(key).second;
    judgement.outcome = more.outcome;
    judgement.detail = more.detail;
    return false;
}

Judgement Sweeper::boot_on(Chips chips, unsigned number, const Watched *watched, bool astray) {
    if (world_.hostile) return boot_hostile(std::move(chips), number);
    Judgement judgement;
    const bool was_cut = number > 0;
    check_rescue_gap(chips, judgement);
    if (!astray && !check_outside(chips, judgement, was_cut)) return judgement;
    for (unsigned boot = 0; boot < kMostBoots; ++boot) {
        // Before every boot, not at the end alone: a board that has no good bootloader at any moment is lost if the
        // power goes then, whatever a later boot would have done.
        if (!check_choice(chips, judgement)) return judgement;
        const PowerUp last = boot_once(chips, number + boot, judgement, boot == 0 ? watched : nullptr);
        if (!astray && !last.outside.empty()) {
            judgement.outcome = Outcome::outside;
            judgement.detail = last.outside;
        }
        if (judgement.outcome != Outcome::good || (!astray && !check_outside(chips, judgement, was_cut)))
            return judgement;
        // Stands if the boots run out.
        judgement.outcome = Outcome::no_launch;
        const bool last_boot = boot + 1 == kMostBoots;
        const When when{.was_cut = was_cut, .last_boot = last_boot};
        if (last.report.verdict == Verdict::launched && settled(chips, last, judgement, when)) {
            if (was_cut || check_marks(chips, judgement)) stays(chips, number + boot + 1, judgement, when);
            return judgement;
        }
    }
    return judgement;
}

Judgement Sweeper::judge(const Chips &chips, unsigned number, unsigned way) {
    way_ = way;
    // Chips that were met before end as they did before. Not the first power-up, which a commit may make another one;
    // nor chips whose cells read differently each time.
    if (number == 0 || !remember || Disturbed(chips)) return boot_on(chips, number);
    const std::uint64_t key = digest(chips);
    const auto met = met_.find(key);
    if (met != met_.end()) return met->second;
    return met_[key] = boot_on(chips, number);
}

Judgement Sweeper::judge_watched(const Chips &chips, unsigned number) {
    // One that committed is no boot as a judge makes it.
    return watched_->number == number ? boot_on(chips, number, watched_.get()) : judge(chips, number);
}

Judgement Sweeper::judge_astray(const Chips &chips) {
    const std::uint64_t key = digest(chips);
    const auto met = met_.find(key);
    if (met != met_.end()) return met->second;
    Judgement judgement = boot_on(chips, 1, nullptr, true);
    if (judgement.outcome == Outcome::good) check_outside(chips, judgement, true);
    return met_[key] = judgement;
}

const Judgement &Sweeper::uncut() {
    if (!uncut_) uncut_ = judge(world_.chips, 0);
    return *uncut_;
}

// A task whose commit was cut commits again once the board is up.
unsigned Sweeper::to_cut(const Chips &chips, unsigned number) const {
    if (!world_.commits) return number;
    const StoreReport store = ReadStore(chips.eeprom.bytes);
    // Once the new parameters stand there is nothing to commit, and the board boots as any other.
    const bool done = store.current && store.sectors[*store.current].parameters == world_.after.parameters;
    return done ? std::max(number, 1u) : 0;
}

void Sweeper::watch(Chips &chips, unsigned number, const decltype(PowerSupply::interceptor) &interceptor) {
    number = to_cut(chips, number);
    PowerUp last = power_up(chips, number, [&](Machine &machine) { machine.board().supply.interceptor = interceptor; });
    watched_ = std::make_shared<const Watched>(Watched{number, std::move(last), chips});
}

std::uint64_t Sweeper::count(Chips chips, unsigned number, unsigned way) {
    way_ = way;
    return power_up(chips, to_cut(chips, number), {}).operations;
}

std::uint64_t Sweeper::operations() {
    if (!operations_) operations_ = count(world_.chips, 0);
    return *operations_;
}

std::vector<Snapshot> Sweeper::take_snapshots(const Chips &start, unsigned number,
                                              const std::function<bool(const Cut &)> &wanted, const CutKinds &kinds,
                                              unsigned way) {
    way_ = way;
    Chips chips = start;
    std::vector<Snapshot> snapshots;
    const auto before_operation = [&](PowerSupply &supply, std::uint64_t index, const ChipOperation &operation,
                                      const std::function<void(Random &)> &torn) {
        for (const CutKind &kind : kinds) {
            const Cut cut{index, kind.moment, kind.way};
            if (kind.moment == CutMoment::after || !wanted(cut)) continue;
            // Chips share their pages, so that going back costs what the operation touched.
            const Chips before = chips;
            if (kind.moment != CutMoment::before && kind.moment != CutMoment::brownout) {
                Random random = TearingOf(operation, world_.board.seed, cut.way);
                supply.tear_as(kind.moment);
                torn(random);
            }
            snapshots.push_back({cut, chips, operation});
            chips = before;
        }
    };
    power_up(chips, to_cut(chips, number), [&](Machine &machine) {
        PowerSupply &supply = machine.board().supply;
        supply.interceptor = [&](std::uint64_t index, const ChipOperation &operation,
                                 const std::function<void()> &whole, const std::function<void(Random &)> &torn) {
            before_operation(supply, index, operation, torn);
            whole();
            for (const CutKind &kind : kinds)
                if (const Cut cut{index, kind.moment}; kind.moment == CutMoment::after && wanted(cut))
                    snapshots.push_back({cut, chips, operation});
        };
    });
    return snapshots;
}

Chips Sweeper::cut(const std::vector<Cut> &path) {
    Chips chips = world_.chips;
    for (std::size_t n = 0; n < path.size(); ++n) {
        // The cut before this one says how its cells read now.
        way_ = n == 0 ? 1 : path[n - 1].way;
        // Not by way of snapshots, which this is there to confirm.
        const PowerUp last = power_up(chips, to_cut(chips, static_cast<unsigned>(n)),
                                      [&](Machine &machine) { machine.board().supply.plan(PlanOf(path[n], world_)); });
        // A case that cuts nothing would pass for ever.
        // A program may be done before the last of the power has gone.
        const bool ends = last.report.verdict == Verdict::power_lost || path[n].moment == CutMoment::brownout;
        if (!last.fired || !ends)
            throw Refusal(Fault::call, {"no-such-case", "the cut at " + NameOf(path[n]), "does not come",
                                        fmt::format("one of {} operations", last.operations)});
        way_ = path[n].way;
    }
    return chips;
}

Judgement Sweeper::run(const std::vector<Cut> &cuts) {
    return judge(cut(cuts), static_cast<unsigned>(cuts.size()), cuts.empty() ? 1 : cuts.back().way);
}

} // namespace fixture
