// Whole files in, whole files out: what is written appears under its name complete or not at all.
//
//   const Bytes image = ReadFile("bootloader.bin", kLargestStoredImage);
//   WriteFile("wrapped.bin", Wrap(image));
//
// A call with long work or several outputs proves first that it can write, and changes nothing until all is there:
//
//   OutputFiles outputs;
//   OutputFile &chip = outputs.add("nand.bin");        throws if the file could not be replaced
//   OutputFile &picture = outputs.add("panel.png");
//   // the work
//   chip.write(contents);
//   outputs.commit();                                   writes everything out, then puts all of them in place
//
//   NewDirectory bank("out/app");                       an empty directory beside the target
//   WriteFile(bank.path() / "BankContent.txt", manifest);
//   bank.take_place();                                  now it is out/app; without this call nothing is left of it
//
// Everything here throws Refusal with the name that the caller gave and the system's reason.
#pragma once

#include "formats/refusal.h"

#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

using Bytes = std::vector<std::uint8_t>;

// The bytes of a regular file. Anything else (a directory, a pipe, a device) is refused at once, without waiting for
// what might come out of it. A file larger than `most` is refused.
Bytes ReadFile(const std::filesystem::path &file, std::uintmax_t most);

// The length of such a file, which can be opened for reading.
std::uintmax_t FileSize(const std::filesystem::path &file);

// A file about to be written. The bytes go to a file that has no name yet, or where the file system has none of those,
// to one that carries a name of its own; either goes when the process is killed by a signal that can be caught. A file
// that takes another's place keeps its mode and, where this process may give it, its owner. A link stays a link: its
// target is written. A device or a pipe is written to and never replaced.
class OutputFile {
public:
    // Throws Refusal where the file cannot come to be: no such directory, no permission, a directory of that name, a
    // file without any permission to write, a pipe that nobody reads.
    explicit OutputFile(std::filesystem::path file);
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    const std::filesystem::path &file() const;
    void write(std::span<const std::uint8_t> bytes);
    void write(std::string_view text);
    // The same as a stream, for writers that want one. A failure shows in finish().
    std::ostream &stream();

    // Writes out what is buffered: the system has all of it, and the file does not have its name yet.
    void complete();
    // complete(), then the name. Once.
    void finish();

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
    std::ostream stream_;
};

// The outputs of one call: all of them or none.
class OutputFiles {
public:
    OutputFile &add(const std::filesystem::path &file) { return files_.emplace_back(file); }
    // What stands under the name stays as it is.
    void drop(const OutputFile &unwanted) {
        files_.remove_if([&](const OutputFile &file) { return &file == &unwanted; });
    }
    // Completes every file before the first takes its place.
    void commit();

private:
    std::list<OutputFile> files_;
};

void WriteFile(const std::filesystem::path &file, std::span<const std::uint8_t> bytes);
void WriteFile(const std::filesystem::path &file, std::string_view text);

// Holds a file that will be read, changed and written back, so that no other process does the same meanwhile. A file
// that does not exist yet is held by its directory, which one process may hold for several files. Waits for `seconds`,
// then throws Refusal.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path &file, double seconds = 10);

private:
    std::shared_ptr<const void> held_;
};

class NewDirectory {
public:
    explicit NewDirectory(const std::filesystem::path &target);
    ~NewDirectory();
    NewDirectory(const NewDirectory &) = delete;
    NewDirectory &operator=(const NewDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }
    // Renames the directory to the target's name. A directory that is there is replaced, with all it holds: the
    // caller has made sure that it may go.
    void take_place();

private:
    std::filesystem::path target_;
    std::filesystem::path path_;
};

} // namespace fixture
