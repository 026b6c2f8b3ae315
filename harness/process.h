// `fixture` itself as a process of its own, for what only a process can meet: closed streams, signals, others of its
// kind.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fixture {

enum class StreamTo { file, closed, full };

class Process {
public:
    // Starts the `fixture` beside this program. Standard output and standard error go to one file, unless told
    // otherwise.
    explicit Process(const std::vector<std::string> &arguments, StreamTo output = StreamTo::file,
                     StreamTo error = StreamTo::file);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void send(int signal) const;
    // Waits for the end. The exit status, or 128 and the signal that ended it.
    int wait();
    // What it wrote, after the end.
    std::string text() const;

private:
    int file_;
    pid_t child_;
    std::optional<int> status_;
};

// The standard output of another program, by a command of the shell.
std::string Output(const std::string &command);

} // namespace fixture
