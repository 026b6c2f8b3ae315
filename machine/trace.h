// The text trace: the events of a run, one a line, with virtual time, kind and the routine at work.
//
//      12345.678 us  register   W PIOB.CODR <- 0x00002000   LCD_Send+0x1C
//
// Accesses in a row to the same data port, or of a register with the same value, are one line with a count.
#pragma once

#include "machine/events.h"

#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// Which events a trace keeps. What is left empty lets all pass.
struct TraceFilter {
    std::set<EventKind> kinds = {};
    std::vector<std::string> peripherals = {}; // "PIOB", "NAND", "PIO*": of accesses and of what happens to chips
    std::vector<std::string> functions = {};   // "NandFlash_if_Read", "SD*": the routine at work
    Picoseconds from = 0;
    Picoseconds until = kNever;

    bool passes(const Event &event) const;
};

// A list of words between commas. Throws Refusal, with the kinds there are, for one that there is not.
std::set<EventKind> EventKinds(const std::string &list);
std::vector<std::string> Words(const std::string &list);

// Whether a name is the one wanted; "NAND*" wants all that begin so.
bool Matches(std::string_view name, std::string_view wanted);

// One line of a trace, with its end.
std::string TraceLine(const Event &event);

class Trace {
public:
    // `out` outlives the trace. `last`: only so many events, written when the trace goes; 0: all, as they come.
    Trace(std::ostream &out, TraceFilter filter, std::size_t last);
    ~Trace();
    Trace(const Trace &) = delete;
    Trace &operator=(const Trace &) = delete;

    // A sink for the machine's events; gone when the trace has gone.
    void add(const Event &event);

private:
    void print(const Event &event);

    TraceFilter filter_;
    std::size_t last_;
    EventRing ring_;
    std::ostream &out_;
};

} // namespace fixture
