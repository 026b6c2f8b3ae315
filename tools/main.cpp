// fixture: the virtual fixture and the tools around it, one subcommand each.
#include "tools/commands.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A stream that the caller has closed would give its number to the first file that is opened, and output would go into
// that file. A full device takes its place: whatever is written fails, and is told by the exit status.
void ReplaceClosedStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0 && open(stream == STDIN_FILENO ? "/dev/null" : "/dev/full", O_RDWR) != stream)
            _exit(fixture::kStreamFailed);
}

} // namespace

int main(int argc, char **argv) {
    ReplaceClosedStreams();
    std::signal(SIGPIPE, SIG_IGN); // a write says so itself
    return fixture::RunCall(fixture::AllCommands(), {argv + 1, argv + argc});
}
