#include "formats/file.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <streambuf>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fixture {

namespace fs = std::filesystem;

namespace {

// The reason in this tool's own words where the system's are odd, else in the system's.
std::string Reason(int error) {
    switch (error) {
    case ENOENT: return "no such file or directory";
    case ENXIO: return "a pipe that nobody reads";
    case ENOSPC: return "no space left on the device";
    case EACCES:
    case EPERM: return "permission denied";
    default: return std::strerror(error);
    }
}

[[noreturn]] void Fail(Fault fault, const fs::path &file, int error) {
    const bool missing = error == ENOENT;
    const char *const id = missing ? "missing" : fault == Fault::output ? "unwritable" : "unreadable";
    throw Refusal(fault, {id, file.string(), Reason(error), ""});
}
[[noreturn]] void FailToWrite(const fs::path &file, int error) { Fail(Fault::output, file, error); }

const char *KindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    return "a device";
}

// What a new file may be by this process's mask.
mode_t Permitted(mode_t mode) {
    // There is no way to ask for the mask but to set it.
    const mode_t mask = umask(0);
    umask(mask);
    return mode & ~mask;
}

struct Handle {
    int number = -1;
    explicit Handle(int opened = -1) : number(opened) {}
    ~Handle() {
        if (number >= 0) close(number);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
};

// Those that end a process and can be caught: keys, other processes, and the limits that batch systems set.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU, SIGXFSZ};

// --- names that have to go when a signal ends the process

// Written before its entry counts, so that the handler, which may come at any moment, sees whole names only.
struct TemporaryName {
    volatile std::sig_atomic_t used = 0;
    std::array<char, 4096> name{};
};
std::array<TemporaryName, 16> temporary_names;

extern "C" void RemoveTemporaryNames(int signal) {
    // unlink(), signal() and raise() are among the few calls that a handler may make.
    for (TemporaryName &entry : temporary_names)
        if (entry.used) unlink(entry.name.data());
    // Raised again, so that whoever waits for the process sees what ended it.
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// Only signals that would end the process are caught, and only once there is something to remove.
void CatchSignals() {
    for (const int signal : kEndingSignals) {
        struct sigaction now {};
        if (sigaction(signal, nullptr, &now) != 0 || now.sa_handler != SIG_DFL) continue;
        now.sa_handler = RemoveTemporaryNames;
        sigaction(signal, &now, nullptr);
    }
}

void Remember(const std::string &name) {
    CatchSignals();
    for (TemporaryName &entry : temporary_names) {
        if (entry.used || name.size() >= entry.name.size()) continue;
        std::copy(name.c_str(), name.c_str() + name.size() + 1, entry.name.begin());
        entry.used = 1;
        return;
    }
}

void Forget(const std::string &name) {
    for (TemporaryName &entry : temporary_names)
        if (entry.used && name == entry.name.data()) entry.used = 0;
}

// --- where a name leads

// Follows links to the name that a write has to go to, which need not exist.
fs::path TargetOf(const fs::path &file) {
    constexpr int kMostLinks = 40; // as the system itself follows
    fs::path target = file;
    std::error_code error;
    for (int links = 0; fs::is_symlink(target, error); ++links) {
        if (links == kMostLinks) FailToWrite(file, ELOOP);
        const fs::path next = fs::read_symlink(target, error);
        if (error) FailToWrite(file, error.value());
        target = next.is_absolute() ? next : target.parent_path() / next;
    }
    return target;
}

fs::path DirectoryOf(const fs::path &file) { return file.has_parent_path() ? file.parent_path() : fs::path("."); }

// A name beside the target that nobody has. Linking fails where somebody takes it first.
std::string NameBeside(const fs::path &target) {
    static unsigned count = 0;
    // A name may have 255 bytes; the process and the count need some of them.
    return (DirectoryOf(target) /
            fmt::format(".{}.{}-{}", target.filename().string().substr(0, 200), getpid(), ++count))
        .string();
}

// A chip's dump is hundreds of megabytes, and to take them 4 KiB at a time would be half the work of reading it.
void WantLargePages(const Bytes &reserved) {
    constexpr std::uintptr_t kLargePage = 2u << 20;
    const auto begin = (reinterpret_cast<std::uintptr_t>(reserved.data()) + kLargePage - 1) / kLargePage * kLargePage;
    const auto end =
        (reinterpret_cast<std::uintptr_t>(reserved.data()) + reserved.capacity()) / kLargePage * kLargePage;
    if (begin < end) madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE); // advice: it may be refused
}

// A regular file, opened for reading, and its length.
struct OpenFile {
    Handle handle;
    std::uintmax_t size = 0;

