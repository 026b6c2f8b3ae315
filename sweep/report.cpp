#include "sweep/report.h"

#include <algorithm>
#include <cassert>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

namespace fixture {

namespace {

// Cold boots a second of one processor core.
double Rate(const Tally &tally) {
    // By processor time: a rate by the clock would say how many workers there were, and what else the machine did.
    return tally.processor_seconds > 0 ? static_cast<double>(tally.boots) / tally.processor_seconds : 0;
}

std::uint64_t Good(const Tally &tally) {
    const auto good = tally.outcomes.find(NameOf(Outcome::good));
    return good == tally.outcomes.end() ? 0 : good->second;
}

// What fell through the layout's holes: not good, and no finding.
std::uint64_t InHoles(const Tally &tally) {
    std::uint64_t count = 0;
    for (const auto &[hole, what] : tally.holes)
        // "seen" marks a case that met the hole and came out good.
        for (const auto &[outcome, times] : what)
            if (outcome != NameOf(Outcome::good) && outcome != "seen") count += times;
    return count;
}

const char *ProcessorOf(const SweepPlan &plan) {
    return plan.on_host && plan.on_arm ? "both" : plan.on_host ? "host" : "arm";
}

const char *AgainOf(const SweepPlan &plan) {
    return plan.skips ? "left out again from the power-up on" : "cuts made again by cutting the power";
}

void PrintFindings(const std::vector<Finding> &all, std::uint64_t found) {
    // By outcome: one mistake mostly shows as one outcome in many cases.
    std::map<std::string, std::vector<const Finding *>> grouped;
    for (const Finding &finding : all) grouped[finding.outcome].push_back(&finding);
    for (const auto &[outcome, findings] : grouped) {
        fmt::print("\n{}\n", outcome);
        for (const Finding *finding : findings)
            fmt::print("  {} {}{}{}\n", finding->id, finding->processor, finding->detail.empty() ? "" : ": ",
                       finding->detail);
    }
    // Each variant keeps its first findings only.
    if (found > all.size()) fmt::print("  ... {} in all\n", found);
}

} // namespace

void PrintSweep(const SweepPlan &plan, const SweepResult &result) {
    constexpr const char *kRow = "{:<24} {:>8} {:>10} {:>9} {:>9} {:>9} {:>9} {:>8} {:>8}\n";
    fmt::print(kRow, "scenario", "variants", "operations", "cuts", "cases", "boots", "good", "in holes", "findings");
    const auto row = [&](const std::string &name, const Tally &tally) {
        fmt::print(kRow, name, tally.variants, tally.operations, tally.cuts, tally.cases, tally.boots, Good(tally),
                   InHoles(tally), tally.found);
    };
    for (std::size_t n = 0; n < plan.scenarios.size(); ++n) row(plan.scenarios[n].name, result.scenarios[n]);
    // The sum of a single row would only repeat it.
    if (plan.scenarios.size() > 1) row("all", result.all);
    for (const auto &[hole, what] : result.all.holes) {
        fmt::print("\nhole: {}\n", hole);
        for (const auto &[outcome, count] : what) fmt::print("  {:>8} {}\n", count, outcome);
    }
    PrintFindings(result.all.findings, result.all.found);
    fmt::print("\n{} on {}, {:.0f} processor seconds, {:.0f} cold boots a second; {} {}",
               plan.skips         ? "one instruction left out"
               : plan.losses == 1 ? "one loss of power"
                                  : "two losses of power",
               ProcessorOf(plan), result.all.processor_seconds, Rate(result.all), result.all.checked, AgainOf(plan));
    if (result.all.compared) fmt::print("; {} cases the same on both processors", result.all.compared);
    if (result.all.foretold) fmt::print("; {} boots as explain foretells them", result.all.foretold);
    fmt::print("\n");
}

std::string SweepJson(const SweepPlan &plan, const SweepResult &result) {
    using nlohmann::ordered_json;
    const auto row = [](const Tally &tally) {
        ordered_json json{
            {"variants", tally.variants}, {"operations", tally.operations}, {"cuts", tally.cuts},
            {"cases", tally.cases},       {"boots", tally.boots},           {"checked", tally.checked},
            {"compared", tally.compared}, {"foretold", tally.foretold},     {"outcomes", tally.outcomes},
            {"holes", tally.holes},       {"found", tally.found},           {"findings", ordered_json::array()}};
        for (const Finding &finding : tally.findings)
            json["findings"].push_back({{"id", finding.id},
                                        {"processor", finding.processor},
                                        {"outcome", finding.outcome},
                                        {"detail", finding.detail}});
        return json;
    };
    ordered_json json{{"processor", ProcessorOf(plan)},
                      {"losses", plan.losses},
                      {"sample", plan.sample},
                      {"seed", plan.seed},
                      {"processor_seconds", result.all.processor_seconds},
                      {"scenarios", ordered_json::array()},
                      {"all", row(result.all)}};
    for (std::size_t n = 0; n < plan.scenarios.size(); ++n) {
        ordered_json scenario{{"name", plan.scenarios[n].name}};
        scenario.update(row(result.scenarios[n]));
        json["scenarios"].push_back(std::move(scenario));
    }
    // A detail may quote the name of a file, which need not be UTF-8.
    return json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace);
}

