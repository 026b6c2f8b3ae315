#include "machine/trace.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

namespace {

double Microseconds(Picoseconds time) { return static_cast<double>(time) / static_cast<double>(kMicrosecond); }

} // namespace

Trace::Trace(const std::string &file, Board &board) : board_(board), file_(std::fopen(file.c_str(), "w"), std::fclose) {
    if (!file_) throw std::runtime_error(fmt::format("{}: {}", file, std::strerror(errno)));
    board_.bus.observer = [this](const BusAccess &made) { access(made); };
    board_.journal.listener = [this](const JournalEntry &entry) {
        finish_run();
        fmt::print(file_.get(), "{:14.3f} us  {}: {}\n", Microseconds(entry.time), entry.where, entry.what);
    };
}

Trace::~Trace() {
    finish_run();
    board_.bus.observer = nullptr;
    board_.journal.listener = nullptr;
}

void Trace::finish_run() {
    if (repeats_ > 0) fmt::print(file_.get(), "{:>14}     ... and {} more\n", "", repeats_);
    repeats_ = 0;
    last_ = {};
}

void Trace::access(const BusAccess &made) {
    const bool same_place =
        made.address == last_.address && made.is_write == last_.is_write && made.bytes == last_.bytes;
    const bool data_port = made.bytes < 4; // registers are words
    if (same_place && (data_port || made.value == last_.value)) {
        repeats_++;
        return;
    }
    finish_run();
    last_ = made;
    fmt::print(file_.get(), "{:14.3f} us  {} {} {} 0x{:0{}X}\n", Microseconds(made.time), made.is_write ? "W" : "R",
               board_.bus.name_of(made.address), made.is_write ? "<-" : "->", made.value, 2 * made.bytes);
}

} // namespace fixture
