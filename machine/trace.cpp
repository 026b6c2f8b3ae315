#include "machine/trace.h"

#include "formats/refusal.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace fixture {

namespace {

constexpr EventKind kKinds[] = {EventKind::access, EventKind::chip,  EventKind::violation, EventKind::console,
                                EventKind::file,   EventKind::reset, EventKind::stage,     EventKind::power};

bool MatchesAny(const std::string &name, const std::vector<std::string> &wanted) {
    return std::any_of(wanted.begin(), wanted.end(), [&](const std::string &one) { return Matches(name, one); });
}

} // namespace

std::vector<std::string> Words(const std::string &list) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        // Empty words are left out, so that a list may end in a comma.
        if (end > begin) words.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

bool Matches(std::string_view name, std::string_view wanted) {
    if (wanted.ends_with('*')) return name.starts_with(wanted.substr(0, wanted.size() - 1));
    return name == wanted;
}

std::set<EventKind> EventKinds(const std::string &list) {
    std::set<EventKind> kinds;
    for (const std::string &word : Words(list)) {
        const auto found =
            std::find_if(std::begin(kKinds), std::end(kKinds), [&](EventKind kind) { return word == NameOf(kind); });
        if (found == std::end(kKinds)) {
            std::string names;
            for (const EventKind kind : kKinds) names += fmt::format(" {}", NameOf(kind));
            throw Refusal(Fault::call, {"wrong-call", "--trace-kind", fmt::format("no kind of event \"{}\"", word),
                                        "one of" + names});
        }
        kinds.insert(*found);
    }
    return kinds;
}

bool TraceFilter::passes(const Event &event) const {
    // The cheap questions first: this is asked of every register access.
    if (event.time < from || event.time > until) return false;
    if (!kinds.empty() && !kinds.contains(event.kind)) return false;
    if (!peripherals.empty() && !MatchesAny(event.where.substr(0, event.where.find('.')), peripherals)) return false;
    // Natively there is no place, so a filter by routine lets nothing pass.
    return functions.empty() || (event.pc && MatchesAny(event.symbols->routine(event.pc), functions));
}

std::string TraceLine(const Event &event) {
    // Ten digits hold runs of more than two hours in one column.
    std::string line = fmt::format("{:10}.{:03} us  {:9}  {}", event.time / kMicrosecond,
                                   event.time / kNanosecond % 1000, NameOf(event.kind), DescribeEvent(event));
    if (event.pc) line += "  " + event.symbols->place(event.pc);
    return line + "\n";
}

Trace::Trace(std::ostream &out, TraceFilter filter, std::size_t last)
    : filter_(std::move(filter)), last_(last), ring_(last), out_(out) {}

Trace::~Trace() {
    // Empty unless only the last events were asked for.
    for (const Event &event : ring_.in_order()) print(event);
}

void Trace::add(const Event &event) {
    if (!filter_.passes(event)) return;
    if (last_ > 0) return ring_.add(event);
    print(event);
}

void Trace::print(const Event &event) { out_ << TraceLine(event); }

} // namespace fixture
