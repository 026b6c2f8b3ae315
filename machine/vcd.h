// A value change dump (IEEE 1364): the levels of chosen nets over virtual time, in nanoseconds, as logic analysers and
// waveform viewers read it.
//
//   VcdWriter vcd(stream, clock);
//   vcd.add("SCL", board.net('B', 5));     before the first edge
//   vcd.begin();                           header and first levels; every edge from here on is written
//
// Levels of the same instant keep their order. The last line is the time at which the writer went away, so that the
// last levels have a length.
#pragma once

#include "fixture/core/clock.h"
#include "fixture/core/net.h"

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

class VcdWriter {
public:
    // `out` and `clock` outlive the writer; the nets may outlive it.
    VcdWriter(std::ostream &out, const Clock &clock);
    ~VcdWriter();
    VcdWriter(const VcdWriter &) = delete;
    VcdWriter &operator=(const VcdWriter &) = delete;

    void add(const std::string &name, Net &net);
    // A signal that is no net: its level is told by calling the result, also after the writer has gone.
    std::function<void(unsigned level)> add(const std::string &name, unsigned bits, unsigned level);
    void begin();

private:
    struct File;
    std::shared_ptr<File> file_;
};

// A signal worth looking at, and where it comes from.
struct VcdSignal {
    const char *name;
    char port; // of a pin; 0: not a pin
    unsigned bit;
};

// The signals named in a list ("SDA,SCL,NAND_RB"); all of them for an empty one. A name that ends in "*" stands for all
// that begin so ("PANEL*"). Throws Refusal, with the names there are, for a name that is none of them.
std::vector<VcdSignal> VcdSignals(std::string_view list);

} // namespace fixture
