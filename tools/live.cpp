#include "tools/live.h"

#include "tools/terminal_preview.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace fixture {

namespace {

constexpr int kPanelRows = 30; // 240 lines of pixels, eight to a character
// A console of fewer rows shows too little to be worth the picture above it.
constexpr int kConsoleRowsLeast = 6;

} // namespace

Live::Live(double pace) : pace_(pace), begin_(std::chrono::steady_clock::now()) {
    winsize size{};
    if (isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return;
    // The line between panel and console is the caption's.
    const int room = size.ws_row - kConsoleRowsLeast - 1;
    // Tried with a blank picture: only the program that draws knows what this terminal can show.
    if (room < 4 || TerminalPreview(Picture(320, 240), size.ws_col, room, environ).empty()) return;
    // Set last: until then the destructor leaves the terminal alone.
    rows_ = std::min(kPanelRows, room);
    columns_ = size.ws_col;
    // Clear; the console scrolls in the lines below the panel and its caption.
    fmt::print("\x1b[2J\x1b[{};{}r\x1b[{};1H", rows_ + 2, size.ws_row, rows_ + 2);
    std::fflush(stdout);
}

Live::~Live() {
    if (rows_ == 0) return;
    // Resetting the scroll region moves the cursor, so its place is kept around it.
    fmt::print("\x1b[s\x1b[r\x1b[u\n");
    std::fflush(stdout);
}

void Live::wait_for(Picoseconds time) const {
    const double seconds = static_cast<double>(time) / static_cast<double>(kSecond) / pace_;
    std::fflush(stdout);
    // Counted from the start, so that the time spent drawing does not add up and slow the pace.
    std::this_thread::sleep_until(begin_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                               std::chrono::duration<double>(seconds)));
}

void Live::show(const Picture &picture, Picoseconds time) const {
    if (rows_ == 0) return;
    fmt::print("\x1b[s\x1b[1;1H{}\x1b[{};1H\x1b[2K{:.3f} ms\x1b[u", TerminalPreview(picture, columns_, rows_, environ),
               rows_ + 1, Milliseconds(time));
    std::fflush(stdout);
}

} // namespace fixture
