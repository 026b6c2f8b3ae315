#include "harness/scripted_debugger.h"

#include <array>
#include <cstring>

namespace fixture {

namespace {

enum Operation : std::uint32_t { kOpen = 0x01, kClose = 0x02, kRead = 0x06, kFileLength = 0x0C, kErrno = 0x13 };
constexpr std::uint32_t kReadBinary = 1; // the one mode that a file needs no right to be written for

} // namespace

std::uint32_t ScriptedDebugger::call(std::uint32_t operation, std::uint32_t parameter) {
    std::array<std::uint32_t, 3> block{};
    const auto bytes = memory.at(parameter, sizeof block);
    if (!bytes.empty()) std::memcpy(block.data(), bytes.data(), sizeof block);
    asked = true;
    switch (operation) {
    case kOpen: {
        const auto text = memory.at(block[0], block[2]);
        const auto file = writable.find(std::string(text.begin(), text.end()));
        modes.push_back(block[1]);
        return file != writable.end() && (block[1] == kReadBinary || file->second) ? kHandle : kFailed;
    }
    case kClose: return block[0] == kHandle ? 0 : kFailed;
    case kRead: return missing;
    case kFileLength: return length;
    case kErrno: return error;
    default: return kFailed;
    }
}

} // namespace fixture
