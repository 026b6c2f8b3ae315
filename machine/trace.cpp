#include "machine/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <stdexcept>

namespace fixture {

namespace {

constexpr EventKind kKinds[] = {EventKind::access, EventKind::chip,  EventKind::violation, EventKind::console,
                                EventKind::file,   EventKind::reset, EventKind::stage,     EventKind::power};

// "NAND*" stands for all that begin so.
bool Matches(const std::string &name, const std::string &wanted) {
    if (wanted.ends_with('*')) return name.compare(0, wanted.size() - 1, wanted, 0, wanted.size() - 1) == 0;
    return name == wanted;
}

bool MatchesAny(const std::string &name, const std::vector<std::string> &wanted) {
    return std::any_of(wanted.begin(), wanted.end(), [&](const std::string &one) { return Matches(name, one); });
}

int LeaveOpen(std::FILE *file) { return std::fflush(file); }

std::unique_ptr<std::FILE, int (*)(std::FILE *)> Open(const std::string &file) {
    if (file == "-") return {stdout, LeaveOpen};
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> opened(std::fopen(file.c_str(), "w"), std::fclose);
    if (!opened) throw std::runtime_error(fmt::format("{}: {}", file, std::strerror(errno)));
    return opened;
}

} // namespace

std::vector<std::string> Words(const std::string &list) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        if (end > begin) words.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

std::set<EventKind> EventKinds(const std::string &list) {
    std::set<EventKind> kinds;
    for (const std::string &word : Words(list)) {
        const auto found =
            std::find_if(std::begin(kKinds), std::end(kKinds), [&](EventKind kind) { return word == NameOf(kind); });
        if (found == std::end(kKinds)) {
            std::string names;
            for (const EventKind kind : kKinds) names += fmt::format(" {}", NameOf(kind));
            throw std::invalid_argument(fmt::format("no kind of event '{}'; there are:{}", word, names));
        }
        kinds.insert(*found);
    }
    return kinds;
}

bool TraceFilter::passes(const Event &event) const {
    if (event.time < from || event.time > until) return false;
    if (!kinds.empty() && !kinds.contains(event.kind)) return false;
    if (!peripherals.empty() && !MatchesAny(event.where.substr(0, event.where.find('.')), peripherals)) return false;
    return functions.empty() || (event.pc && MatchesAny(event.symbols->routine(event.pc), functions));
}

std::string TraceLine(const Event &event) {
    std::string line = fmt::format("{:10}.{:03} us  {:9}  {}", event.time / kMicrosecond,
                                   event.time / kNanosecond % 1000, NameOf(event.kind), DescribeEvent(event));
    if (event.pc) line += "  " + event.symbols->place(event.pc);
    return line + "\n";
}

Trace::Trace(const std::string &file, TraceFilter filter, std::size_t last)
    : filter_(std::move(filter)), last_(last), ring_(last), file_(Open(file)) {}

Trace::~Trace() {
    for (const Event &event : ring_.in_order()) print(event);
    std::fwrite(buffer_.data(), 1, buffer_.size(), file_.get());
}

void Trace::add(const Event &event) {
    if (!filter_.passes(event)) return;
    if (last_ > 0) return ring_.add(event);
    print(event);
}

void Trace::print(const Event &event) {
    constexpr std::size_t kPiece = 1 << 16;
    buffer_ += TraceLine(event);
    if (buffer_.size() < kPiece) return;
    std::fwrite(buffer_.data(), 1, buffer_.size(), file_.get());
    buffer_.clear();
}

} // namespace fixture
