// fixture boot: powers a board up and lets it run to its end. The console's bytes go to standard output untouched, the
// verdict to standard error.
#include "machine/chip_store.h"
#include "tools/commands.h"

#include "machine/board_vcd.h"
#include "machine/machine.h"
#include "tools/boot_debug.h"
#include "tools/replay.h"
#include "tools/terminal_preview.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fixture {

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
    bool json = false;
    std::string nand;
    std::string nand_part = kDefaultNand;
    std::string dataflash;
    std::string dataflash_part = kDefaultAt45;
    std::string eeprom;
    std::string vcd;
    std::string vcd_signals;
    std::string panel;
    std::string panel_frames;
    std::string panel_gif;
    std::string panel_wiring = "bgr";
    bool preview = false;
    std::string replay;
    std::optional<unsigned> power_up;
    ObserveCall observe;
};

const std::map<std::string, Straps> kStraps = {
    {"none", {}}, {"12-13", {true, false}}, {"14-18", {false, true}}, {"both", {true, true}}};

const std::map<std::string, PanelWiring> kWirings = {
    {"bgr", PanelWiring::bgr}, {"rgb", PanelWiring::rgb}, {"rgb565", PanelWiring::rgb565}};

// The names of a table of parts, and "none".
template <typename Parts> std::vector<std::string> PartNames(const Parts &parts) {
    std::vector<std::string> names = {"none"};
    for (const auto &part : parts) names.emplace_back(part.name);
    return names;
}

// The board's chips, as their files have them; a missing file is a blank chip.
Chips LoadChips(const BootCall &call) {
    Chips chips;
    chips.nand = NandContents(FindNandPart(call.nand_part));
    if (call.dataflash_part == "none")
        chips.dataflash.absent = true;
    else
        chips.dataflash = At45Contents(*FindAt45Part(call.dataflash_part));
    if (!call.nand.empty()) LoadChip(chips.nand, call.nand);
    if (!call.dataflash.empty()) LoadChip(chips.dataflash, call.dataflash);
    if (!call.eeprom.empty() && fs::exists(call.eeprom)) LoadChip(chips.eeprom, call.eeprom);
    return chips;
}

void SaveChips(const BootCall &call, const Chips &chips) {
    if (!call.nand.empty()) SaveChip(chips.nand, call.nand);
    if (!call.dataflash.empty()) SaveChip(chips.dataflash, call.dataflash);
    if (!call.eeprom.empty()) SaveChip(chips.eeprom, call.eeprom);
}

double Milliseconds(Picoseconds time) { return static_cast<double>(time) / static_cast<double>(kMillisecond); }

// Everything that a call wants written about the panel.
void WritePanel(const BootCall &call, FrameRecorder &recorder, Picoseconds until) {
    recorder.look();
    if (!call.panel.empty()) WritePng(call.panel, recorder.shown());
    if (!call.panel_gif.empty()) WriteGif(call.panel_gif, Animation(recorder.frames(), until));
    if (!call.panel_frames.empty()) {
        fs::create_directories(call.panel_frames);
        for (const FrameRecorder::Frame &frame : recorder.frames())
            WritePng(fs::path(call.panel_frames) / fmt::format("{:015.6f}ms.png", Milliseconds(frame.time)),
                     frame.picture);
    }
    if (call.preview) PrintPreview(stderr, recorder.shown());
}

bool WantsPanel(const BootCall &call) {
    return call.observe.wants_frames() || !call.panel.empty() || !call.panel_gif.empty() ||
           !call.panel_frames.empty() || call.preview;
}

