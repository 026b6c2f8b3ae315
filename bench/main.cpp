// make bench: speed on the emulated processor, the same figures on every machine and every run.
//
//   fixture-bench                   prints the table, and what whole boots spend their time on, as docs/bench.txt
//                                   records it
//   fixture-bench docs/bench.txt    prints it and compares: exit status 1 where a figure has got worse by more than one
//                                   part in a hundred, or is missing on either side
#include "harness/boot_speed.h"
#include "harness/speed.h"

#include <fmt/format.h>
#include <fstream>
#include <map>
#include <stdexcept>

namespace fixture {

namespace {

constexpr std::size_t kNameWidth = 32;
constexpr double kAllowance = 1.01;

SpeedRows Measure(const std::vector<MeasuredBoot> &boots) {
    SpeedRows all;
    for (const MeasuredBoot &boot : boots) all.push_back(boot.row);
    for (const SpeedRows &rows : {NandSpeed(), DataflashSpeed(), PathSpeed(), PanelSpeed()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

void Print(const SpeedRows &rows) {
    fmt::print("{:{}} {:>12}  {:18} {:>12} {:>7}  {}\n", "figure", kNameWidth, "now", "unit", "limit", "ratio",
               "the limit is");
    for (const SpeedRow &row : rows)
        fmt::print("{:{}} {:12.4f}  {:18} {:12.4f} {:7.4f}  {}\n", row.what, kNameWidth, row.value, row.unit, row.limit,
                   row.ratio(), row.limit_is);
}

void Print(const std::vector<MeasuredBoot> &boots) {
    for (const MeasuredBoot &boot : boots) fmt::print("\n{}\n{}", boot.row.what, boot.timeline);
}

// What an earlier run printed, up to the first empty line: figures by name.
std::map<std::string, double> ReadRecord(const char *file) {
    std::ifstream in(file);
    if (!in) throw std::runtime_error(fmt::format("{}: cannot be opened", file));
    std::map<std::string, double> record;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line) && !line.empty()) {
        if (line.size() <= kNameWidth) throw std::runtime_error(fmt::format("{}: no figure in \"{}\"", file, line));
        const std::size_t end = line.find_last_not_of(' ', kNameWidth - 1);
        record[line.substr(0, end + 1)] = std::stod(line.substr(kNameWidth));
    }
    return record;
}

// Says what has got worse; returns how many figures have.
int Compare(const SpeedRows &rows, std::map<std::string, double> record) {
    int worse = 0;
    for (const SpeedRow &row : rows) {
        const auto before = record.find(row.what);
        if (before == record.end()) {
            fmt::print(stderr, "not recorded: {}\n", row.what);
            ++worse;
            continue;
        }
        if (row.value > before->second * kAllowance) {
            fmt::print(stderr, "worse: {}: {:.4f} {}, recorded {:.4f}\n", row.what, row.value, row.unit,
                       before->second);
            ++worse;
        }
        record.erase(before);
    }
    for (const auto &[what, value] : record) fmt::print(stderr, "recorded, but no longer measured: {}\n", what);
    return worse + static_cast<int>(record.size());
}

} // namespace

} // namespace fixture

using namespace fixture;

int main(int count, char **arguments) {
    try {
        const std::vector<MeasuredBoot> boots = BootSpeed();
        const SpeedRows rows = Measure(boots);
        Print(rows);
        Print(boots);
        if (count < 2 || Compare(rows, ReadRecord(arguments[1])) == 0) return 0;
        fmt::print(stderr, "if that is meant: make bench-record, and commit docs/bench.txt\n");
    } catch (const std::exception &error) {
        fmt::print(stderr, "fixture-bench: {}\n", error.what());
    }
    return 1;
}
