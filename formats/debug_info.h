// What an ELF's debug tables tell of its code: the source line of an address, and who called whom.
//
//   const DebugInfo info(file_bytes);
//   info.line(0x20100348);                        "NandFlash.cpp:120"
//   info.call_chain(registers, read_word);        the instruction and the calls that led to it, innermost first
//
// Callers are found by the tables (.debug_frame), so code needs no frame pointer. Nothing in the file is trusted: where
// tables are missing or make no sense, lines are empty and chains short.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

class DebugInfo {
public:
    using Registers = std::array<std::uint32_t, 16>; // r0 to r15
    using ReadWord = std::function<std::optional<std::uint32_t>(std::uint32_t address)>;

    // Keeps a copy of the file.
    explicit DebugInfo(std::span<const std::uint8_t> file);
    ~DebugInfo();
    DebugInfo(const DebugInfo &) = delete;
    DebugInfo &operator=(const DebugInfo &) = delete;

    // "FILE:LINE" without directories; empty where the tables do not know.
    std::string line(std::uint32_t address) const;

    // The registers as the caller had them, with r15 = where it goes on; nothing where the chain ends.
    std::optional<Registers> caller(const Registers &registers, const ReadWord &read) const;

    // r15, then an address inside each calling instruction: at most `most` of them.
    std::vector<std::uint32_t> call_chain(Registers registers, const ReadWord &read, std::size_t most = 24) const;

private:
    struct Tables;
    std::unique_ptr<Tables> tables_;
};

} // namespace fixture
