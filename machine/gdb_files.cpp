#include "machine/gdb_files.h"

#include "machine/gdb_protocol.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::size_t kOpenMost = 8;
// Errors as the protocol numbers them, in hexadecimal.
constexpr const char *kNoSuchFile = "F-1,2";
constexpr const char *kBadHandle = "F-1,9";
constexpr const char *kInvalid = "F-1,16";
constexpr const char *kTooManyOpen = "F-1,18";

std::string BigEndian(std::uint64_t value, unsigned bytes) {
    std::string text;
    for (unsigned n = bytes; n-- > 0;) text += static_cast<char>(n < sizeof value ? value >> 8 * n : 0);
    return text;
}

} // namespace

std::string GdbFiles::handle(std::string_view packet) {
    TakeGdbWord(packet, ':');
    const std::string_view call = TakeGdbWord(packet, ':');
    if (call == "setfs") return "F0"; // there is one file system, whoever asks
    if (call == "open") return open(packet);
    if (call == "pread") return read(packet);
    if (call == "fstat") return status(packet);
    if (call != "close") return {};
    const std::optional<std::uint32_t> handle = GdbNumber(packet);
    return handle && open_.erase(*handle) ? "F0" : kBadHandle;
}

// "PATH,FLAGS,MODE"
std::string GdbFiles::open(std::string_view arguments) {
    const std::optional<std::string> path = FromHex(TakeGdbWord(arguments, ','));
    const std::optional<std::uint32_t> flags = GdbNumber(TakeGdbWord(arguments, ','));
    if (!path || flags != 0u) return kInvalid;
    if (open_.size() >= kOpenMost) return kTooManyOpen;
    std::optional<std::string> content = read_(*path);
    if (!content) return kNoSuchFile;
    const std::uint32_t handle = open_.empty() ? 1 : open_.rbegin()->first + 1;
    open_.emplace(handle, std::move(*content));
    return fmt::format("F{:x}", handle);
}

// "HANDLE,COUNT,OFFSET"
std::string GdbFiles::read(std::string_view arguments) const {
    const std::optional<std::uint32_t> handle = GdbNumber(TakeGdbWord(arguments, ','));
    const std::optional<std::uint32_t> count = GdbNumber(TakeGdbWord(arguments, ','));
    const std::optional<std::uint32_t> offset = GdbNumber(arguments);
    const auto file = handle ? open_.find(*handle) : open_.end();
    if (file == open_.end()) return kBadHandle;
    if (!count || !offset) return kInvalid;
    constexpr std::size_t kMost = kGdbPacketMost / 2 - 16; // every byte may have to be escaped
    const std::string piece =
        file->second.substr(std::min<std::size_t>(*offset, file->second.size()), std::min<std::size_t>(*count, kMost));
    return fmt::format("F{:x};", piece.size()) + piece;
}

// A file's size and kind are all that a reader of ELF files asks for.
std::string GdbFiles::status(std::string_view arguments) const {
    const std::optional<std::uint32_t> handle = GdbNumber(arguments);
    const auto file = handle ? open_.find(*handle) : open_.end();
    if (file == open_.end()) return kBadHandle;
    constexpr std::uint32_t kRegularFile = 0100444;
    std::string fields = BigEndian(0, 4) + BigEndian(*handle, 4) + BigEndian(kRegularFile, 4) +
                         BigEndian(1, 4); // device, inode, mode, links
    fields += BigEndian(0, 12);           // owner, group, device
    fields += BigEndian(file->second.size(), 8) + BigEndian(4096, 8) + BigEndian(0, 8);
    fields += BigEndian(0, 12); // times
    return fmt::format("F{:x};", fields.size()) + fields;
}

} // namespace fixture
