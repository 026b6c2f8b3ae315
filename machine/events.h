// Everything that happens in a run as one stream of events, in order, each with its virtual time and its place in the
// code: what the trace prints, the verdict remembers and the report draws.
//
//   EventStream events(machine);                         before the run
//   events.sinks.push_back([](const Event &event) { std::puts(DescribeEvent(event).c_str()); });
//   machine.run();
//   events.finish();                                     hands over the event that was still being counted
//
// Looking on changes nothing that the run counts.
#pragma once

#include "machine/machine.h"
#include "machine/symbols.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace fixture {

const char *NameOf(EventKind kind); // "register", "chip", "violation", "console", "file", "reset", "stage", "power"

struct Event {
    Picoseconds time = 0;
    EventKind kind = EventKind::access;
    std::uint32_t pc = 0;             // 0: natively, or between stages
    const Symbols *symbols = nullptr; // of the code that ran then
    BusAccess access{};               // of a register access
    std::uint32_t more = 0;           // accesses that followed at once to the same data port, or with the same value
    std::string where;                // "PIOB.CODR", "NAND", "volume"
    std::string what;
};

// "R PIOB.PDSR -> 0x00000001, and 12 more", "NAND: erase block 7", without time and place.
std::string DescribeEvent(const Event &event);

class EventStream {
public:
    // The machine outlives the stream. There is one stream a machine.
    explicit EventStream(Machine &machine);
    ~EventStream();
    EventStream(const EventStream &) = delete;
    EventStream &operator=(const EventStream &) = delete;

    // Hands over what is held back (an access waits for the next event, because more like it may follow) and a line
    // of the console that has not ended.
    void finish();
    // A character of the console; the machine's console is the caller's.
    void console(char c);

    std::vector<std::function<void(const Event &)>> sinks;

private:
    void flush();
    const std::string &name_of(std::uint32_t address);
    void access(const BusAccess &made);
    void tell(EventKind kind, std::string where, std::string what);
    void hand_over(const Event &event) const;
    const Symbols *symbols();

    Machine &machine_;
    std::map<const Firmware *, Symbols> symbols_;
    const Firmware *last_firmware_ = nullptr;
    const Symbols *last_symbols_ = nullptr;
    Event pending_;
    bool has_pending_ = false;
    std::string line_; // of the console, so far
    std::unordered_map<std::uint32_t, std::string> names_;
};

// The last events of a run.
class EventRing {
public:
    explicit EventRing(std::size_t most) : events_(most) {}
    void add(const Event &event) {
        if (!events_.empty()) events_[count_++ % events_.size()] = event;
    }
    std::vector<Event> in_order() const;

private:
    std::vector<Event> events_;
    std::uint64_t count_ = 0;
};

} // namespace fixture
