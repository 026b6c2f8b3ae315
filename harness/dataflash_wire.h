// The DataFlash's model on its wire: commands go out byte by byte, each under a selection of its own.
#pragma once

#include "fixture/parts/at45.h"
#include "formats/file.h"

namespace fixture {

struct DataflashWire {
    explicit DataflashWire(At45Contents &contents) : chip(clock, journal, supply, contents), part(contents.part()) {}

    // Sends a command and returns the `read` bytes that come after it.
    Bytes talk(const Bytes &sent, std::size_t read = 0);
    // The same with a place after the opcode, and `data` after that.
    Bytes talk_to(std::uint8_t opcode, std::uint32_t page, std::uint32_t offset, const Bytes &data,
                  std::size_t read = 0);
    void page_command(std::uint8_t opcode, std::uint32_t page, Picoseconds wait = 50 * kMillisecond);
    Bytes array(std::uint32_t page, std::uint32_t offset, std::size_t length);
    // The bits that mean something on every part.
    std::uint8_t status() { return talk({0xD7}, 1)[0] & 0xBC; }
    std::size_t violations() const { return journal.violations().size(); }

    Clock clock;
    Journal journal{clock};
    PowerSupply supply;
    At45 chip;
    At45Part part;
};

} // namespace fixture
