#include "formats/file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace fixture {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const fs::path &file, int error) {
    throw std::runtime_error(fmt::format("{}: {}", file.string(), std::strerror(error)));
}

// What a new file may be by this process's mask.
mode_t Permitted(mode_t mode) {
    const mode_t mask = umask(0);
    umask(mask);
    return mode & ~mask;
}

// A file of its own name beside another; gone again unless it takes the other's place.
class FileBeside {
public:
    explicit FileBeside(const fs::path &target) : target_(target), name_(target.string() + ".XXXXXX") {
        handle_ = mkstemp(name_.data());
        if (handle_ < 0) Fail(target_, errno);
    }
    ~FileBeside() {
        if (handle_ >= 0) close(handle_);
        if (!name_.empty()) unlink(name_.c_str());
    }
    FileBeside(const FileBeside &) = delete;
    FileBeside &operator=(const FileBeside &) = delete;

    void write(std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            const ssize_t count = ::write(handle_, bytes.data(), bytes.size());
            if (count < 0 && errno != EINTR) Fail(target_, errno);
            if (count > 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
    }
    void take_place() {
        if (fchmod(handle_, Permitted(0666)) != 0) Fail(target_, errno);
        if (close(std::exchange(handle_, -1)) != 0) Fail(target_, errno);
        if (std::rename(name_.c_str(), target_.c_str()) != 0) Fail(target_, errno);
        name_.clear();
    }

private:
    fs::path target_;
    std::string name_;
    int handle_ = -1;
};

// The directory's name without a separator at its end.
fs::path Plain(const fs::path &directory) {
    const fs::path normal = fs::absolute(directory).lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

} // namespace

Refusal::Refusal(const fs::path &file, std::string_view found, std::string_view expected)
    : std::runtime_error(fmt::format("{}: {}; expected {}", file.string(), found, expected)) {}

Bytes ReadFile(const fs::path &file, std::uintmax_t most) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (!fs::exists(status)) Fail(file, error ? error.value() : ENOENT);
    if (!fs::is_regular_file(status)) throw std::runtime_error(fmt::format("{}: not a regular file", file.string()));
    std::ifstream stream(file, std::ios::binary);
    if (!stream) Fail(file, errno);
    const std::uintmax_t size = fs::file_size(file);
    if (size > most) throw Refusal(file, fmt::format("{} bytes", size), fmt::format("at most {}", most));
    Bytes bytes(size);
    if (!stream.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(size)))
        throw std::runtime_error(
            fmt::format("{}: read stopped at offset {}, expected {} bytes", file.string(), stream.gcount(), size));
    return bytes;
}

void WriteFile(const fs::path &file, std::span<const std::uint8_t> bytes) {
    std::error_code error;
    const bool exists = fs::exists(file, error);
    if (exists && !fs::is_regular_file(file))
        throw std::runtime_error(fmt::format("{}: not a regular file, cannot be replaced", file.string()));
    FileBeside beside(exists ? fs::canonical(file) : file);
    beside.write(bytes);
    beside.take_place();
}

void WriteFile(const fs::path &file, std::string_view text) {
    WriteFile(file, std::span(reinterpret_cast<const std::uint8_t *>(text.data()), text.size()));
}

NewDirectory::NewDirectory(const fs::path &target) : target_(Plain(target)) {
    std::string name = (target_.parent_path() / ("." + target_.filename().string() + ".XXXXXX")).string();
    if (!mkdtemp(name.data())) Fail(target, errno);
    path_ = name;
}

NewDirectory::~NewDirectory() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
}

void NewDirectory::take_place() {
    if (chmod(path_.c_str(), Permitted(0777)) != 0) Fail(target_, errno);
    // An empty directory is replaced by this too.
    if (std::rename(path_.c_str(), target_.c_str()) == 0) return path_.clear();
    if (errno != ENOTEMPTY && errno != EEXIST) Fail(target_, errno);
    // The two swap names in one step; the old one then goes with this object.
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, target_.c_str(), RENAME_EXCHANGE) != 0) Fail(target_, errno);
}

} // namespace fixture
