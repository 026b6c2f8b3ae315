// Addresses of a build in a reader's words: routine, source line, and the calls that led there.
#pragma once

#include "formats/debug_info.h"
#include "machine/firmware.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fixture {

class Symbols {
public:
    // `firmware` outlives the symbols. Null, and builds without an ELF: places are bare addresses.
    explicit Symbols(const Firmware *firmware) : firmware_(firmware) {}

    // "NandFlash_if_Read", without the arguments of its declaration; empty where no routine is known.
    const std::string &routine(std::uint32_t address) const { return find(address).routine; }
    // "NandFlash_if_Read+0x1C", or "0x20001234".
    const std::string &place(std::uint32_t address) const { return find(address).place; }
    // The place, and the source line where the debug tables know it: "NandFlash_if_Read+0x1C (NandFlash.cpp:120)".
    std::string place_and_line(std::uint32_t address) const;
    // One line a call, innermost first. The ELF is read at the first use.
    std::vector<std::string> call_chain(const DebugInfo::Registers &registers, const DebugInfo::ReadWord &read) const;

private:
    struct Known {
        std::string routine;
        std::string place;
    };
    const Known &find(std::uint32_t address) const;
    const DebugInfo &debug_info() const;

    const Firmware *firmware_;
    mutable std::unique_ptr<DebugInfo> debug_info_;
    mutable std::unordered_map<std::uint32_t, Known> known_;
};

} // namespace fixture
