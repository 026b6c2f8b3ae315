#include "tools/boot_debug.h"

#include "formats/file.h"
#include "tools/commands.h"
#include "tools/option_checks.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <map>

namespace fixture {

namespace {

TraceFilter FilterOf(const ObserveCall &call) {
    TraceFilter filter{EventKinds(call.kinds), Words(call.peripherals), Words(call.functions),
                       FromMilliseconds(call.from_ms), kNever};
    // 0 stands for "not given": the option's check refuses an end at time 0, which would show nothing.
    if (call.until_ms > 0) filter.until = FromMilliseconds(call.until_ms);
    return filter;
}

const std::map<std::string, Debugger::StopOn> kStops = {{"entry", Debugger::StopOn::entry},
                                                        {"violation", Debugger::StopOn::violation},
                                                        {"hang", Debugger::StopOn::hang},
                                                        {"fault", Debugger::StopOn::fault},
                                                        {"reset", Debugger::StopOn::reset}};

// The call, as it could be typed again: a page without it is a picture of nothing that can be repeated.
std::string ThisCall() {
    // Read from the system rather than handed down from main: only this page needs the words.
    std::ifstream words("/proc/self/cmdline", std::ios::binary);
    std::string call;
    for (std::string word; std::getline(words, word, '\0');) call += (call.empty() ? "" : " ") + ShellWord(word);
    return call;
}

} // namespace

void AddObserveOptions(Command &command, ObserveCall &call) {
    const char *const group = "Debugging";
    command
        .add_flag("--keep-going", call.keep_going, "continue after something that the datasheets forbid [stop there]")
        ->group(group);
    Option *const trace =
        command
            .add_option("--trace", call.trace, "write every event to this file, one line each; - is standard output")
            ->type_name("FILE")
            ->group(group);
    command.add_option("--trace-last", call.trace_last, "write only this many events, the last ones [all]")
        ->check(WholeNumber(1, 10'000'000))
        ->needs(trace)
        ->group(group);
    command
        .add_option("--trace-kind", call.kinds,
                    "write only these kinds: register,chip,violation,console,file,reset,stage,power [all]")
        ->type_name("KINDS")
        ->needs(trace)
        ->group(group);
    command
        .add_option("--trace-peripheral", call.peripherals, "write only what these do, such as PIOB,NAND,SPI* [all]")
        ->type_name("NAMES")
        ->needs(trace)
        ->group(group);
    command
        .add_option("--trace-function", call.functions, "write only while these routines run, such as NandFlash* [all]")
        ->type_name("NAMES")
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-from", call.from_ms, "write only from this virtual time on, in milliseconds [0]")
        ->check(Number(0, 1e9))
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-until", call.until_ms, "write only up to this virtual time, in milliseconds [the end]")
        ->check(Number(0.001, 1e9))
        ->needs(trace)
        ->group(group);
    Option *const gdb = command
                            .add_option("--gdb", call.gdb_port,
                                        "wait for GDB on this port of the loopback address; 0 takes any free port")
                            ->expected(0, 1)
                            ->default_str("1234")
                            ->check(WholeNumber(0, 65535))
                            ->group(group);
    command.add_option("--gdb-on", call.gdb_on, "where to stop and wait for GDB")
        ->check(OneOfKeys(kStops))
        ->capture_default_str()
        ->needs(gdb)
        ->group(group);
    command
        .add_option("--symbols", call.symbols,
                    "ELF of an application, for the symbols of a launched image with the same content; may be repeated")
        ->type_name("FILE")
        ->group(group);
    command
        .add_option("--report", call.report,
                    "write a report of the run as one HTML page: timeline, panel, flash, events")
        ->type_name("FILE");
    command
        .add_option("--live", call.live,
                    "show panel and console while the board runs; 1 is real time, 10 is ten times faster")
        ->expected(0, 1)
        ->default_str("1")
        ->check(Number(0.001, 1e6));
}

std::vector<Firmware> ProgramsWithSymbols(const ObserveCall &call) {
    std::vector<Firmware> programs;
    for (const std::string &file : call.symbols) {
        programs.push_back(ReadFirmware(file));
        // A flat image has no names. Accepted silently, it would leave bare addresses in the trace and no reason why.
        if (!programs.back().elf) throw Refusal(file, "not an ELF, so it has no symbols", "an ELF", "no-symbols");
    }
    // The demo board launches these; without them its trace would end in bare addresses.
    for (const char *name : {"demo-application", "demo-rescue"})
        if (const auto file = FirmwareDirectory() / name; std::filesystem::exists(file))
            programs.push_back(ReadFirmware(file));
    return programs;
}

void CheckObserveOptions(const ObserveCall &call) {
    RequireInCall(call.until_ms == 0 || call.until_ms >= call.from_ms, "--trace-until",
                  fmt::format("{} ms is before --trace-from", call.until_ms), "a later time");
}

BootObservers::BootObservers(const ObserveCall &call, Machine &machine, std::FILE *console, OutputFiles &outputs)
    : call_(call), machine_(machine), console_(console), console_is_traced_(call.trace == "-"), events_(machine) {
    // With --json that stream has to be one object and nothing else.
    RequireInCall(!console_is_traced_ || console_ == stdout, "--trace", "standard output carries the report in JSON",
                  "a file");
    if (!call.trace.empty()) {
        trace_.emplace(console_is_traced_ ? std::cout : outputs.add(call.trace).stream(), FilterOf(call),
                       call.trace_last);
        events_.sinks.push_back([this](const Event &event) { trace_->add(event); });
    }
    // The ring is always kept: nobody knows before the end that a run will end badly.
    events_.sinks.push_back([this](const Event &event) {
        last_.add(event);
        if (event.kind == EventKind::console) lines_.emplace_back(event.time, event.what);
    });
    // A record holds every event of the run. It is made only if a page will be drawn from it.
    if (call.report.empty()) return;
    report_file_ = &outputs.add(call.report);
    record_.emplace(machine);
    events_.sinks.push_back([this](const Event &event) { record_->add(event); });
}

void BootObservers::console(char c) {
    if (live_) live_->wait_for(machine_.board().clock.now()); // a character appears when the line has sent it
    // The trace has console lines of its own: characters between them would tear its lines apart.
    if (!console_is_traced_) std::fputc(c, console_);
    if (record_) record_->console(c);
    events_.console(c);
}

void BootObservers::start() {
    if (call_.live) {
        live_.emplace(*call_.live);
        assert(machine_.frames() && "recorded wherever wants_frames() asks for it");
        // Boot() has them recorded wherever wants_frames() says so, and --live does.
        machine_.frames()->observer = [this](const FrameRecorder::Frame &frame) {
            live_->wait_for(frame.time);
            live_->show(frame.picture, frame.time);
        };
    }
    if (!call_.gdb_port) return;
    // Last: it calls whoever observed the bus before it.
    debugger_.emplace(machine_, *call_.gdb_port, kStops.at(call_.gdb_on));
    debugger_->notice = [](const std::string &text) { fmt::print(stderr, "gdb: {}\n", text); };
}

void BootObservers::finish(const RunReport &report, const std::string &verdict, const Prediction *foretold) {
    // First: it hands over the event that is still being counted, which the trace and the report lack until then.
    events_.finish();
    // The run may end long after its last character or frame.
    if (live_) live_->wait_for(report.time);
    // Gives the terminal back before anything else is printed: it would scroll away below the panel.
    live_.reset();
    // GDB hears how the run ended before the connection closes. Otherwise it would report a broken one.
    if (debugger_) debugger_->finished(report);
    debugger_.reset();
    if (record_) write_report(report, verdict, foretold);
    // With --trace-last its events are written only now. Its file is committed by the caller after this.
    trace_.reset();
}

void BootObservers::write_report(const RunReport &report, const std::string &verdict,
                                 const Prediction *foretold) const {
    assert(machine_.frames() && "recorded wherever wants_frames() asks for it");
    FrameRecorder &frames = *machine_.frames();
    // The last frame may have been drawn after the last bus access, and so after the last glance.
    frames.look();
    const FlashMap after = MapOf(machine_.chips(), machine_.options().board.straps.boots_from_nand());
    report_file_->write(
        ReportPage(*record_, report, after, frames.frames(),
                   // The page has medium, time and resets in places of their own.
                   {verdict.substr(0, verdict.find("; booting from")), describe_end(report), ThisCall(), foretold}));
}

std::string BootObservers::last_line(Picoseconds time) const {
    const auto after = std::upper_bound(lines_.begin(), lines_.end(), time,
                                        [](Picoseconds at, const auto &line) { return at < line.first; });
    if (after == lines_.begin()) return "";
    const std::string &line = (after - 1)->second;
    // The bootloader indents by tabs; a caption has no room for them.
    return line.substr(std::min(line.find_first_not_of("\t "), line.size()));
}

std::string BootObservers::describe_end(const RunReport &report) const {
    if (!report.sighting) return {};
    const Sighting &seen = *report.sighting;
    std::string text = fmt::format("  at {:.6f} ms of virtual time", Milliseconds(seen.time));
    if (seen.times > 1) text += fmt::format(", {} times", seen.times);
    text += "\n";
    for (std::size_t i = 0; i < seen.chain.size(); ++i)
        text += fmt::format("  {} {}\n", i == 0 ? "in       " : "called by", seen.chain[i]);
    text += "  the last events:\n";
    for (const Event &event : last_.in_order()) text += "  " + TraceLine(event);
    return text;
}

void BootObservers::add_end(const RunReport &report, nlohmann::ordered_json &json) const {
    if (!report.sighting) return;
    const Sighting &seen = *report.sighting;
    json["seen_ms"] = Milliseconds(seen.time);
    json["times"] = seen.times;
    if (seen.pc) json["pc"] = seen.pc;
    json["call_chain"] = nlohmann::ordered_json::array();
    for (const std::string &place : seen.chain) json["call_chain"].push_back(Printable(place));
    json["last_events"] = nlohmann::ordered_json::array();
    for (const Event &event : last_.in_order()) {
        nlohmann::ordered_json entry = {{"ms", Milliseconds(event.time)}, {"kind", NameOf(event.kind)}};
        // An event may quote a path or a console line, whose bytes come from a file.
        entry["event"] = Printable(DescribeEvent(event));
        if (event.pc) entry["place"] = Printable(event.symbols->place(event.pc));
        json["last_events"].push_back(entry);
    }
}

} // namespace fixture
