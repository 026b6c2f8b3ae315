// What a driver does to the NAND chip, seen on the board's bus.
//
//   NandLog log(started.board().bus);
//   started.call("NandFlash_if_Read", 0x40000, buffer, 2048);
//   log.operations() == "r2.0-1 R2.0";     two markers looked at, one page read
#pragma once

#include "fixture/core/bus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fixture {

class NandLog {
public:
    // Watches the bus from here on, in place of any other observer; it outlives the bus's next access.
    explicit NandLog(Bus &bus);
    NandLog(const NandLog &) = delete;
    NandLog &operator=(const NandLog &) = delete;
    void clear();

    // Every access, in words: [ ] chip enable, c30 command, a00 address cycle, R ready seen, r8x2048 w16x1024 data
    // accesses by width and count, other registers as PIOA.PER=400000 and PIOA.PER?.
    const std::string &accesses() const { return accesses_; }
    // One word an operation, runs of pages as one: E2 erase of block 2, P2.0-63 R2.0 data of its pages programmed and
    // read, p2.0 r2.0 the spare bytes.
    std::string operations();

private:
    void observe(const BusAccess &access);
    std::string word_for(const BusAccess &access) const;
    void add(const std::string &word);
    void data(const BusAccess &access);
    void command(std::uint32_t opcode);
    void operation(char on_data, char on_spare, std::size_t row_cycle);
    void end_run();

    Bus &bus_;
    std::string accesses_;
    std::string last_, operations_;
    std::vector<std::uint32_t> cycles_; // address cycles since the last command
    std::uint32_t count_ = 0, run_begin_ = 0, run_end_ = 0;
};

} // namespace fixture
