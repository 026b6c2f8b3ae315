// fixture sweep: cuts the power at every operation of the boots that change a chip, and judges what becomes of the
// board.
#include "tools/commands.h"

#include "sweep/report.h"
#include "sweep/run.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <thread>
#include <unistd.h>

namespace fixture {

namespace {

struct SweepCall {
    std::vector<std::string> scenarios;
    bool all = false;
    bool list = false;
    std::string processor = "host";
    bool foretells = false;
    unsigned boards = 0;
    unsigned losses = 1;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    std::size_t sample = 0;
    std::uint64_t seed = 1;
    bool json = false;
    std::string report;
};

void ShowProgress(const SweepProgress &now) {
    constexpr std::size_t kWidth = 30;
    const double part = now.units ? static_cast<double>(now.units_done) / static_cast<double>(now.units) : 1;
    const std::size_t filled = static_cast<std::size_t>(part * kWidth);
    const double rate = now.seconds > 0 ? static_cast<double>(now.boots) / now.seconds : 0;
    const double left = part > 0 ? now.seconds / part - now.seconds : 0;
    fmt::print(stderr, "\r[{:#<{}}{:.<{}}] {} cases, {:.0f} boots/s, {:.0f} s left \x1b[K", "", filled, "",
               kWidth - filled, now.cases, rate, left);
    if (now.units_done == now.units) fmt::print(stderr, "\r\x1b[K");
    std::fflush(stderr);
}

// On a terminal a bar that stays in its place; into a file a line every minute.
std::function<void(const SweepProgress &)> Progress() {
    if (isatty(fileno(stderr))) return ShowProgress;
    return [told = 0.0](const SweepProgress &now) mutable {
        constexpr double kEvery = 60;
        if (now.seconds < told) told = 0; // the next sweep
        if (now.seconds < told + kEvery) return;
        told = now.seconds;
        fmt::print(stderr, "{:.0f} s: {} of {} parts, {} cases, {:.0f} boots/s\n", now.seconds, now.units_done,
                   now.units, now.cases, static_cast<double>(now.boots) / now.seconds);
        std::fflush(stderr);
    };
}

int List(const std::vector<Scenario> &scenarios) {
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

int Sweep(const SweepCall &call) {
    const SweepFirmware firmware(FirmwareDirectory());
    if (call.list) return List(AllScenarios(firmware));
    if (!call.report.empty())
        return WriteReliability(call.report, call.jobs, call.seed, call.sample, firmware, Progress());
    if (call.all == !call.scenarios.empty())
        throw std::runtime_error("which scenarios? names of some, or --all; --list names them");
    SweepPlan plan;
    plan.scenarios = call.all ? AllScenarios(firmware) : FindScenarios(call.scenarios, firmware);
    for (Scenario &scenario : plan.scenarios)
        if (scenario.name == "hostile" && call.boards > 0) scenario.variants = HostileBoards(call.boards);
    plan.on_host = call.processor != "arm";
    plan.on_arm = call.processor != "host";
    plan.foretells = call.foretells;
    plan.losses = call.losses;
    plan.jobs = call.jobs;
    plan.sample = call.sample;
    plan.seed = call.seed;
    const SweepResult result = RunSweep(plan, firmware, Progress());
    if (call.json)
        fmt::print("{}\n", SweepJson(plan, result));
    else
        PrintSweep(plan, result);
    return result.all.found == 0 ? 0 : 1;
}

} // namespace

void AddSweepCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<SweepCall>();
    CLI::App *command =
        app.add_subcommand("sweep", "Cut the power at every operation and judge what becomes of the board");
    command->add_option("SCENARIO", call->scenarios, "scenarios, or SCENARIO/VARIANT, by name");
    command->add_flag("--all", call->all, "all scenarios");
    command->add_flag("--list", call->list, "name the scenarios and their variants");
    command->add_option("--processor", call->processor, "what runs the bootloader; both: and compare them")
        ->check(CLI::IsMember({"arm", "host", "both"}))
        ->capture_default_str();
    command->add_flag("--foretell", call->foretells, "compare every boot with what explain says of it");
    command->add_option("--boards", call->boards, "so many boards in the scenario hostile [500]")
        ->check(CLI::Range(1, 1'000'000));
    command->add_option("--losses", call->losses, "power losses a case: 2 cuts the boot after the first cut as well")
        ->check(CLI::Range(1, 2))
        ->capture_default_str();
    command->add_option("--jobs", call->jobs, "worker processes")->check(CLI::Range(1, 256))->capture_default_str();
    command->add_option("--sample", call->sample, "about so many cases of each scenario, chosen by the seed");
    command->add_option("--seed", call->seed, "decides how operations tear and what is sampled")->capture_default_str();
    command->add_flag("--json", call->json, "results as one JSON object");
    command->add_option("--report", call->report, "run the whole campaign and write its document to this file")
        ->excludes("SCENARIO", "--list", "--processor", "--losses", "--foretell", "--boards", "--json");
    command->callback([call, &exit_status] { exit_status = Sweep(*call); });
}

} // namespace fixture
