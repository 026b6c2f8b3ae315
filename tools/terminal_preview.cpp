#include "tools/terminal_preview.h"

#include "machine/installation.h"

#include <array>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fixture {

namespace {

// The program that prints does not know every terminal: it takes one that it does not know for one with colours.
bool ShowsColours(const char *const *environment) {
    std::string_view terminal;
    for (; *environment != nullptr; ++environment) {
        const std::string_view variable = *environment;
        if (variable.starts_with("TERM=")) terminal = variable.substr(5);
        // Set but empty counts as not set: that is how the convention has it.
        if (variable.starts_with("NO_COLOR=") && variable != "NO_COLOR=") return false;
    }
    return !terminal.empty() && terminal != "dumb";
}

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{-1, -1};
        // Closed on exec: a child that kept its own writing end would never see the end of its input.
        if (pipe2(ends.data(), O_CLOEXEC) == 0) read_end = ends[0], write_end = ends[1];
    }
    ~Pipe() {
        shut(read_end);
        shut(write_end);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    static void shut(int &end) {
        if (end >= 0) close(end);
        end = -1;
    }

    int read_end = -1;
    int write_end = -1;
};

// Writes `input` and reads what comes, whichever goes, until the other side has closed its end.
std::string Exchange(Pipe &to, Pipe &from, std::string_view input) {
    fcntl(to.write_end, F_SETFL, O_NONBLOCK); // else a write of more than the pipe holds would wait for good
    std::string output;
    std::array<char, 65536> buffer;
    for (;;) {
        std::array<pollfd, 2> ends{pollfd{from.read_end, POLLIN, 0}, pollfd{to.write_end, POLLOUT, 0}};
        if (poll(ends.data(), ends.size(), -1) < 0) return output;
        // A closed end has the number -1, which poll passes over.
        if (ends[1].revents != 0) {
            const ssize_t written = write(to.write_end, input.data(), input.size());
            if (written > 0) input.remove_prefix(static_cast<std::size_t>(written));
            // The end of the input is what the child waits for before it draws.
            if (written < 0 || input.empty()) Pipe::shut(to.write_end);
        }
        if (ends[0].revents == 0) continue;
        const ssize_t count = read(from.read_end, buffer.data(), buffer.size());
        if (count <= 0) return output;
        output.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

// What a program prints that is given `input`; empty where it does not run or ends badly.
std::string OutputOf(const std::vector<std::string> &words, std::string_view input, const char *const *environment) {
    Pipe to, from;
    // No preview is no failure: the board has run, and its verdict stands.
    if (to.write_end < 0 || from.read_end < 0) return {};
    std::vector<char *> arguments;
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_adddup2(&streams, to.read_end, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&streams, from.write_end, STDOUT_FILENO);
    pid_t child = -1;
    const int failed =
        posix_spawn(&child, arguments[0], &streams, nullptr, arguments.data(), const_cast<char *const *>(environment));
    posix_spawn_file_actions_destroy(&streams);
    if (failed != 0) return {};
    // The child holds its own copies. With these left open, the end of its output would never be seen.
    Pipe::shut(to.read_end);
    Pipe::shut(from.write_end);
    const std::string output = Exchange(to, from, input);
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? output : std::string{};
}

} // namespace

std::string TerminalPreview(const Picture &picture, int columns, int rows, const char *const *environment) {
    // Cheaper than starting a process to find out.
    if (!ShowsColours(environment) || picture.pixels.empty()) return {};
    std::string file = fmt::format("P6 {} {} 255\n", picture.width, picture.height);
    file.append(reinterpret_cast<const char *>(picture.pixels.data()), picture.pixels.size() * 3);
    return OutputOf({PreviewProgram().string(), std::to_string(columns), std::to_string(rows)}, file, environment);
}

void PrintPreview(std::FILE *stream, const Picture &picture) {
    winsize size{};
    if (isatty(fileno(stream)) == 0 || ioctl(fileno(stream), TIOCGWINSZ, &size) != 0) return;
    // One row is left for the prompt, or the first row of the picture would scroll away.
    const std::string text = TerminalPreview(picture, size.ws_col, size.ws_row - 1, environ);
    std::fwrite(text.data(), 1, text.size(), stream);
}

} // namespace fixture
