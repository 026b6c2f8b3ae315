// The text trace: every register access and chip operation with its virtual time, one a line. Accesses in a row to
// the same data port, or of a register with the same value, are one line with a count.
#pragma once

#include "fixture/board.h"

#include <cstdio>
#include <memory>
#include <string>

namespace fixture {

class Trace {
public:
    // Throws std::runtime_error where the file cannot be written. The board outlives the trace.
    Trace(const std::string &file, Board &board);
    ~Trace();
    Trace(const Trace &) = delete;
    Trace &operator=(const Trace &) = delete;

private:
    void access(const BusAccess &access);
    void finish_run();

    Board &board_;
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file_;
    BusAccess last_{};
    unsigned repeats_ = 0;
};

} // namespace fixture
