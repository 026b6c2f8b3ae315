// fixture boot: powers a board up and lets it run to its end. The console's bytes go to standard output untouched, the
// verdict to standard error; with --json the verdict goes to standard output and the console to standard error.
#include "machine/chip_store.h"
#include "tools/commands.h"

#include "machine/board_vcd.h"
#include "machine/machine.h"
#include "tools/boot_debug.h"
#include "tools/boot_hint.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/demo_board.h"
#include "tools/option_checks.h"
#include "tools/replay.h"
#include "tools/terminal_preview.h"
#include "tools/timeline_table.h"

#include <cassert>
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

// As the LCD controller puts its colours out. --panel-wiring has no effect without a panel, but is refused only if it
// differs from this: then the user expects to see it.
constexpr const char *kUsualWiring = "bgr";

struct BootCall {
    bool demo = false;
    std::string firmware;
    bool host = false;
    std::string volume;
    std::string straps = "none";
    std::string fail;
    double watchdog = 0;
    double file_rate = kFileRate;
    bool timeline = false;
    unsigned most_resets = 8;
    bool json = false;
    ChipFiles files;
    std::string eeprom;
    bool snapshot = false;
    bool create = false;
    std::string vcd;
    std::string vcd_signals;
    std::string panel;
    std::string panel_frames;
    std::string panel_gif;
    AnimationStyle gif_style;
    bool gif_captions = false;
    std::string panel_wiring = kUsualWiring;
    bool preview = false;
    std::string replay;
    std::optional<unsigned> power_up;
    ObserveCall observe;
};

const std::map<std::string, PanelWiring> kWirings = {
    {"bgr", PanelWiring::bgr}, {"rgb", PanelWiring::rgb}, {"rgb565", PanelWiring::rgb565}};

// The board's chips, in their files where the call names some.
class BoardChips {
public:
    BoardChips(const BootCall &call, OutputFiles &outputs) {
        const ChipFiles &files = call.files;
        // Two chips in one file would each overwrite what the other stores at the end.
        RequireDistinct({files.nand, files.dataflash, call.eeprom});
        chips.nand = NandContents(FindNandPart(files.nand_part));
        // "none" is no NAND part, and a NAND without one is not fitted. The DataFlash has a flag of its own for that.
        if (files.dataflash_part == "none")
            chips.dataflash.absent = true;
        else
            chips.dataflash = At45Contents(*FindAt45Part(files.dataflash_part));
        // What a replay leaves goes to new files only; a board's own chips must not be taken for them.
        const bool replay = !call.replay.empty();
        const ChipUse use = call.snapshot ? ChipUse::look : call.create || replay ? ChipUse::create : ChipUse::change;
        if (replay) RequireNewFiles({files.nand, files.dataflash, call.eeprom});
        // Before the files are opened: a file that is named holds its own bootloader, and replaces this one.
        if (call.demo) DemoBoard::provision(chips.nand);
        if (!files.nand.empty()) nand_.emplace(chips.nand, files.nand, use, outputs);
        if (!files.dataflash.empty()) dataflash_.emplace(chips.dataflash, files.dataflash, use, outputs);
        if (!call.eeprom.empty()) eeprom_.emplace(chips.eeprom, call.eeprom, use, outputs);
    }
    void store() {
        // Among the call's outputs, so that a full disk leaves all three files as they were.
        if (nand_) nand_->store();
        if (dataflash_) dataflash_->store();
        if (eeprom_) eeprom_->store();
    }

    Chips chips;

private:
    static void RequireNewFiles(const std::vector<std::string> &files) {
        for (const std::string &file : files)
            // Not exists(file): a link that leads nowhere is a file that is there.
            if (!file.empty() && fs::exists(fs::symlink_status(file)))
                throw Refusal(Fault::call,
                              {"exists", file, "exists already", "a new file: a replay keeps its chips in those only"});
    }

    std::optional<OpenChip<NandContents>> nand_;
    std::optional<OpenChip<At45Contents>> dataflash_;
    std::optional<OpenChip<EepromContents>> eeprom_;
};

