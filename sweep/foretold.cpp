#include "sweep/foretold.h"

#include "machine/first_stage.h"
#include "machine/raw_flash.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <utility>
#include <vector>

namespace fixture {

namespace {

RawFlash FlashOf(Medium medium, Chips &chips) {
    return medium == Medium::nand ? RawFlashOf(chips.nand) : RawFlashOf(chips.dataflash);
}

std::string WithoutBadBlocks(std::string text) {
    constexpr std::pair<std::string_view, std::string_view> kForms[] = {{"Bad block at address ", "\n"},
                                                                        {"Block ", " is marked as bad...\n"}};
    for (const auto &[before, after] : kForms)
        for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
            const std::size_t digits = at + before.size(), end = digits + 8;
            if (text.find_first_not_of("0123456789ABCDEF", digits) == end &&
                text.compare(end, after.size(), after) == 0)
                text.erase(at, end + after.size() - at);
            else
                at = digits;
        }
    return text;
}

// What each start printed from its search for a bank on, without what is said of bad blocks.
std::vector<std::string> Searches(const std::string &console) {
    constexpr std::string_view kStart = "Secondary Bootloader ver";
    constexpr std::string_view kSearch = "\tFind valid bank...\n";
    std::vector<std::string> searches;
    for (std::size_t at = console.find(kStart); at != std::string::npos;) {
        const std::size_t next = console.find(kStart, at + 1);
        const std::string start = console.substr(at, next - at);
        const std::size_t search = start.find(kSearch);
        searches.push_back(search == std::string::npos ? "" : WithoutBadBlocks(start.substr(search + kSearch.size())));
        at = next;
    }
    return searches;
}

std::vector<std::string> Searches(const Prediction &prediction) {
    std::vector<std::string> searches;
    for (const BootStep &step : prediction.steps) {
        if (step.start > searches.size()) searches.emplace_back();
        if (!searches.empty()) searches.back() += step.console;
    }
    return searches;
}

Verdict VerdictOf(BootEnd end) {
    switch (end) {
    case BootEnd::application:
    case BootEnd::rescue: return Verdict::launched;
    case BootEnd::nothing: return Verdict::idle;
    case BootEnd::loop: return Verdict::reset_loop;
    default: return Verdict::no_bootloader;
    }
}

std::string CompareSlots(const RawFlash &told, const RawFlash &real) {
    const SlotTable &slots = SlotsOf(told.medium);
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue})
        if (ReadSlot(told.read, slot).bytes != ReadSlot(real.read, slot).bytes) return slot.name;
    const Slot &record = slots.record;
    return told.read(record.address, record.capacity) == real.read(record.address, record.capacity) ? "" : record.name;
}

} // namespace

bool Foretold::possible(const World &world) {
    // A prediction reads the chips once. A fault that strikes while they are written is beyond it.
    return world.chips.nand.faults.empty() && world.chips.dataflash.faults.empty();
}

Foretold::Foretold(const World &world, const Chips &chips, const KnownFirmware &known)
    : medium_(world.medium), chips_(chips) {
    // No options of this run but those that a prediction goes by.
    RunOptions options;
    options.known = &known;
    options.board = world.board;
    options.volume = *world.volume;
    // On a copy of the chips, which then holds what the board should leave behind.
    prediction_ = Forecast(chips_, options);
}

std::string Foretold::compare(const RunReport &report, const std::string &console, const Memory &memory,
                              const Chips &chips) const {
    const Prediction &told = prediction_;
    if (report.verdict != VerdictOf(told.end))
        return fmt::format("\"{}\" foretold, {} {}", told.reason, VerdictName(report.verdict), report.place);
    const std::vector<std::string> expected = Searches(told);
    std::vector<std::string> printed = Searches(console);
    // The run goes round a loop until it is stopped; the prediction has each start in it once.
    if (told.end == BootEnd::loop && printed.size() > expected.size()) printed.resize(expected.size());
    // Where the first stage starts nothing, or nothing that is known, the last start prints no search.
    const bool last_prints = told.end != BootEnd::no_bootloader && told.end != BootEnd::unknown_bootloader;
    if (!last_prints && expected.size() == printed.size() + 1) printed.emplace_back();
    for (std::size_t start = 0; start < std::max(expected.size(), printed.size()); ++start) {
        if (start >= expected.size() || start >= printed.size())
            return fmt::format("{} starts foretold, {} made", expected.size(), printed.size());
        if (expected[start] != printed[start])
            return fmt::format("start {}: \"{}\" foretold, \"{}\" printed", start + 1, expected[start], printed[start]);
    }
    if (told.end == BootEnd::loop) return ""; // the run ends somewhere in it
    // A launch is a reset too: the first stage starts what lies in the load buffer.
    if (report.resets != told.resets + (report.verdict == Verdict::launched ? 1 : 0))
        return fmt::format("{} resets foretold, {} made", told.resets, report.resets);
    if (report.slot != told.slot && told.end != BootEnd::no_bootloader) return "another slot was started";
    Chips real = chips;
    Chips expected_chips = chips_;
    const std::string slot = CompareSlots(FlashOf(medium_, expected_chips), FlashOf(medium_, real));
    if (!slot.empty()) return slot + " holds something else than foretold";
    // The marker lies over the last bytes of the buffer, and what was not flushed is lost.
    constexpr std::size_t kFlushed = 0x3FBFFF;
    const std::size_t limit = told.end == BootEnd::rescue ? kFlushed : kLaunchMarker - kLoadBuffer;
    const std::span<const std::uint8_t> image(told.image.data(), std::min(told.image.size(), limit));
    const auto buffer = memory.at(kLoadBuffer, static_cast<std::uint32_t>(image.size()));
    return std::equal(image.begin(), image.end(), buffer.begin(), buffer.end()) ? "" : "another image was launched";
}

} // namespace fixture
