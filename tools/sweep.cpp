// fixture sweep: cuts the power at every operation of the boots that change a chip, and judges what becomes of the
// board.
#include "tools/commands.h"

#include "formats/file.h"
#include "sweep/campaign.h"
#include "tools/call_report.h"
#include "tools/option_checks.h"

#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace fixture {

namespace {

struct SweepCall {
    CampaignCall asked;
    bool all = false;
    bool list = false;
    // hardware_concurrency() may be 0 where the system does not tell.
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    bool json = false;
    std::string report;
    std::string edges;
    std::string follow;
    std::string firmware;
    std::string shard;
    std::string out;
    std::vector<std::string> parts;
};

void ShowProgress(const JobProgress &now) {
    constexpr std::size_t kWidth = 30;
    const double part = now.jobs ? static_cast<double>(now.jobs_done) / static_cast<double>(now.jobs) : 1;
    const std::size_t filled = static_cast<std::size_t>(part * kWidth);
    const double rate = now.seconds > 0 ? static_cast<double>(now.boots) / now.seconds : 0;
    // By parts done: the number of cases is known only once all have been met.
    const double left = part > 0 ? now.seconds / part - now.seconds : 0;
    fmt::print(stderr, "\r[{:#<{}}{:.<{}}] {} cases, {:.0f} boots/s, {:.0f} s left \x1b[K", "", filled, "",
               kWidth - filled, now.cases, rate, left);
    // Removes the bar, or the results would begin after it on the same line.
    if (now.jobs_done == now.jobs) fmt::print(stderr, "\r\x1b[K");
    std::fflush(stderr);
}

// On a terminal a bar that stays in its place; into a file a line every minute.
std::function<void(const JobProgress &)> Progress() {
    if (isatty(fileno(stderr))) return ShowProgress;
    return [told = 0.0](const JobProgress &now) mutable {
        constexpr double kEvery = 60;
        if (now.seconds < told) told = 0; // the next sweep
        if (now.seconds < told + kEvery) return;
        told = now.seconds;
        fmt::print(stderr, "{:.0f} s: {} of {} parts, {} cases, {:.0f} boots/s\n", now.seconds, now.jobs_done, now.jobs,
                   now.cases, static_cast<double>(now.boots) / now.seconds);
        std::fflush(stderr);
    };
}

int List(const std::vector<Scenario> &scenarios, bool json) {
    if (json) {
        CallReport outcome("sweep", json);
        outcome.part["scenarios"] = nlohmann::ordered_json::array();
        for (const Scenario &scenario : scenarios) {
            nlohmann::ordered_json labels = nlohmann::ordered_json::array();
            for (const Variant &variant : scenario.variants) labels.push_back(variant.label);
            outcome.part["scenarios"].push_back(
                {{"name", scenario.name}, {"summary", scenario.summary}, {"labels", labels}});
        }
        return outcome.finish(kGood);
    }
    for (const Scenario &scenario : scenarios) {
        fmt::print("{:<24} {}\n", scenario.name, scenario.summary);
        std::string line;
        for (const Variant &variant : scenario.variants) {
            if (line.size() + variant.label.size() > 90) {
                fmt::print("    {}\n", line);
                line.clear();
            }
            line += (line.empty() ? "" : " ") + variant.label;
        }
        fmt::print("    {}\n", line);
    }
    return 0;
}

constexpr const char *kDocument = "docs/reliability.md";

Shard ParseShard(const std::string &text) {
    Shard shard;
    char rest = 0;
    // The third field takes what must not be there: "1/2x" is no part.
    if (std::sscanf(text.c_str(), "%zu/%zu%c", &shard.number, &shard.of, &rest) != 2 || shard.number < 1 ||
        shard.number > shard.of)
        throw Refusal(Fault::call, {"wrong-call", "--shard", text, "K/N, the Kth of N parts, such as 2/8"});
    return shard;
}

std::filesystem::path TemplateOf(std::filesystem::path document) {
    // docs/x.md is made from docs/x.in.md beside it.
    return document.replace_extension(".in" + document.extension().string());
}

Bytes ReadTemplate(const std::filesystem::path &document) {
    constexpr std::uintmax_t kMost = 1 << 20;
    return ReadFile(TemplateOf(document), kMost);
}

// A sweep takes minutes: that what comes of it can be written, and its document filled in, is known before.
void CheckOutputs(const SweepCall &call) {
    for (const std::string &file : {call.report, call.edges, call.out})
        // Never finished, so whatever stands there stays.
        if (!file.empty()) const OutputFile proof(file);
    if (!call.report.empty()) ReadTemplate(call.report);
}

void WriteDocument(const std::filesystem::path &file, const CampaignCall &call, const Campaign &campaign,
                   const std::vector<TableResult> &results) {
    const Bytes text = ReadTemplate(file);
    // Always with the document's usual name: readers repeat this line, whichever file this run wrote.
    const std::string command = fmt::format("fixture sweep --report {} --seed {}{}", kDocument, call.seed,
                                            call.sample == 0 ? "" : fmt::format(" --sample {}", call.sample));
    WriteFile(file, FillDocument({text.begin(), text.end()}, command, campaign.stages(), results));
}

// The edges of a closure, for the protocol's model: MEDIUM, how, from, to.
void WriteEdges(const std::filesystem::path &file, const ClosurePlan &plan, const std::vector<ClosureTally> &tallies) {
    const std::vector<ClosureUnit> units = UnitsOf(plan);
    std::set<std::string> edges;
    for (std::size_t n = 0; n < units.size(); ++n)
        for (const std::string &edge : tallies.at(n).edges)
            edges.insert((units[n].variant->setup.medium == Medium::nand ? "nand " : "dataflash ") + edge);
    WriteFile(file, fmt::format("{}\n", fmt::join(edges, "\n")));
}

int Show(const SweepCall &call, const char *command, const CampaignCall &asked, const Campaign &campaign,
         const std::vector<TableResult> &results) {
    const std::uint64_t found = FindingsOf(results);
    CallReport outcome(command, call.json);
    const Stage &stage = campaign.stages().front();
    // With --report the document is the result; the tables would be too long for a terminal.
    if (asked.document) {
        const std::string document = call.report.empty() ? kDocument : call.report;
        WriteDocument(document, asked, campaign, results);
        outcome.part["file"] = TextJson(document);
    } else if (const auto *closure = std::get_if<ClosurePlan>(&stage.plan)) {
        const auto &tallies = std::get<std::vector<ClosureTally>>(results.front());
        if (!call.edges.empty()) WriteEdges(call.edges, *closure, tallies);
        if (call.json)
            outcome.part = nlohmann::ordered_json::parse(ClosureJson(*closure, tallies));
        else
            PrintClosure(*closure, tallies);
    } else {
        const auto &plan = std::get<SweepPlan>(stage.plan);
        const auto &result = std::get<SweepResult>(results.front());
        if (call.json)
            outcome.part = nlohmann::ordered_json::parse(SweepJson(plan, result));
        else
            PrintSweep(plan, result);
    }
    if (found > 0) outcome.problems.push_back({"found", "sweep", fmt::format("{} cases end badly", found), "none"});
    return outcome.finish(found > 0 ? kBad : kGood);
}

// Options that would do nothing in this call are refused.
void CheckOptions(const SweepCall &call) {
    const CampaignCall usual, &asked = call.asked;
    const auto needs_closure = [&asked](bool given, const char *option) {
        RequireInCall(asked.closure || !given, option, "has no effect alone", "--closure as well");
    };
    // Known by a value other than the default: the default in so many words does no harm.
    needs_closure(call.follow.empty() && asked.near != usual.near, "--near");
    needs_closure(asked.most_states != usual.most_states, "--most-states");
    needs_closure(asked.exact, "--exact");
    needs_closure(!call.edges.empty(), "--edges");
    RequireInCall(!asked.skips || (asked.losses == 1 && asked.loss == usual.loss && !asked.closure), "--skip",
                  "goes with no loss of power", "neither --losses nor --loss nor --closure");
    RequireInCall(!call.list || (asked.scenarios.empty() && !call.all), "--list",
                  "names every scenario, and runs none of them", "no scenario beside it");
}

SweepFirmware FirmwareOf(const SweepCall &call) {
    return SweepFirmware(call.firmware.empty() ? FirmwareDirectory() : std::filesystem::path(call.firmware));
}

// The history of a trail of the model's: "edge KIND FROM TO" lines, of which the losses count.
std::vector<std::string> ReadHistory(const std::string &file) {
    constexpr std::uintmax_t kMost = 1 << 20;
    const Bytes bytes = ReadFile(file, kMost);
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    std::vector<std::string> history;
    for (std::string word, kind, from, to; lines >> word;) {
        // The model prints other lines around these. Runs between the losses add nothing to a history of losses.
        if (word != "edge" || !(lines >> kind >> from >> to) || kind != "cut") continue;
        // A history begins with the state before its first loss.
        if (history.empty()) history.push_back(from);
        history.push_back(to);
    }
    if (history.empty()) throw Refusal(file, "no loss", "lines such as: edge cut oeoo0000 oheo0000");
    return history;
}

// A case of the program for a history that the model found.
int Follow(const SweepCall &call, const SweepFirmware &firmware) {
    // A trail names regions, not a scenario: any that begins alike may be the one.
    const std::vector<Scenario> scenarios =
        call.asked.scenarios.empty() ? AllScenarios(firmware) : FindScenarios(call.asked.scenarios, firmware);
    const ClosurePlan plan{scenarios,
                           call.asked.processor != "arm",
                           call.asked.processor == "arm",
                           {.ways = call.asked.ways,
                            .near = call.asked.near,
                            .exact = call.asked.exact,
                            .seed = call.asked.seed,
                            .history = ReadHistory(call.follow)}};
    CallReport outcome("sweep", call.json);
    for (const ClosureTally &tally : RunClosure(plan, call.jobs, firmware, Progress())) {
        // One is enough: the trail stands for one history, and any case that follows it shows the fault.
        if (tally.findings.empty()) continue;
        const Finding &bad = tally.findings.front();
        outcome.problems.push_back({"found", bad.id, bad.outcome, ""});
        outcome.part = {{"case", bad.id}, {"outcome", bad.outcome}};
        if (!call.json) fmt::print("{}: {}\n", bad.id, bad.outcome);
        return outcome.finish(kBad);
    }
    if (!call.json) fmt::print("no case with this history ends badly\n");
    outcome.part = {{"case", nullptr}, {"outcome", "good"}};
    return outcome.finish(kGood);
}

int Sweep(const SweepCall &call) {
    CheckOptions(call);
    const SweepFirmware firmware = FirmwareOf(call);
    // Before the checks that a sweep needs: neither --all nor a scenario is asked of it.
    if (!call.follow.empty()) return Follow(call, firmware);
    if (call.list) return List(AllScenarios(firmware), call.json);
    CheckOutputs(call);
    CampaignCall asked = call.asked;
    asked.document = !call.report.empty();
    // All scenarios take long: a call that names none is more likely a slip than an order to run them all.
    RequireInCall(asked.document || asked.closure || call.all == asked.scenarios.empty(), "sweep",
                  call.all ? "both --all and names of scenarios" : "no scenario",
                  "names of some, or --all; see --list");
    RequireInCall(call.shard.empty() == call.out.empty(), call.out.empty() ? "--shard" : "--out", "has no effect alone",
                  "--shard and --out together");
    const Shard shard = call.shard.empty() ? Shard{} : ParseShard(call.shard);
    // A part and the whole go the same way, so that merged parts give exactly the tables of one run.
    const Campaign campaign(asked, firmware);
    const UnitTexts texts = campaign.run(shard, call.jobs, Progress());
    if (call.out.empty()) return Show(call, "sweep", asked, campaign, campaign.results(texts));
    WritePart(call.out, {asked, BuildOf(firmware), shard, texts});
    CallReport outcome("sweep", call.json);
    outcome.part = {{"file", TextJson(call.out)}, {"part", shard.number}, {"of", shard.of}};
    return outcome.finish(kGood);
}

int Merge(const SweepCall &call) {
    CheckOutputs(call);
    const SweepFirmware firmware = FirmwareOf(call);
    // With the call that made the parts: their content decides the tables, not the options of this call.
    const Part whole = MergeParts({call.parts.begin(), call.parts.end()}, BuildOf(firmware));
    const Campaign campaign(whole.call, firmware);
    return Show(call, "sweep merge", whole.call, campaign, campaign.results(whole.units));
}

void AddClosureOptions(Command &command, SweepCall &call) {
    command.add_flag("--closure", call.asked.closure,
                     "any number of losses: follow every state that the chips can reach, until none is new");
    command.add_option("--ways", call.asked.ways, "for a closure, ways of tearing each operation")
        ->check(WholeNumber(1, 64))
        ->capture_default_str();
    command
        .add_option("--near", call.asked.near,
                    "for a closure, cut only this many operations on each side of a change of kind or block [all]")
        ->check(WholeNumber(1, 1'000'000));
    command
        .add_option("--most-states", call.asked.most_states,
                    "for a closure, states after which to give up on a variant as not closed [no limit]")
        ->check(WholeNumber(1, 1'000'000'000));
    command.add_flag("--exact", call.asked.exact,
                     "for a closure, make another in which every byte counts, and compare");
    command
        .add_option("--edges", call.edges,
                    "for a closure, write its steps from state to state to this file, for the protocol's model")
        ->type_name("FILE");
    command
        .add_option("--follow", call.follow,
                    "find the case that follows the trail of the protocol's model in this file")
        ->type_name("FILE");
}

} // namespace

void AddSweepCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<SweepCall>();
    Command *command =
        app.add_subcommand("sweep", "Cut the power at every operation, and check that the board recovers");
    CampaignCall &asked = call->asked;
    // A sweep is the command itself; `merge` is its only subcommand, and may be left out.
    command->require_subcommand(0, 1);
    command->add_option("SCENARIO", asked.scenarios, "names of scenarios, or of one variant as SCENARIO/VARIANT");
    command->add_flag("--all", call->all, "all scenarios");
    command->add_flag("--list", call->list, "name the scenarios and their variants");
    command->add_option("--processor", asked.processor, "processor that runs the bootloader; both compares them")
        ->check(OneOf({"arm", "host", "both"}))
        ->capture_default_str();
    command->add_flag("--foretell", asked.foretells, "compare every boot with what explain predicts");
    command->add_option("--boards", asked.boards, "number of boards in the scenario `hostile` [500]")
        ->check(WholeNumber(1, 1'000'000));
    command->add_option("--losses", asked.losses, "power losses in a case; 2 cuts the boot after the first cut as well")
        ->check(WholeNumber(1, 2))
        ->capture_default_str();
    command
        ->add_option("--loss", asked.loss,
                     "what a loss leaves: plain is before, torn and after the operation; unstable cells, a late loss, "
                     "a spoiled page, a brown-out")
        ->check(OneOf({"plain", "unstable", "late", "spoiled", "brownout"}))
        ->capture_default_str();
    command->add_flag("--skip", asked.skips,
                      "no losses: leave out one instruction of the update on the ARM image; --sample says how many");
    AddClosureOptions(*command, *call);
    command->add_option("--firmware", call->firmware, "directory of the bootloader's builds [beside this program]")
        ->type_name("DIR");
    command->add_option("--jobs", call->jobs, "worker processes")->check(WholeNumber(1, 256))->capture_default_str();
    command
        ->add_option("--sample", asked.sample,
                     "try about this many cases of each scenario; the seed chooses them [all]")
        ->check(WholeNumber(1));
    command->add_option("--seed", asked.seed, "decides how operations tear and what is sampled")
        ->check(WholeNumber(0))
        ->capture_default_str();
    command->add_flag("--json", call->json, "report as one JSON object");
    command->add_option("--report", call->report, "run the whole campaign and write its document to this file")
        ->type_name("FILE")
        // The document has its own scenarios, processors and losses. A narrower one would pass for the whole.
        ->excludes({"SCENARIO", "--list", "--processor", "--losses", "--loss", "--skip", "--foretell", "--boards"});
    command->add_option("--shard", call->shard, "run the Kth of N parts, and write its results to --out")
        ->type_name("K/N");
    command->add_option("--out", call->out, "file for the part's results, for merge")->type_name("FILE");
    Command *merge = command->add_subcommand("merge", "Join the parts of a campaign into the results of one run");
    merge->add_option("PART", call->parts, "files of the parts, in any order")->required();
    merge->add_flag("--json", call->json, "report as one JSON object");
    merge->add_option("--report", call->report, "the document's file [docs/reliability.md]")->type_name("FILE");
    merge->add_option("--edges", call->edges, "write the steps of a closure from state to state to this file")
        ->type_name("FILE");
    merge->callback([call, &exit_status] { exit_status = Merge(*call); });
    command->callback([call, command, &exit_status] {
        // The parser runs this for `merge` as well.
        if (!command->any_subcommand_given()) exit_status = Sweep(*call);
    });
}

} // namespace fixture
