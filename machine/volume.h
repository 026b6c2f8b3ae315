// The file system's volume as a directory of this machine: drive "i", volume "vol0".
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
    // The file opened last, by the name it was asked for; empty before the first.
    const std::string &last_opened() const { return last_opened_; }
    // Its place on this machine.
    std::filesystem::path last_opened_file() const { return find(last_opened_).value_or(""); }

    // Called before a file is opened.
    std::function<void()> before_open;
    // Told of every call and what came of it, in words.
    std::function<void(std::string call)> observer;

private:
    int open_file(std::string_view path, bool for_writing);
    std::optional<std::filesystem::path> find(std::string_view path) const;

    std::filesystem::path directory_;
    std::map<int, std::FILE *> files_;
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
