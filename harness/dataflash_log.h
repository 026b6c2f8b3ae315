// What a driver sends to the DataFlash chip, seen on the board's bus and at the chip's select line.
#pragma once

#include "fixture/board.h"
#include "formats/file.h"

#include <string>

namespace fixture {

class DataflashLog {
public:
    // Watches the board's bus from here on, in place of any other observer.
    explicit DataflashLog(Board &board, unsigned address_bytes);
    DataflashLog(const DataflashLog &) = delete;
    DataflashLog &operator=(const DataflashLog &) = delete;
    void clear();

    // One word a command: "E800000000000000+32768" is opcode, address and don't-care bytes, and how many data bytes
    // followed.
    const std::string &commands() const { return commands_; }
    // Status reads, which are not among the commands.
    unsigned polls() const { return polls_; }

private:
    void write_down();

    unsigned address_bytes_;
    Bytes sent_; // under the current selection
    std::string commands_;
    unsigned polls_ = 0;
};

} // namespace fixture