// Everything that a call wants written about the panel. That it can be written is known before the run.
class PanelFiles {
public:
    PanelFiles(const BootCall &call, OutputFiles &outputs) : call_(call), outputs_(outputs) {
        if (!call.panel.empty()) picture_ = &outputs.add(call.panel);
        if (!call.panel_gif.empty()) animation_ = &outputs.add(call.panel_gif);
        if (call.panel_frames.empty()) return;
        std::error_code error;
        fs::create_directories(call.panel_frames, error);
        if (!fs::is_directory(call.panel_frames, error))
            throw Refusal(Fault::output,
                          {"not-a-directory", call.panel_frames, "not a directory", "one for the frames"});
        // The frames' names are their times, which only the run tells. This one proves that the directory can be
        // written; an output that is never finished leaves nothing behind.
        const OutputFile proof(fs::path(call.panel_frames) / "00.png");
    }
    bool wanted() const {
        return call_.observe.wants_frames() || picture_ || animation_ || !call_.panel_frames.empty() || call_.preview;
    }
    // `said`: what a caption says besides the time of its frame.
    void write(FrameRecorder &recorder, Picoseconds until, const std::function<std::string(Picoseconds)> &said) {
        AnimationStyle style = call_.gif_style;
        if (call_.gif_captions)
            style.caption = [&](const FrameRecorder::Frame &frame) {
                return fmt::format("{:.3f} ms  {}", Milliseconds(frame.time), said(frame.time));
            };
        // The last frame may have been drawn after the last bus access, and so after the last glance.
        recorder.look();
        if (picture_) picture_->write(PngOf(recorder.shown()));
        if (animation_) animation_->write(GifOf(Frames(recorder, until, style)));
        if (!call_.panel_frames.empty())
            for (const FrameRecorder::Frame &frame : recorder.frames())
                // Padded to one width, so that names sort by time in every viewer.
                outputs_.add(fs::path(call_.panel_frames) / fmt::format("{:015.6f}ms.png", Milliseconds(frame.time)))
                    .write(PngOf(frame.picture));
        if (call_.preview) PrintPreview(stderr, recorder.shown());
    }

private:
    // A board that shows nothing at all gives one dark picture.
    static std::vector<GifFrame> Frames(FrameRecorder &recorder, Picoseconds until, const AnimationStyle &style) {
        std::vector<GifFrame> frames = Animation(recorder.frames(), until, style);
        if (frames.empty()) frames.push_back({recorder.shown(), 1});
        return frames;
    }

    const BootCall &call_;
    OutputFiles &outputs_;
    OutputFile *picture_ = nullptr;
    OutputFile *animation_ = nullptr;
};

std::string Describe(const RunReport &report) {
    std::string text = VerdictName(report.verdict);
    if (report.verdict == Verdict::launched && report.launched.empty())
        text = "launched an image that is no file of the volume"; // a platform with files of its own
    else if (report.verdict == Verdict::launched)
        text = fmt::format("launched {} ({} bytes)", Printable(report.launched), report.launched_bytes);
    if (report.verdict == Verdict::idle) text = "idle: nothing to launch";
    if (!report.place.empty()) text += ": " + report.place;
    if (!report.launched_end.empty()) text += fmt::format(", which {}", report.launched_end);
    return fmt::format("{}; booting from {}, {:.3f} ms of virtual time, {} reset{}", text, report.medium,
                       Milliseconds(report.time), report.resets, report.resets == 1 ? "" : "s");
}