// --- closures

namespace {

struct ClosureRow {
    std::uint64_t variants = 0, closed = 0, states = 0, cuts = 0, boots = 0, left = 0, depth = 0, longest = 0,
                  members = 0, twins = 0, checked = 0;
    std::uint64_t good = 0, found = 0, kilobytes = 0;
    double processor_seconds = 0;
    std::map<std::string, std::map<std::string, std::uint64_t>> holes;
    std::vector<Finding> findings;
    std::set<std::string> edges;

    void add(const ClosureTally &tally) {
        ++variants;
        closed += tally.closed();
        states += tally.states;
        cuts += tally.cuts;
        boots += tally.boots;
        left += tally.left;
        members += tally.members;
        twins += tally.twins;
        checked += tally.checked;
        // The first entry counts the state before any loss.
        depth = std::max<std::uint64_t>(depth, tally.depths.empty() ? 0 : tally.depths.size() - 1);
        longest = std::max(longest, tally.longest_recovery);
        const auto all_well = tally.outcomes.find(NameOf(Outcome::good));
        good += all_well == tally.outcomes.end() ? 0 : all_well->second;
        found += tally.found;
        // A maximum, not a sum: it says what a machine must have for each process.
        kilobytes = std::max(kilobytes, tally.peak_kilobytes);
        processor_seconds += tally.processor_seconds;
        for (const auto &[hole, what] : tally.holes)
            for (const auto &[outcome, count] : what) holes[hole][outcome] += count;
        findings.insert(findings.end(), tally.findings.begin(), tally.findings.end());
        edges.insert(tally.edges.begin(), tally.edges.end());
    }
};

std::string NameOf(const ClosurePlan &plan, const ClosureUnit &unit) {
    // The host is the usual processor, and goes unnamed.
    const char *processor = unit.processor == ProcessorKind::host ? "" : ", ARM image";
    return fmt::format("{}/{}{}{}", plan.scenarios.at(unit.scenario).name, unit.variant->label, processor,
                       unit.exact ? ", every byte" : "");
}

std::string Closed(const ClosureTally &tally) {
    return tally.closed() ? "yes" : fmt::format("no: {} states left", tally.left);
}

std::string DepthsOf(const ClosureTally &tally) { return fmt::format("{}", fmt::join(tally.depths, " ")); }

ClosureRow SumOf(const std::vector<ClosureTally> &tallies) {
    ClosureRow all;
    for (const ClosureTally &tally : tallies) all.add(tally);
    return all;
}

} // namespace

