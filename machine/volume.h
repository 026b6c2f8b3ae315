// The file system's volume as a directory of this machine: drive "i", volume "vol0".
//
// Files arrive page by page, as they do where a file system lies on the NAND: opening one takes a page (its entry), a
// read takes every page that it touches. The page that a handle touched last is at hand and takes nothing. `moved` is
// told how many pages each call takes, and how many of them the same start has read before.
//
// "i:/vol0/data/app/x" is data/app/x in the directory. A path that leaves the directory, by "..", by a link or
// otherwise, does not exist; nor does anything that is not a regular file.
#pragma once

#include "fixture/processors/processor.h"
#include "platform/host/file_system.h"

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fixture {

class Volume : public FileSystem {
public:
    // An empty directory name: a volume that holds nothing.
    explicit Volume(std::filesystem::path directory) : directory_(std::move(directory)) {}
    ~Volume() override { close_all(); }
    Volume(const Volume &) = delete;
    Volume &operator=(const Volume &) = delete;

    int open(std::string_view path, bool for_writing) override;
    long read(int handle, std::span<std::uint8_t> bytes) override;
    long size(int handle) override;
    int close(int handle) override;
    // A reset of the processor: the debugger forgets every handle.
    void close_all();
    static constexpr std::uint64_t kPageBytes = 2048;

    // The file opened last, by the name it was asked for; empty before the first.
    const std::string &last_opened() const { return last_opened_; }
    // Its place on this machine.
    std::filesystem::path last_opened_file() const { return find(last_opened_).value_or(""); }

    // Told the pages that a call takes before it returns, `fresh` of them for the first time since close_all().
    std::function<void(std::uint64_t pages, std::uint64_t fresh)> moved;
    // Called before a file is opened.
    std::function<void()> before_open;
    // Told of every call and what came of it, in words.
    std::function<void(std::string call)> observer;

private:
    struct OpenFile {
        std::FILE *file;
        std::uint64_t *seen; // pages of it that were read in this start, its entry among them
        std::uint64_t position = 0;
        std::uint64_t pages = 0; // touched through this handle
    };
    int open_file(std::string_view path, bool for_writing);
    void take(OpenFile &file, std::uint64_t pages);
    std::optional<std::filesystem::path> find(std::string_view path) const;

    std::filesystem::path directory_;
    std::map<int, OpenFile> files_;
    std::map<std::string, std::uint64_t, std::less<>> seen_; // by path
    std::string last_opened_;
};

// The debugger that the processor's semihosting calls reach. Serves files of the volume and nothing else of this
// machine; text written through it goes to `console`.
class SemihostingServer : public Semihosting {
public:
    SemihostingServer(const Memory &memory, Volume &volume) : memory_(memory), volume_(volume) {}
    std::uint32_t call(std::uint32_t operation, std::uint32_t parameter) override;

    std::function<void(char)> console;
    // Whether the file ":file-server-fails" exists, by which a program learns that its file server is not to start.
    bool file_server_fails = false;

private:
    struct Request;
    std::uint32_t failed(int error);
    std::uint32_t open_file(const Request &request);
    std::uint32_t read_file(const Request &request);
    std::uint32_t write_text(const Request &request);

    const Memory &memory_;
    Volume &volume_;
    int errno_ = 0;
};

} // namespace fixture
