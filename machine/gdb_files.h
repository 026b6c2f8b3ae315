// Files that a debugger reads over its own line: the ELF of what runs, so that GDB has symbols without a `file`
// command, and has the right ones when another build takes over.
//
//   GdbFiles files([](const std::string &path) { return path == "/a" ? std::optional(path) : std::nullopt; });
//   files.handle("vFile:open:2f61,0,0");                 "F1": a handle for the next calls
//
// Only what `read` delivers can be opened, and nothing can be written.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace fixture {

class GdbFiles {
public:
    // `read` delivers a file's content, or nothing where the debugger must not have it.
    explicit GdbFiles(std::function<std::optional<std::string>(const std::string &path)> read)
        : read_(std::move(read)) {}

    // The reply to a packet that begins with "vFile:"; empty for a call that is not served here.
    std::string handle(std::string_view packet);
    void close_all() { open_.clear(); }

private:
    std::string open(std::string_view arguments);
    std::string read(std::string_view arguments) const;
    std::string status(std::string_view arguments) const;

    std::function<std::optional<std::string>(const std::string &path)> read_;
    std::map<std::uint32_t, std::string> open_; // contents, by handle
};

} // namespace fixture
