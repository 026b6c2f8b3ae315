// A debugger at the other end of the semihosting calls: it knows files by name, says what it was asked, and fails with
// the error it is told to.
#pragma once

#include "fixture/processors/arm_processor.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fixture {

struct ScriptedDebugger : Semihosting {
    explicit ScriptedDebugger(const Memory &of_the_board) : memory(of_the_board) {}
    std::uint32_t call(std::uint32_t operation, std::uint32_t parameter) override;

    static constexpr std::uint32_t kHandle = 7; // of every file that it opens
    static constexpr std::uint32_t kFailed = 0xFFFFFFFF;

    const Memory &memory;
    std::map<std::string, bool> writable; // of the files that there are
    std::uint32_t error = 0;              // what SYS_ERRNO answers
    std::uint32_t missing = 0;            // bytes that a SYS_READ does not get
    std::uint32_t length = 0;             // what SYS_FLEN answers
    bool asked = false;
    std::vector<std::uint32_t> modes; // of every SYS_OPEN
};

} // namespace fixture