    explicit OpenFile(const fs::path &file);
};

OpenFile::OpenFile(const fs::path &file)
    // Without O_NONBLOCK the open of a pipe would wait for a writer.
    : handle(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    // A socket gives ENXIO, whose words here are for a pipe that is written to.
    if (handle.number < 0) Fail(Fault::unreadable, file, errno == ENXIO ? ENODEV : errno);
    struct stat status {};
    if (fstat(handle.number, &status) != 0) Fail(Fault::unreadable, file, errno);
    if (!S_ISREG(status.st_mode))
        throw Refusal(Fault::unreadable, {"not-a-file", file.string(), KindOf(status.st_mode), "a file"});
    size = static_cast<std::uintmax_t>(status.st_size);
}

} // namespace

std::uintmax_t FileSize(const fs::path &file) { return OpenFile(file).size; }

Bytes ReadFile(const fs::path &file, std::uintmax_t most) {
    const OpenFile opened(file);
    const std::uintmax_t size = opened.size;
    if (size > most) throw Refusal(file, fmt::format("{} bytes", size), fmt::format("at most {}", most), "too-large");
    Bytes bytes;
    bytes.reserve(size);
    // Before resize() touches the pages: advice comes too late for those that are there.
    WantLargePages(bytes);
    bytes.resize(size);
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = read(opened.handle.number, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) Fail(Fault::unreadable, file, errno);
        // Somebody has made the file shorter since its size was asked.
        if (count == 0)
            throw Refusal(Fault::unreadable, {"unreadable", file.string(), fmt::format("ends at offset {}", done),
                                              fmt::format("{} bytes", size)});
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

// --- output

class OutputFile::Buffer : public std::streambuf {
public:
    explicit Buffer(fs::path given) : file(std::move(given)), target_(TargetOf(file)) {
        struct stat status {};
        const bool exists = stat(target_.c_str(), &status) == 0;
        if (!exists && errno != ENOENT) FailToWrite(file, errno);
        if (exists && S_ISDIR(status.st_mode))
            throw Refusal(Fault::output, {"not-a-file", file.string(), "a directory", "a file to write"});
        try {
            if (exists && !S_ISREG(status.st_mode))
                open_stream();
            else
                open_beside(exists ? &status : nullptr);
        } catch (...) {
            clear(); // the destructor does not run
            throw;
        }
        setp(bytes_.data(), bytes_.data() + bytes_.size());
    }
    ~Buffer() override { clear(); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

    void complete() {
        if (sync() != 0) FailToWrite(file, error_);
        if (replaces_ && name_.empty()) give_name();
    }
    void finish() {
        assert(handle_ >= 0 && "an output is finished once");
        complete();
        if (close(std::exchange(handle_, -1)) != 0) FailToWrite(file, errno);
        if (!replaces_) return;
        if (std::rename(name_.c_str(), target_.c_str()) != 0) FailToWrite(file, errno);
        Forget(std::exchange(name_, {}));
    }

    const fs::path file;

protected:
    int_type overflow(int_type next) override {
        if (sync() != 0) return traits_type::eof();
        if (!traits_type::eq_int_type(next, traits_type::eof())) sputc(traits_type::to_char_type(next));
        return traits_type::not_eof(next);
    }
    // Once a write has failed nothing more is tried: the first reason is the one to tell.
    int sync() override {
        const char *at = pbase();
        while (error_ == 0 && at != pptr()) {
            const ssize_t count = ::write(handle_, at, static_cast<std::size_t>(pptr() - at));
            if (count > 0) at += count;
            // Some devices take nothing without an error: asked again, they would be asked for ever.
            if (count == 0) error_ = EIO;
            if (count < 0 && errno != EINTR) error_ = errno;
        }
        setp(bytes_.data(), bytes_.data() + bytes_.size());
        return error_ == 0 ? 0 : -1;
    }

private:
    // Opened without waiting, so that a pipe without a reader is refused, and then set to wait for a slow one.
    void open_stream() {
        handle_ = open(target_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        if (handle_ < 0) FailToWrite(file, errno);
        const int flags = fcntl(handle_, F_GETFL);
        fcntl(handle_, F_SETFL, flags & ~O_NONBLOCK);
        replaces_ = false;
    }
    void open_beside(const struct stat *old) {
        constexpr mode_t kAnyWrite = S_IWUSR | S_IWGRP | S_IWOTH;
        // Whoever runs this may be allowed everything. A file that nobody may write was protected for a reason.
        if (old && (!(old->st_mode & kAnyWrite) || access(target_.c_str(), W_OK) != 0))
            throw Refusal(Fault::output,
                          {"unwritable", file.string(), "write-protected", "a file that may be written"});
        if (access(DirectoryOf(target_).c_str(), W_OK | X_OK) != 0) FailToWrite(file, errno);
        handle_ = open(DirectoryOf(target_).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        if (handle_ < 0) open_named();
        // The owner first: giving a file away clears bits of its mode.
        if (old && fchown(handle_, old->st_uid, old->st_gid) != 0 && errno != EPERM) FailToWrite(file, errno);
        if (fchmod(handle_, old ? old->st_mode & 07777 : Permitted(0666)) != 0) FailToWrite(file, errno);
    }
    void open_named() {
        // For file systems without O_TMPFILE.
        std::string name = (DirectoryOf(target_) / ".fixture-XXXXXX").string();
        handle_ = mkostemp(name.data(), O_CLOEXEC);
        if (handle_ < 0) FailToWrite(file, errno);
        name_ = name;
        Remember(name_);
    }
    void give_name() {
        // By way of /proc: to link a handle itself takes a privilege.
        const std::string self = fmt::format("/proc/self/fd/{}", handle_);
        for (;;) {
            // Remembered before it exists, or a signal between the two lines would leave the file behind.
            name_ = NameBeside(target_);
            Remember(name_);
            if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name_.c_str(), AT_SYMLINK_FOLLOW) == 0) return;
            const int error = errno;
            Forget(std::exchange(name_, {}));
            if (error != EEXIST) FailToWrite(file, error);
        }
    }
    void clear() {
        if (handle_ >= 0) close(handle_);
        if (name_.empty()) return;
        unlink(name_.c_str());
        Forget(name_);
    }

    fs::path target_;
    int handle_ = -1;
    bool replaces_ = true; // false: a device or a pipe
    std::string name_;     // of the file beside the target, while it has one
    int error_ = 0;
    std::array<char, 65536> bytes_;
};

OutputFile::OutputFile(fs::path file) : buffer_(std::make_unique<Buffer>(std::move(file))), stream_(buffer_.get()) {}
OutputFile::~OutputFile() = default;

const fs::path &OutputFile::file() const { return buffer_->file; }

void OutputFile::write(std::string_view text) { stream_.write(text.data(), std::ssize(text)); }
void OutputFile::write(std::span<const std::uint8_t> bytes) {
    stream_.write(reinterpret_cast<const char *>(bytes.data()), std::ssize(bytes));
}
std::ostream &OutputFile::stream() { return stream_; }
void OutputFile::complete() { buffer_->complete(); }
void OutputFile::finish() { buffer_->finish(); }

void OutputFiles::commit() {
    // Two rounds: where the disk is full, no output has taken its place yet.
    for (OutputFile &file : files_) file.complete();
    for (OutputFile &file : files_) file.finish();
}

void WriteFile(const fs::path &file, std::span<const std::uint8_t> bytes) {
    OutputFile output(file);
    output.write(bytes);
    output.finish();
}

void WriteFile(const fs::path &file, std::string_view text) {
    WriteFile(file, std::span(reinterpret_cast<const std::uint8_t *>(text.data()), text.size()));
}

// --- locks

namespace {

// A handle whose lock goes with it.
class Held {
public:
    explicit Held(int handle) : handle_(handle) {}
    ~Held() { close(handle_); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

private:
    int handle_;
};

// A directory is locked once for all new files that this process makes in it: a second lock of its own would wait for
// the first for ever.
std::shared_ptr<const Held> OwnDirectory(const struct stat &directory, int handle) {
    static std::map<std::pair<dev_t, ino_t>, std::weak_ptr<const Held>> held;
    auto &own = held[{directory.st_dev, directory.st_ino}];
    if (auto first = own.lock()) {
        close(handle);
        return first;
    }
    if (flock(handle, LOCK_EX | LOCK_NB) != 0) {
        close(handle);
        return nullptr;
    }
    auto first = std::make_shared<const Held>(handle);
    own = first;
    return first;
}

// What holds the file; null: somebody else holds it, or it was replaced meanwhile.
std::shared_ptr<const Held> TryLock(const fs::path &file) {
    struct stat held {
    }, named{};
    int handle = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (handle < 0 && errno == ENOENT) {
        // No file to hold yet: its directory stands in, so that two who would both create it wait for each other.
        handle = open(DirectoryOf(TargetOf(file)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (handle < 0 || fstat(handle, &held) != 0) Fail(Fault::unreadable, file, errno);
        const auto lock = OwnDirectory(held, handle);
        return stat(file.c_str(), &named) == 0 ? nullptr : lock;
    }
    if (handle < 0) Fail(Fault::unreadable, file, errno);
    auto lock = std::make_shared<const Held>(handle);
    if (flock(handle, LOCK_EX | LOCK_NB) != 0) return nullptr;
    // A writer renames: the name may lead to another file now, which this lock does not hold.
    const bool same = stat(file.c_str(), &named) == 0 && fstat(handle, &held) == 0 && held.st_dev == named.st_dev &&
                      held.st_ino == named.st_ino;
    return same ? lock : nullptr;
}

} // namespace

FileLock::FileLock(const fs::path &file, double seconds) : held_(TryLock(file)) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (!held_) {
        if (Clock::now() > end)
            throw Refusal(Fault::output, {"in-use", file.string(), "another process is changing it", ""});
        // Asked again and again, since a wait in flock() has no time limit.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        held_ = TryLock(file);
    }
}

// --- directories

namespace {

// The directory's name without a separator at its end.
fs::path Plain(const fs::path &directory) {
    const fs::path normal = fs::absolute(directory).lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

// While there is a new directory, signals that would end the process wait: what lies in it would stay. One at a time.
sigset_t signals_before;

} // namespace

NewDirectory::NewDirectory(const fs::path &target) : target_(Plain(target)) {
    std::string name = (target_.parent_path() / ("." + target_.filename().string() + ".XXXXXX")).string();
    sigset_t endings;
    sigemptyset(&endings);
    for (const int signal : kEndingSignals) sigaddset(&endings, signal);
    sigprocmask(SIG_BLOCK, &endings, &signals_before);
    if (mkdtemp(name.data())) {
        path_ = name;
        return;
    }
    const int error = errno;
    sigprocmask(SIG_SETMASK, &signals_before, nullptr);
    FailToWrite(target, error);
}

NewDirectory::~NewDirectory() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
    sigprocmask(SIG_SETMASK, &signals_before, nullptr);
}

void NewDirectory::take_place() {
    if (chmod(path_.c_str(), Permitted(0777)) != 0) FailToWrite(target_, errno);
    // An empty directory is replaced by this too.
    if (std::rename(path_.c_str(), target_.c_str()) == 0) return path_.clear();
    if (errno != ENOTEMPTY && errno != EEXIST) FailToWrite(target_, errno);
    // The two swap names in one step; the old one then goes with this object.
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, target_.c_str(), RENAME_EXCHANGE) != 0)
        FailToWrite(target_, errno);
}

} // namespace fixture
