#include "tools/timeline_table.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::size_t kMostColumns = 5; // of starts; more do not fit a line

std::string Line(const std::string &name, const std::vector<Picoseconds> &starts, const TimeSpent &spent,
                 const TimeSpent &boot) {
    std::string line = fmt::format("{:14}", name);
    for (const Picoseconds time : starts) line += fmt::format(" {:11.3f}", Milliseconds(time));
    return line + fmt::format(" {:11.3f} {:6.2f} % {:11.3f}", Milliseconds(spent.time),
                              100 * static_cast<double>(spent.time) / static_cast<double>(boot.time),
                              Milliseconds(spent.dictated));
}

nlohmann::ordered_json ToJson(const TimeSpent &spent) {
    return {{"ms", Milliseconds(spent.time)}, {"dictated_ms", Milliseconds(spent.dictated)}};
}

} // namespace

std::string TimelineTable(const Timeline &timeline) {
    const TimeSplit sum = timeline.sum();
    const TimeSpent boot = timeline.total();
    // Without a bootloader no time passes, and there are no shares of nothing.
    if (boot.time == 0) return "virtual ms: nothing ran\n";
    // All of them or none: the first five of a loop would not add up to the sum beside them.
    const std::size_t columns = timeline.starts().size() > kMostColumns ? 0 : timeline.starts().size();
    std::string text = fmt::format("{:14}", "virtual ms");
    for (std::size_t start = 0; start < columns; ++start)
        text += fmt::format(" {:>11}", fmt::format("start {}", start + 1));
    text += fmt::format(" {:>11} {:>8} {:>11}\n", "all", "share", "dictated");
    std::vector<Picoseconds> whole(columns);
    for (std::size_t cause = 0; cause < kCauses; ++cause) {
        // A cause that took no time anywhere is a line that says nothing.
        if (sum[cause].time == 0) continue;
        // What was launched is no part of the boot, whose last line must stay the boot's.
        const bool counts = static_cast<Cause>(cause) != Cause::application;
        std::vector<Picoseconds> each;
        for (std::size_t start = 0; start < columns; ++start) {
            each.push_back(timeline.starts()[start][cause].time);
            if (counts) whole[start] += each.back();
        }
        text += Line(NameOf(static_cast<Cause>(cause)), each, sum[cause], boot) + "\n";
    }
    text += Line("boot", whole, boot, boot);
    return text + (boot.dictated > 0 ? fmt::format("  {:.4f} times what is dictated\n", boot.ratio()) : "\n");
}

nlohmann::ordered_json TimelineJson(const Timeline &timeline) {
    const TimeSpent boot = timeline.total();
    nlohmann::ordered_json json = ToJson(boot);
    // Left out rather than null, as JSON would have the quotient of nothing.
    if (boot.dictated > 0) json["ratio"] = boot.ratio();
    if (boot.time > 0) json["rest"] = timeline.rest();
    json["starts"] = nlohmann::ordered_json::array();
    for (const TimeSplit &start : timeline.starts()) {
        nlohmann::ordered_json causes = nlohmann::ordered_json::object();
        for (std::size_t cause = 0; cause < kCauses; ++cause)
            // A missing cause took no time, as in the table.
            if (start[cause].time > 0) causes[NameOf(static_cast<Cause>(cause))] = ToJson(start[cause]);
        json["starts"].push_back(causes);
    }
    return json;
}

} // namespace fixture
