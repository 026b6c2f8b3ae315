// The signals of a run as a value change dump: pins, the console's serial line, resets, the NAND chip's bus.
//
//   BoardVcd vcd(stream, "NAND*,CONSOLE", machine);      before the run; complete once it is destroyed
#pragma once

#include "machine/machine.h"
#include "machine/vcd.h"

#include <functional>
#include <ostream>
#include <string>

namespace fixture {

class BoardVcd {
public:
    // Passes all it sees on to whoever observed the machine before. `out` outlives it. Throws Refusal for a signal that
    // does not exist.
    BoardVcd(std::ostream &out, const std::string &signals, Machine &machine);

private:
    using Line = std::function<void(unsigned level)>;
    void add_console(Machine &machine, const Line &line);
    void add_reset(Machine &machine, const Line &line);
    void add_nand(Machine &machine);

    VcdWriter writer_;
    Line nand_io_, nand_cle_, nand_ale_, nand_we_, nand_re_;
};

} // namespace fixture