void PrintClosure(const ClosurePlan &plan, const std::vector<ClosureTally> &tallies) {
    constexpr const char *kRow = "{:<44} {:>7} {:>9} {:>6} {:>9} {:>8} {:>8}  {}\n";
    const std::vector<ClosureUnit> units = UnitsOf(plan);
    fmt::print(kRow, "variant", "states", "cuts", "losses", "recovery", "findings", "seconds", "closed");
    for (std::size_t n = 0; n < units.size(); ++n) {
        ClosureRow row;
        row.add(tallies.at(n));
        fmt::print(kRow, NameOf(plan, units[n]), row.states, row.cuts, row.depth, row.longest, row.found,
                   fmt::format("{:.1f}", row.processor_seconds), Closed(tallies[n]));
    }
    const ClosureRow all = SumOf(tallies);
    for (const auto &[hole, what] : all.holes) {
        fmt::print("\nhole: {}\n", hole);
        for (const auto &[outcome, count] : what) fmt::print("  {:>8} {}\n", count, outcome);
    }
    PrintFindings(all.findings, all.found);
    fmt::print("\n{} of {} closed: {} states, {} cuts, {} boots, {:.0f} processor seconds, at most {} MB a process; {} "
               "states reached again by cutting the power\n",
               all.closed, all.variants, all.states, all.cuts, all.boots, all.processor_seconds, all.kilobytes / 1024,
               all.checked);
}

std::string ClosureJson(const ClosurePlan &plan, const std::vector<ClosureTally> &tallies) {
    using nlohmann::ordered_json;
    const std::vector<ClosureUnit> units = UnitsOf(plan);
    ordered_json json{{"ways", plan.limits.ways},
                      {"near", plan.limits.near},
                      {"most_states", plan.limits.most_states},
                      {"seed", plan.limits.seed},
                      {"closures", ordered_json::array()}};
    for (std::size_t n = 0; n < units.size(); ++n) {
        ordered_json row{{"name", NameOf(plan, units[n])},
                         {"medium", NameOf(units[n].variant->setup.medium)},
                         {"closed", tallies[n].closed()}};
        // The text that workers and parts hand over, so that every field of a tally is in the report.
        row.update(ordered_json::parse(ToText(tallies[n])));
        json["closures"].push_back(std::move(row));
    }
    return json.dump(2);
}

// --- the document

