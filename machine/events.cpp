#include "machine/events.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>

namespace fixture {

const char *NameOf(EventKind kind) {
    static constexpr std::array kNames = {"register", "chip",  "violation", "console",
                                          "file",     "reset", "stage",     "power"};
    return kNames[static_cast<std::size_t>(kind)];
}

std::string DescribeEvent(const Event &event) {
    std::string text = event.where + ": " + event.what;
    if (event.kind == EventKind::access)
        text = fmt::format("{} {} {} 0x{:0{}X}", event.access.is_write ? "W" : "R", event.where,
                           event.access.is_write ? "<-" : "->", event.access.value, 2 * event.access.bytes);
    if (event.more > 0) text += fmt::format(", and {} more", event.more);
    return text;
}

EventStream::EventStream(Machine &machine) : machine_(machine) {
    Board &board = machine_.board();
    // Set, not chained: the stream comes first, and whatever looks on later passes on what it sees.
    board.bus.observer = [this](const BusAccess &made) { access(made); };
    board.journal.listener = [this](const JournalEntry &entry) {
        const std::vector<JournalEntry> &violations = machine_.board().journal.violations();
        // The journal keeps violations apart and tells both kinds here; this is the one it has just kept.
        const bool is_violation = !violations.empty() && &entry == &violations.back();
        tell(is_violation ? EventKind::violation : EventKind::chip, entry.where, entry.what);
    };
    machine_.observer = [this](EventKind kind, std::string where, std::string what) {
        tell(kind, std::move(where), std::move(what));
    };
}

EventStream::~EventStream() {
    machine_.board().bus.observer = nullptr;
    machine_.board().journal.listener = nullptr;
    machine_.observer = nullptr;
}

const Symbols *EventStream::symbols() {
    const Firmware *firmware = machine_.running();
    // Asked at every event; the build changes at a reset.
    if (last_symbols_ && firmware == last_firmware_) return last_symbols_;
    last_firmware_ = firmware;
    return last_symbols_ = &symbols_.try_emplace(firmware, firmware).first->second;
}

void EventStream::hand_over(const Event &event) const {
    for (const auto &sink : sinks) sink(event);
}

void EventStream::flush() {
    if (has_pending_) hand_over(pending_);
    has_pending_ = false;
}

void EventStream::finish() {
    flush();
    if (!line_.empty()) tell(EventKind::console, "console", std::exchange(line_, {}));
}

// Names are made once: a bit-banged bus makes the same few accesses a hundred thousand times.
const std::string &EventStream::name_of(std::uint32_t address) {
    std::string &name = names_[address];
    if (name.empty()) name = machine_.board().bus.name_of(address);
    return name;
}

void EventStream::access(const BusAccess &made) {
    const BusAccess &last = pending_.access;
    // A wait reads one register thousands of times, and a page goes through one data port: a count of them keeps a
    // trace readable.
    const bool same_place = made.address == last.address && made.is_write == last.is_write && made.bytes == last.bytes;
    const bool data_port = made.bytes < 4; // registers are words
    if (has_pending_ && same_place && (data_port || made.value == last.value)) {
        ++pending_.more;
        return;
    }
    flush();
    pending_.time = made.time;
    pending_.pc = machine_.pc();
    pending_.symbols = symbols();
    pending_.access = made;
    pending_.more = 0;
    pending_.where = name_of(made.address);
    has_pending_ = true;
}

void EventStream::tell(EventKind kind, std::string where, std::string what) {
    flush(); // what was still being counted came before this
    Event event;
    event.time = machine_.board().clock.now();
    event.kind = kind;
    event.pc = machine_.pc();
    event.symbols = symbols();
    event.where = std::move(where);
    event.what = std::move(what);
    hand_over(event);
}

// A line happens when it is complete.
void EventStream::console(char c) {
    // A program may never end its line.
    constexpr std::size_t kLongest = 4096;
    if (c != '\n' && line_.size() < kLongest) {
        line_ += c;
        return;
    }
    tell(EventKind::console, "console", std::exchange(line_, {}));
}

std::vector<Event> EventRing::in_order() const {
    std::vector<Event> all;
    const std::uint64_t kept = std::min<std::uint64_t>(count_, events_.size());
    for (std::uint64_t n = count_ - kept; n < count_; ++n) all.push_back(events_[n % events_.size()]);
    return all;
}

} // namespace fixture