nlohmann::ordered_json ToJson(const RunReport &report) {
    nlohmann::ordered_json json;
    json["verdict"] = VerdictName(report.verdict);
    if (!report.place.empty()) json["place"] = TextJson(report.place);
    if (report.slot) json["slot"] = *report.slot;
    if (report.verdict == Verdict::launched) {
        json["launched"] = TextJson(report.launched);
        json["size"] = report.launched_bytes;
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
// Natively a mistake in memory may pass unseen. The sanitized build stops at it, and names the line.
void HandOverToSanitizedBuild() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path sanitized = self.parent_path().parent_path() / "asan" / "fixture";
    // Installed alone there is no such build: then this one serves. self == sanitized: it has been handed over already.
    if (error || self.filename() != sanitized.filename() || self == sanitized || !fs::exists(sanitized)) return;
    std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
    // The words as typed: turning the parsed call back into words could lose one.
    std::vector<std::string> words;
    for (std::string word; std::getline(cmdline, word, '\0');) words.push_back(word);
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    // execv returns only on failure. The boot then continues here: a result from the plain build beats a refusal.
    execv(sanitized.c_str(), arguments.data());
}

// Chips, files and options are those of the case; what the call says about them does not count.
void UseReplay(const Replay &replay, RunOptions &options, Chips &chips) {
    // Only what looks on is taken from the call. Anything else would make it another case than the one that was found.
    const RunOptions asked = std::move(options);
    options = replay.options();
    options.console = asked.console;
    options.file_rate = asked.file_rate;
    options.keep_going = asked.keep_going;
    options.sightings = asked.sightings;
    options.programs = asked.programs;
    // In place: the chips' open files refer to these objects, and store what the run leaves in them.
    chips = replay.chips;
}

// The image of --firmware, or else the usual one. On this machine's processor it must stand for a native build.
Firmware FirmwareOf(const BootCall &call, const KnownFirmware &known) {
    const fs::path file =
        call.firmware.empty() ? NeededFirmwareDirectory() / "bootloader.elf" : fs::path(call.firmware);
    Firmware firmware = ReadFirmware(file);
    if (!call.host || call.firmware.empty()) return firmware;
    const Firmware *const build = known.identify(firmware.flat);
    if (!build)
        throw Refusal(file, "no native build stands for this image", "a build of this tree, or no --host",
                      "unknown-build");
    // An image of the user's own has no version. The native build is chosen by it.
    firmware.version = build->version;
    return firmware;
}

RunOptions OptionsOf(const BootCall &call, const KnownFirmware &known) {
    RunOptions options;
    options.processor = call.host ? ProcessorKind::host : ProcessorKind::arm;
    options.known = &known;
    options.volume = call.volume;
    options.file_rate = call.file_rate;
    options.board.straps = StrapsByName().at(call.straps);
    if (call.watchdog > 0)
        options.board.watchdog = static_cast<Picoseconds>(call.watchdog * static_cast<double>(kSecond));
    options.file_server_fails = call.fail == "file-server";
    options.most_resets = call.most_resets;
    // Without chips there are no slots to choose from. The image is then started directly, as a debugger would load it.
    options.slots = call.demo || call.files.named();
    options.keep_going = call.observe.keep_going;
    // The ELF is read again for the call chain, but only after a run that ended badly.
    options.sightings = true;
    return options;
}

int Report(const BootCall &call, const RunReport &report, const std::string &end, const std::string &hint,
           CallReport &outcome) {
    // The console first. With both streams in one file the verdict would otherwise stand in the middle of it.
    std::fflush(stdout);
    const int status = report.exit_status();
    // Printable: it quotes names of files, which may hold anything.
    if (!hint.empty()) outcome.part["hint"] = Printable(hint);
    if (status != kGood) outcome.problems.push_back({IdOf(report.verdict), "board", Describe(report), ""});
    if (call.json) return outcome.finish(status);
    fmt::print(stderr, "{}\n{}", Describe(report), end);
    if (!hint.empty()) fmt::print(stderr, "{}\n", Printable(hint));
    return outcome.finish(status);
}

// The demo board's own answers to what a call can say about a board.
// --demo excludes the options that are set here, so nothing of the user's is overwritten.
std::unique_ptr<DemoBoard> UseDemoBoard(BootCall &call) {
    if (!call.demo) return nullptr;
    if (!call.json)
        fmt::print(stderr, "demo board: bootloader 1.9.0 in its NAND, and a bank with 1.9.1 on its volume; "
                           "for a board of your own see `fixture boot --help`\n");
    auto board = std::make_unique<DemoBoard>();
    call.volume = board->volume().string();
    call.straps = "12-13";
    return board;
}

// Options that would do nothing in this call are refused: whoever gives one expects something of it.
void CheckOptions(const BootCall &call) {
    CheckObserveOptions(call.observe);
    // GDB would see neither registers nor code of the bootloader: they are this machine's.
    RequireInCall(!call.host || !call.observe.gdb_port, "--gdb", "needs the emulated processor",
                  "no --host: there this machine's own debugger serves");
    // A timeline follows the routines of the ARM image. A native run shows it none.
    RequireInCall(!call.host || !call.timeline, "--timeline", "needs the emulated processor",
                  "no --host: there instructions take no time");
    const bool chips = call.files.named() || !call.eeprom.empty();
    RequireInCall(chips || !call.create, "--create", "has no effect without a chip file",
                  "--nand, --dataflash or --eeprom");
    RequireInCall(chips || !call.snapshot, "--snapshot", "has no effect without a chip file",
                  "--nand, --dataflash or --eeprom");
    const bool shown = call.observe.wants_frames() || call.preview || !call.panel.empty() || !call.panel_gif.empty() ||
                       !call.panel_frames.empty();
    RequireInCall(shown || call.panel_wiring == kUsualWiring, "--panel-wiring", "has no effect where no panel is shown",
                  "--panel, --panel-gif, --panel-frames, --preview, --live or --report");
}

// What explain would have said of the board. Asked for only where it will be shown: it reads every slot and every bank
// once more. A replay has its case's judgement instead.
std::optional<Prediction> ForecastIfPossible(Chips &before, const RunOptions &options) {
    if (!CanForecast(before, options)) return std::nullopt;
    return Forecast(before, options);
}

// Everything that can be refused is refused before the board starts: a run may take minutes.
int Boot(BootCall call) {
    RequireDirectory(call.volume);
    CheckOptions(call);
    // Before any output is opened, since the other program opens its own.
    if (call.host) HandOverToSanitizedBuild();
    CallReport outcome("boot", call.json);
    // Outlives the machine, which reads the volume up to its end.
    const std::unique_ptr<DemoBoard> demo = UseDemoBoard(call);
    OutputFiles outputs;
    BoardChips board(call, outputs);
    PanelFiles panel(call, outputs);
    OutputFile *const vcd_file = call.vcd.empty() ? nullptr : &outputs.add(call.vcd);
    const KnownFirmware known(FirmwareDirectory());
    const Firmware firmware = FirmwareOf(call, known);
    const std::vector<Firmware> programs = ProgramsWithSymbols(call.observe);
    RunOptions options = OptionsOf(call, known);
    options.programs = programs;
    BootObservers *observers = nullptr;
    // Through a pointer: the machine needs its console before there are observers, and they need the machine.
    options.console = [&observers](char c) {
        assert(observers && "the board prints only while it runs");
        observers->console(c);
    };
    // With chips and no --firmware the first stage chooses; an image forced on it would hide what is in the slots.
    if (!options.slots || !call.firmware.empty()) options.firmware = &firmware;
    std::optional<Replay> replay;
    if (!call.replay.empty()) {
        replay.emplace(call.replay, call.power_up, options.processor);
        // After all other options are set, since it replaces most of them; before the machine takes a copy.
        UseReplay(*replay, options, board.chips);
    }
    Chips before = board.chips; // their pages are shared: nothing is copied until it changes
    Machine machine(board.chips, options);

    // Each observer calls those that were there before it. The debugger comes last, in start(), so that a stop finds
    // all others up to date.
    BootObservers looking_on(call.observe, machine, call.json ? stderr : stdout, outputs);
    observers = &looking_on;
    std::optional<BoardVcd> vcd;
    if (vcd_file) vcd.emplace(vcd_file->stream(), call.vcd_signals, machine);
    if (panel.wanted()) machine.record_frames(kWirings.at(call.panel_wiring));
    std::optional<Timeline> timeline;
    if (call.timeline) timeline.emplace(machine);
    looking_on.start();
    const RunReport report = replay ? replay->run(machine) : machine.run();
    std::optional<Prediction> foretold;
    if (!replay && (looking_on.wants_forecast() || report.exit_status() != kGood))
        foretold = ForecastIfPossible(before, options);
    looking_on.finish(report, Describe(report), foretold ? &*foretold : nullptr);
    if (timeline) timeline->finish();
    // Its destructor writes the last values into a file that is committed below.
    vcd.reset();
    if (panel.wanted())
        panel.write(*machine.frames(), report.time, [&](Picoseconds time) { return looking_on.last_line(time); });
    // Chips last: whatever could still fail before this leaves their files as they were.
    board.store();
    outputs.commit();
    outcome.part = ToJson(report);
    looking_on.add_end(report, outcome.part);
    if (timeline) outcome.part["timeline"] = TimelineJson(*timeline);
    if (replay) outcome.part["outcome"] = NameOf(replay->judgement().outcome);
    const int status = Report(call, report, looking_on.describe_end(report),
                              replay ? ""
                                     : HintOf({call.volume, call.files.nand, call.files.dataflash, call.host,
                                               foretold ? &*foretold : nullptr},
                                              report, machine.board(), board.chips, known),
                              outcome);
    if (timeline && !call.json) fmt::print(stderr, "{}", TimelineTable(*timeline));
    if (replay && !call.json) fmt::print(stderr, "{}: {}\n", call.replay, NameOf(replay->judgement().outcome));
    return status;
}

// What a board is made of. Returns the options that a replay excludes: its case has settled them.
std::vector<Option *> AddBoardOptions(Command &command, BootCall &call) {
    Option *const firmware =
        command.add_option("--firmware", call.firmware, "bootloader image to run, ELF or flat [the built one]")
            ->type_name("FILE");
    command.add_flag("--host", call.host, "run the bootloader on this machine's processor, not on an emulated ARM");
    Option *const volume =
        command.add_option("--volume", call.volume, "directory that the board sees as i:/vol0")->type_name("DIR");
    Option *const straps = command.add_option("--straps", call.straps, "boot straps fitted")
                               ->check(OneOfKeys(StrapsByName()))
                               ->capture_default_str();
    Option *const fail =
        command.add_option("--fail", call.fail, "make this part of the board fail")->check(OneOf({"file-server"}));
    Option *const watchdog =
        command
            .add_option("--watchdog", call.watchdog, "period in seconds of a watchdog that the first stage arms [off]")
            ->check(Number(0.001, 1000));
    Option *const resets =
        command.add_option("--max-resets", call.most_resets, "number of resets that counts as an endless loop")
            ->check(WholeNumber(1, 1'000'000))
            ->capture_default_str();
    command.add_option("--file-rate", call.file_rate, "rate at which files arrive, in MiB per second")
        ->check(Number(0.01, 100'000))
        ->capture_default_str();
    command.add_flag("--timeline", call.timeline, "show where the virtual time went");
    Option *const demo = command.add_flag("--demo", call.demo,
                                          "run a demo board made for this call; the default when no option is given");
    for (Option *const option : {firmware, volume, straps}) demo->excludes(option);
    return {firmware, volume, straps, fail, watchdog, resets, demo};
}

// The chip files. Returns --snapshot, which a replay excludes: its chip files are new.
Option *AddChipOptions(Command &command, BootCall &call) {
    call.files.add_options(command, "chip file; it keeps what the board writes", true);
    command.add_option("--eeprom", call.eeprom, "chip file of the parameter EEPROM")->type_name("FILE");
    Option *const snapshot =
        command.add_flag("--snapshot", call.snapshot, "start from the chip files, but leave them as they are");
    command.add_flag("--create", call.create, "create missing chip files")->excludes(snapshot);
    return snapshot;
}

void AddPictureOptions(Command &command, BootCall &call) {
    Option *const vcd =
        command.add_option("--vcd", call.vcd, "write the pins as a value change dump, for a logic-analyser program")
            ->type_name("FILE");
    command
        .add_option("--vcd-signals", call.vcd_signals,
                    "names of the signals to write, separated by commas; NAME* selects all that begin with NAME [all]")
        ->type_name("NAMES")
        ->needs(vcd);
    command.add_option("--panel", call.panel, "write what the panel shows at the end, as PNG")->type_name("FILE");
    command.add_option("--panel-frames", call.panel_frames, "write every distinct frame as PNG into this directory")
        ->type_name("DIR");
    Option *const gif =
        command
            .add_option("--panel-gif", call.panel_gif, "write what the panel shows during the boot as an animated GIF")
            ->type_name("FILE");
    command.add_option("--panel-gif-slower", call.gif_style.slower, "factor by which to slow the animation down")
        ->check(WholeNumber(1, 1000))
        ->capture_default_str()
        ->needs(gif);
    command
        .add_flag("--panel-gif-captions", call.gif_captions,
                  "put the time and the console's last line below each frame")
        ->needs(gif);
    command.add_option("--panel-wiring", call.panel_wiring, "how the panel's colours are connected")
        ->check(OneOfKeys(kWirings))
        ->capture_default_str();
    command.add_flag("--preview", call.preview, "show the panel in the terminal");
}

void AddReplayOptions(Command &command, BootCall &call, const std::vector<Option *> &settled) {
    Option *const replay =
        command
            .add_option("--replay", call.replay,
                        "run a case of a sweep, by the name that the sweep prints; chip files must be new")
            ->type_name("CASE");
    for (Option *const option : settled) replay->excludes(option);
    command
        .add_option("--power-up", call.power_up, "which power-up of the case to run, from 0 [the first after its cuts]")
        ->check(WholeNumber(0, 1000))
        ->needs(replay);
}

} // namespace

void AddBootCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<BootCall>();
    Command *command = app.add_subcommand("boot", "Power a board up and run it to its end");
    std::vector<Option *> settled = AddBoardOptions(*command, *call);
    AddObserveOptions(*command, call->observe);
    settled.push_back(AddChipOptions(*command, *call));
    AddPictureOptions(*command, *call);
    AddReplayOptions(*command, *call, settled);
    command->add_flag("--json", call->json, "print the verdict as one JSON object, and the console to standard error");
    command->callback([call, command, &exit_status] {
        if (!command->any_option_given()) call->demo = true;
        exit_status = Boot(*call);
    });
}

} // namespace fixture