namespace {

std::string Extent(const SweepPlan &plan) {
    if (plan.skips)
        return fmt::format("A seeded sample: {} of each scenario, at every place of the code that an update executes.",
                           plan.sample);
    if (plan.sample == 0)
        return "Every cut; of images that fill a slot, of each lost DataFlash program and of hostile boards a\n"
               "seeded sample, with all cuts of the first and the last two operations.";
    return fmt::format("A seeded sample: about {} cuts of each scenario, beside its uncut runs.", plan.sample);
}

std::string Table(const SweepPlan &plan, const SweepResult &result) {
    std::string text =
        "| scenario | what is swept | variants | operations | cuts visited | cases | cold boots | good | in "
        "named holes | findings |\n|---|---|--:|--:|--:|--:|--:|--:|--:|--:|\n";
    const auto row = [&](const std::string &name, const char *summary, const Tally &t) {
        text += fmt::format("| {} | {} | {} | {} | {} | {} | {} | {} | {} | {} |\n", name, summary, t.variants,
                            t.operations, t.cuts, t.cases, t.boots, Good(t), InHoles(t), t.found);
    };
    for (std::size_t n = 0; n < plan.scenarios.size(); ++n)
        row("`" + plan.scenarios[n].name + "`", plan.scenarios[n].summary, result.scenarios[n]);
    row("**all**", "", result.all);
    return text;
}

using HoleCounts = std::map<std::string, std::map<std::string, std::uint64_t>>;

std::string HoleTable(const HoleCounts &holes) {
    std::string text = "| hole | what came of it | cases |\n|---|---|--:|\n";
    for (const auto &[hole, what] : holes)
        for (const auto &[outcome, count] : what) text += fmt::format("| {} | {} | {} |\n", hole, outcome, count);
    return text;
}

std::uint64_t Outside(const Tally &tally, Outcome outcome) {
    const auto count = [&](const std::map<std::string, std::uint64_t> &counts) {
        const auto found = counts.find(NameOf(outcome));
        return found == counts.end() ? 0 : found->second;
    };
    // Outcomes count every case, those in the holes included.
    std::uint64_t outside = count(tally.outcomes);
    for (const auto &[hole, what] : tally.holes) {
        assert(count(what) <= outside && "a case falls through one hole at most");
        outside -= count(what);
    }
    return outside;
}

std::string ClosureTable(const ClosurePlan &plan, const std::vector<ClosureTally> &tallies) {
    const std::vector<ClosureUnit> units = UnitsOf(plan);
    std::string text = "| variant | states | met | cuts | states by losses | longest recovery | closed | not good |\n"
                       "|---|--:|--:|--:|---|--:|---|--:|\n";
    for (std::size_t n = 0; n < units.size(); ++n) {
        ClosureRow row;
        row.add(tallies.at(n));
        // States that are left were not judged, neither good nor bad.
        const std::uint64_t ill = row.states - row.left - row.good;
        text += fmt::format("| `{}` | {} | {} | {} | {} | {} | {} | {} |\n", NameOf(plan, units[n]), row.states,
                            row.members, row.cuts, DepthsOf(tallies[n]), row.longest, Closed(tallies[n]), ill);
    }
    const ClosureRow all = SumOf(tallies);
    text +=
        fmt::format("\n{} of {} variants closed: {} states, {} cuts, {} boots;\n{} states were reached again by really "
                    "cutting the power. {} findings.\n\n{:.0f} processor seconds, at most {} MB a process.\n",
                    all.closed, all.variants, all.states, all.cuts, all.boots, all.checked, all.found,
                    all.processor_seconds, all.kilobytes / 1024);
    return all.holes.empty() ? text : text + "\n" + HoleTable(all.holes);
}

std::string SweepSection(const SweepPlan &plan, const SweepResult &result) {
    std::string text =
        fmt::format("{}\n\n{}\n{} {}.", Extent(plan), Table(plan, result), result.all.checked, AgainOf(plan));
    if (result.all.compared) text += fmt::format(" {} cases compared on both processors.", result.all.compared);
    return text +
           fmt::format("\n\n{:.0f} processor seconds, {:.0f} cold boots in each, every boot counted.\n\n",
                       result.all.processor_seconds, Rate(result.all)) +
           HoleTable(result.all.holes);
}

std::string Figures(const Tally &all) {
    return fmt::format(
        "{} cases, {} cold boots. Outside the named holes:\n{} bricks, {} boards that lost a parameter, {} findings "
        "of any kind.",
        all.cases, all.boots, Outside(all, Outcome::no_bootloader) + Outside(all, Outcome::no_launch),
        Outside(all, Outcome::wrong_parameters), all.found);
}

void Fill(std::string &text, std::string_view place, const std::string &with) {
    const std::size_t at = text.find(place);
    // Otherwise a slip in the template would drop a table from the document without a word.
    if (at == std::string::npos) throw std::runtime_error(fmt::format("the document's template has no {}", place));
    text.replace(at, place.size(), with);
}

} // namespace

std::string FillDocument(std::string text, const std::string &command, const std::vector<Stage> &stages,
                         const std::vector<TableResult> &results) {
    std::string closures, sweeps;
    Tally all;
    for (std::size_t n = 0; n < stages.size(); ++n) {
        const std::string title = fmt::format("## {}\n\n", stages[n].title);
        if (const auto *plan = std::get_if<ClosurePlan>(&stages[n].plan)) {
            // Not added to the totals: a closure counts states of the chips, a sweep counts cases.
            closures += title + ClosureTable(*plan, std::get<std::vector<ClosureTally>>(results.at(n))) + "\n";
            continue;
        }
        const SweepResult &result = std::get<SweepResult>(results.at(n));
        sweeps += title + SweepSection(std::get<SweepPlan>(stages[n].plan), result) + "\n";
        all.add(result.all);
    }
    Fill(text, "@COMMAND@", command);
    Fill(text, "@CLOSURES@", closures);
    Fill(text, "@SWEEPS@", sweeps);
    Fill(text, "@FIGURES@", Figures(all));
    return text;
}

} // namespace fixture
