#include "harness/process.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace fixture {

namespace {

void Connect(int stream, StreamTo to, int file) {
    if (to == StreamTo::closed) close(stream);
    if (to == StreamTo::full) dup2(open("/dev/full", O_WRONLY), stream);
    if (to == StreamTo::file) dup2(file, stream);
}

} // namespace

Process::Process(const std::vector<std::string> &arguments, StreamTo output, StreamTo error)
    : file_(open("/tmp", O_TMPFILE | O_RDWR | O_APPEND | O_CLOEXEC, 0600)) {
    if (file_ < 0) throw std::runtime_error("no temporary file for a process's streams");
    const std::string program = std::filesystem::canonical("/proc/self/exe").parent_path() / "fixture";
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> pointers;
    // Everything is allocated before the fork: a child of a process with threads may only call what is safe in a signal
    // handler.
    pointers.reserve(words.size() + 1);
    for (std::string &word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    child_ = fork();
    if (child_ < 0) throw std::runtime_error("no process to be had");
    if (child_ > 0) return;
    Connect(STDOUT_FILENO, output, file_);
    Connect(STDERR_FILENO, error, file_);
    execv(program.c_str(), pointers.data());
    // As a shell reports a program that cannot be started. Not exit(): the parent's buffers would be written twice.
    _exit(127);
}

Process::~Process() {
    if (!status_) {
        // A test that failed half-way must not leave a process behind that holds a lock or a port.
        kill(child_, SIGKILL);
        wait();
    }
    close(file_);
}

void Process::send(int signal) const { kill(child_, signal); }

int Process::wait() {
    int status = 0;
    if (status_ || waitpid(child_, &status, 0) != child_) return status_.value_or(-1);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return *status_;
}

std::string Output(const std::string &command) {
    std::FILE *const program = popen(command.c_str(), "r");
    if (!program) throw std::runtime_error("no shell to be had");
    std::string text;
    char part[4096];
    for (std::size_t count; (count = std::fread(part, 1, sizeof part, program)) > 0;) text.append(part, count);
    pclose(program);
    return text;
}

std::string Process::text() const {
    std::string all(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
    const ssize_t count = pread(file_, all.data(), all.size(), 0);
    all.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return all;
}

} // namespace fixture
