#include "machine/volume.h"

#include "formats/board_volume.h"
#include "formats/refusal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>
#include <vector>

namespace fixture {

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
// Lengths and addresses of a request come from the program under test: all are bounded by this or by the memory.
constexpr std::size_t kLongestText = 4096;
constexpr std::uint32_t kConsole = 0x7FFFFFFF; // the handle of what is no file
// A program that opens without end must not take this process's last file; a boot has a dozen open at its end.
constexpr std::size_t kMostOpen = 128;

} // namespace

std::optional<fs::path> Volume::find(std::string_view path) const { return FindOnVolume(directory_, path); }

int Volume::open(std::string_view path, bool for_writing) {
    // A file is opened between two steps of the progress bar: the last moment to see the old one.
    if (before_open) before_open();
    const int handle = open_file(path, for_writing);
    if (observer)
        observer(handle < 0 ? fmt::format("open {}: {}", Printable(path), std::strerror(-handle))
                            : fmt::format("open {}: handle {}", Printable(path), handle));
    return handle;
}

int Volume::open_file(std::string_view path, bool for_writing) {
    const std::optional<fs::path> file = find(path);
    if (!file) return -ENOENT;
    if (files_.size() >= kMostOpen) return -EMFILE;
    if (for_writing && !BoardMayWrite(*file)) return -EACCES;
    // For reading even where writing was asked for: nothing on the volume is ever changed.
    std::FILE *opened = std::fopen(file->c_str(), "rb");
    if (!opened) return -errno;
    int handle = 1;
    // The lowest free one, so that a trace has the same handles in every run.
    while (files_.contains(handle)) ++handle;
    OpenFile &entry = files_[handle] = {opened, &seen_[std::string(path)]};
    last_opened_ = path;
    take(entry, 1);
    return handle;
}

// Reading goes from a file's beginning to its end, so that a count says which pages were seen.
void Volume::take(OpenFile &file, std::uint64_t pages) {
    file.pages += pages;
    const std::uint64_t fresh = file.pages > *file.seen ? std::min(pages, file.pages - *file.seen) : 0;
    *file.seen += fresh;
    if (moved && pages > 0) moved(pages, fresh);
}

long Volume::read(int handle, std::span<std::uint8_t> bytes) {
    const auto file = files_.find(handle);
    if (file == files_.end()) return -EBADF;
    OpenFile &from = file->second;
    const auto count = static_cast<long>(std::fread(bytes.data(), 1, bytes.size(), from.file));
    from.position += static_cast<std::uint64_t>(count);
    const std::uint64_t touched = 1 + (from.position + kPageBytes - 1) / kPageBytes; // with its entry
    take(from, touched - from.pages);
    if (observer) observer(fmt::format("read handle {}: {} of {} bytes", handle, count, bytes.size()));
    return count;
}

long Volume::size(int handle) {
    const auto file = files_.find(handle);
    struct stat status;
    if (file == files_.end() || fstat(fileno(file->second.file), &status) != 0) return -EBADF;
    return status.st_size;
}

int Volume::close(int handle) {
    const auto file = files_.find(handle);
    if (file == files_.end()) return -EBADF;
    std::fclose(file->second.file);
    files_.erase(file);
    if (observer) observer(fmt::format("close handle {}", handle));
    return 0;
}

// A reset closes nothing on a debugger's side; files that the last stage left open would pile up.
void Volume::close_all() {
    for (auto &[handle, file] : files_) std::fclose(file.file);
    files_.clear();
    seen_.clear();
}

struct SemihostingServer::Request {
    std::array<std::uint32_t, 4> words{};
    const Memory &memory;

    Request(const Memory &board_memory, std::uint32_t parameter, std::size_t count) : memory(board_memory) {
        const std::span<std::uint8_t> block = memory.at(parameter, 4 * count);
        if (!block.empty()) std::memcpy(words.data(), block.data(), block.size());
    }
    std::string text(std::uint32_t address, std::size_t most) const {
        const std::span<std::uint8_t> bytes = memory.from(address);
        const auto limit = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), most));
        return {bytes.begin(), std::find(bytes.begin(), limit, 0)};
    }
};

std::uint32_t SemihostingServer::failed(int error) {
    errno_ = error;
    return kFailure;
}

std::uint32_t SemihostingServer::open_file(const Request &request) {
    const auto [name, mode, length, unused] = request.words;
    const std::string path = request.text(name, std::min<std::size_t>(length, kLongestText));
    if (path == ":tt" || (file_server_fails && path == ":file-server-fails")) return kConsole;
    const int handle = volume_.open(path, mode >= 2);
    return handle < 0 ? failed(-handle) : static_cast<std::uint32_t>(handle);
}

std::uint32_t SemihostingServer::read_file(const Request &request) {
    const auto [handle, buffer, length, unused] = request.words;
    // From the buffer to the end of its memory: a length beyond it reads as much as there is.
    const std::span<std::uint8_t> room = request.memory.from(buffer);
    const long count = volume_.read(static_cast<int>(handle), room.first(std::min<std::size_t>(room.size(), length)));
    if (count < 0) return failed(static_cast<int>(-count));
    // The interface counts what was not read.
    return length - static_cast<std::uint32_t>(count);
}

std::uint32_t SemihostingServer::write_text(const Request &request) {
    const auto [handle, buffer, length, unused] = request.words;
    // Nothing written: files are not for writing here.
    if (handle != kConsole) return length;
    const std::span<const std::uint8_t> text = request.memory.at(buffer, length);
    // Memory that is not there has nothing to write.
    if (text.empty()) return length;
    for (const std::uint8_t byte : text)
        if (console) console(static_cast<char>(byte));
    return 0;
}

std::uint32_t SemihostingServer::call(std::uint32_t operation, std::uint32_t parameter) {
    enum : std::uint32_t { open = 1, close, writec, write0, write, read, is_tty = 9, seek, length = 12, error = 0x13 };
    // As many words as the call has, so that a block at the very end of the memory can be read.
    const Request request(memory_, parameter, operation == close || operation == length || operation == is_tty ? 1 : 3);
    const int handle = static_cast<int>(request.words[0]);
    switch (operation) {
    case open: return open_file(request);
    case close: return volume_.close(handle) < 0 ? failed(EBADF) : 0;
    case read: return read_file(request);
    case write: return write_text(request);
    case is_tty: return handle == static_cast<int>(kConsole);
    case error: return static_cast<std::uint32_t>(errno_);
    case length: {
        const long bytes = volume_.size(handle);
        return bytes < 0 ? failed(EBADF) : static_cast<std::uint32_t>(bytes);
    }
    case writec:
    case write0: {
        const std::string text = request.text(parameter, operation == writec ? 1 : kLongestText);
        if (console)
            for (const char c : text) console(c);
        return 0;
    }
    // Seeking among them: files are read from their beginning to their end here, and take() counts on it.
    default: return failed(EINVAL);
    }
}

} // namespace fixture