std::string Describe(const RunReport &report) {
    std::string text = VerdictName(report.verdict);
    if (report.verdict == Verdict::launched)
        text = fmt::format("launched {} ({} bytes)", report.launched, report.launched_bytes);
    if (report.verdict == Verdict::idle) text = "idle: nothing to launch";
    if (!report.place.empty()) text += ": " + report.place;
    if (!report.launched_end.empty()) text += fmt::format(", which {}", report.launched_end);
    return fmt::format("{}; booting from {}, {:.3f} ms of virtual time, {} reset{}", text, report.medium,
                       Milliseconds(report.time), report.resets, report.resets == 1 ? "" : "s");
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
    json["virtual_ms"] = Milliseconds(report.time);
    json["resets"] = report.resets;
    json["instructions"] = report.instructions;
    const auto nanoseconds = [](Picoseconds time) { return time / kNanosecond; };
    json["two_wire_ns"] = {{"clock_low", nanoseconds(report.two_wire.clock_low)},
                           {"clock_high", nanoseconds(report.two_wire.clock_high)},
                           {"start_hold", nanoseconds(report.two_wire.start_hold)},
                           {"data_setup", nanoseconds(report.two_wire.data_setup)}};
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

// Chip files that the call of a replay names keep what the case leaves, and so must not hold a board's chips already.
void RequireNewChipFiles(const BootCall &call) {
    for (const std::string &file : {call.nand, call.dataflash, call.eeprom})
        if (!file.empty() && fs::exists(file))
            throw std::runtime_error(file + ": exists already; a replay keeps its chips in new files only");
}

// Chips, files and options are those of the case; what the call says about them does not count.
void UseReplay(const Replay &replay, RunOptions &options, Chips &chips) {
    const RunOptions asked = std::move(options);
    options = replay.options();
    options.console = asked.console;
    options.keep_going = asked.keep_going;
    options.sightings = asked.sightings;
    chips = replay.chips;
}

int Boot(const BootCall &call) {
    if (!call.replay.empty()) RequireNewChipFiles(call);
    if (call.host && call.observe.gdb_port)
        throw std::runtime_error("--gdb needs the emulated processor; with --host use this machine's own debugger");
    if (call.host) HandOverToSanitizedBuild();
    const KnownFirmware known(FirmwareDirectory());
    RunOptions options;
    options.processor = call.host ? ProcessorKind::host : ProcessorKind::arm;
    options.known = &known;
    options.volume = call.volume;
    options.board.straps = kStraps.at(call.straps);
    if (call.watchdog > 0)
        options.board.watchdog = static_cast<Picoseconds>(call.watchdog * static_cast<double>(kSecond));
    options.file_server_fails = call.fail == "file-server";
    options.most_resets = call.most_resets;
    BootObservers *observers = nullptr;
    options.console = [&observers](char c) { observers->console(c); };
    options.keep_going = call.observe.keep_going;
    options.sightings = true;

    const Firmware firmware =
        ReadFirmware(call.firmware.empty() ? FirmwareDirectory() / "bootloader.elf" : fs::path(call.firmware));
    options.firmware = &firmware;

    Chips chips = LoadChips(call);
    options.slots = !call.nand.empty() || !call.dataflash.empty();
    if (options.slots && call.firmware.empty()) options.firmware = nullptr;
    std::optional<Replay> replay;
    if (!call.replay.empty()) {
        replay.emplace(call.replay, call.power_up, options.processor);
        UseReplay(*replay, options, chips);
    }
    Machine machine(chips, options);

    BootObservers looking_on(call.observe, machine);
    observers = &looking_on;
    std::optional<BoardVcd> vcd;
    if (!call.vcd.empty()) vcd.emplace(call.vcd, call.vcd_signals, machine);
    if (WantsPanel(call)) machine.record_frames(kWirings.at(call.panel_wiring));
    looking_on.start();
    const RunReport report = replay ? replay->run(machine) : machine.run();
    looking_on.finish(report, Describe(report));
    SaveChips(call, chips);
    if (WantsPanel(call)) WritePanel(call, *machine.frames(), report.time);
    std::fflush(stdout);
    nlohmann::ordered_json json = ToJson(report);
    looking_on.add_end(report, json);
    fmt::print(stderr, "{}\n{}", call.json ? json.dump() : Describe(report),
               call.json ? "" : looking_on.describe_end(report));
    if (replay) fmt::print(stderr, "{}: {}\n", call.replay, NameOf(replay->judgement().outcome));
    return report.exit_status();
}

} // namespace

void AddBootCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<BootCall>();
    CLI::App *command = app.add_subcommand("boot", "Power a board up and run it to its end");
    command->add_option("--firmware", call->firmware, "bootloader image (ELF or flat) in place of the built one")
        ->check(CLI::ExistingFile);
    command->add_flag("--host", call->host, "run the bootloader on this machine's processor");
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
    AddObserveOptions(*command, call->observe);
    command->add_option("--nand", call->nand, "file that keeps the NAND chip: raw pages with their spare bytes");
    command->add_option("--nand-part", call->nand_part, "NAND part fitted")
        ->check(CLI::IsMember(PartNames(NandParts())))
        ->capture_default_str();
    command->add_option("--dataflash", call->dataflash, "file that keeps the DataFlash chip");
    command->add_option("--dataflash-part", call->dataflash_part, "DataFlash part fitted")
        ->check(CLI::IsMember(PartNames(At45Parts())))
        ->capture_default_str();
    command->add_option("--eeprom", call->eeprom, "file that keeps the parameter EEPROM");
    command->add_option("--vcd", call->vcd, "write pins as a value change dump for logic-analyser programs");
    command->add_option("--vcd-signals", call->vcd_signals,
                        "which signals, by name, separated by commas (default: all)");
    command->add_option("--panel", call->panel, "write what the panel shows at the end as PNG");
    command->add_option("--panel-frames", call->panel_frames, "write every different frame as PNG into this directory");
    command->add_option("--panel-gif", call->panel_gif, "write the panel's boot as an animation");
    command->add_option("--panel-wiring", call->panel_wiring, "how the panel's colours are connected")
        ->check(CLI::IsMember(kWirings))
        ->capture_default_str();
    command->add_flag("--preview", call->preview, "show the panel in the terminal, where it is one");
    command->add_option("--replay", call->replay,
                        "a case of a sweep, by the name that the sweep gives it; its chips are kept in new files only");
    command->add_option("--power-up", call->power_up,
                        "which power-up of the case, from 0 (default: the first one behind its cuts)");
    command->add_flag("--json", call->json, "verdict as one JSON object");
    command->callback([call, &exit_status] { exit_status = Boot(*call); });
}

} // namespace fixture
