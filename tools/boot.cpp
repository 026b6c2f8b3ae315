// fixture boot: powers a board up and lets it run to its end. The console's bytes go to standard output untouched, the
// verdict to standard error.
#include "commands.h"

#include "machine.h"
#include "trace.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct BootCall {
    std::string firmware;
    bool host = false;
    std::string volume;
    std::string straps = "none";
    std::string fail;
    double watchdog = 0;
    unsigned most_resets = 8;
    std::string trace;
    bool json = false;
};

const std::map<std::string, fixture::Straps> kStraps = {
    {"none", {}}, {"12-13", {true, false}}, {"14-18", {false, true}}, {"both", {true, true}}};

std::string Describe(const RunReport &report) {
    std::string text = VerdictName(report.verdict);
    if (report.verdict == Verdict::launched)
        text = fmt::format("launched {} ({} bytes)", report.launched, report.launched_bytes);
    if (report.verdict == Verdict::idle) text = "idle: nothing to launch";
    if (!report.place.empty()) text += ": " + report.place;
    if (!report.launched_end.empty()) text += fmt::format(", which {}", report.launched_end);
    return fmt::format("{}; booting from {}, {:.3f} ms of virtual time, {} reset{}", text, report.medium,
                       static_cast<double>(report.time) / static_cast<double>(fixture::kMillisecond), report.resets,
                       report.resets == 1 ? "" : "s");
}

nlohmann::ordered_json ToJson(const RunReport &report) {
    nlohmann::ordered_json json;
    json["verdict"] = VerdictName(report.verdict);
    if (!report.place.empty()) json["place"] = report.place;
    if (report.verdict == Verdict::launched) {
        json["launched"] = report.launched;
        json["bytes"] = report.launched_bytes;
        json["launched_end"] = report.launched_end;
    }
    json["medium"] = report.medium;
    json["virtual_ms"] = static_cast<double>(report.time) / static_cast<double>(fixture::kMillisecond);
    json["resets"] = report.resets;
    json["instructions"] = report.instructions;
    return json;
}

// Boots on this machine's own processor run in the sanitized build of this program, where there is one: the same call
// again, there.
void HandOverToSanitizedBuild() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path sanitized = self.parent_path().parent_path() / "asan" / "fixture";
    if (error || self == sanitized || !fs::exists(sanitized)) return;
    std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(cmdline, word, '\0');) words.push_back(word);
    std::vector<char *> arguments;
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(sanitized.c_str(), arguments.data());
}

int Boot(const BootCall &call) {
    if (call.host) HandOverToSanitizedBuild();
    const KnownFirmware known(FirmwareDirectory());
    RunOptions options;
    options.processor = call.host ? ProcessorKind::host : ProcessorKind::arm;
    options.known = &known;
    options.volume = call.volume;
    options.board.straps = kStraps.at(call.straps);
    if (call.watchdog > 0)
        options.board.watchdog =
            static_cast<fixture::Picoseconds>(call.watchdog * static_cast<double>(fixture::kSecond));
    options.file_server_fails = call.fail == "file-server";
    options.most_resets = call.most_resets;
    options.console = [](char c) { std::fputc(c, stdout); };

    const Firmware firmware =
        ReadFirmware(call.firmware.empty() ? FirmwareDirectory() / "bootloader.elf" : fs::path(call.firmware));
    options.firmware = &firmware;

    fixture::Chips chips;
    Machine machine(chips, options);
    std::unique_ptr<Trace> trace;
    if (!call.trace.empty()) trace = std::make_unique<Trace>(call.trace, machine.board());
    const RunReport report = machine.run();
    std::fflush(stdout);
    fmt::print(stderr, "{}\n", call.json ? ToJson(report).dump() : Describe(report));
    return report.exit_status();
}

} // namespace

void AddBootCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<BootCall>();
    CLI::App *command = app.add_subcommand("boot", "Power a board up and run it to its end");
    command->add_option("--firmware", call->firmware, "bootloader image (ELF or flat) in place of the built one")
        ->check(CLI::ExistingFile);
    command->add_flag("--host", call->host, "run the bootloader on this machine's processor, under sanitizers");
    command->add_option("--volume", call->volume, "directory that is volume vol0 of drive i")
        ->check(CLI::ExistingDirectory);
    command->add_option("--straps", call->straps, "boot straps fitted")
        ->check(CLI::IsMember(kStraps))
        ->capture_default_str();
    command->add_option("--fail", call->fail, "have something fail")->check(CLI::IsMember({"file-server"}));
    command->add_option("--watchdog", call->watchdog, "arm the watchdog with this period in seconds")
        ->check(CLI::PositiveNumber);
    command->add_option("--max-resets", call->most_resets, "resets before the run counts as a loop")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    command->add_option("--trace", call->trace, "write every register access and chip operation to this file");
    command->add_flag("--json", call->json, "verdict as one JSON object");
    command->callback([call, &exit_status] { exit_status = Boot(*call); });
}
