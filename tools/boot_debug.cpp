#include "tools/boot_debug.h"

#include "formats/file.h"
#include "tools/option_checks.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <map>

namespace fixture {

namespace {

double Milliseconds(Picoseconds time) { return static_cast<double>(time) / static_cast<double>(kMillisecond); }

Picoseconds FromMilliseconds(double ms) { return static_cast<Picoseconds>(ms * static_cast<double>(kMillisecond)); }

TraceFilter FilterOf(const ObserveCall &call) {
    TraceFilter filter{EventKinds(call.kinds), Words(call.peripherals), Words(call.functions),
                       FromMilliseconds(call.from_ms), kNever};
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
    std::ifstream words("/proc/self/cmdline", std::ios::binary);
    std::string call;
    for (std::string word; std::getline(words, word, '\0');) {
        const bool plain = word.find_first_of(" '\"$&;|<>*?()\\\n") == std::string::npos && !word.empty();
        call += (call.empty() ? "" : " ") + (plain ? word : fmt::format("'{}'", word));
    }
    return call;
}

} // namespace

void AddObserveOptions(CLI::App &command, ObserveCall &call) {
    const char *const group = "Debugging";
    command
        .add_flag("--keep-going", call.keep_going,
                  "go on after something that the datasheets forbid [the run ends there]")
        ->group(group);
    CLI::Option *const trace =
        command.add_option("--trace", call.trace, "write every event, a line each, to this file; - is standard output")
            ->group(group);
    command.add_option("--trace-last", call.trace_last, "only the last so many events")
        ->check(WholeNumber(1, 10'000'000))
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-kind", call.kinds, "only: register,chip,violation,console,file,reset,stage,power")
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-peripheral", call.peripherals, "only of these: PIOB,NAND,SPI*,...")
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-function", call.functions, "only while these routines are at work: NandFlash*,...")
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-from", call.from_ms, "only from this virtual time on, in milliseconds")
        ->check(Number(0, 1e9))
        ->needs(trace)
        ->group(group);
    command.add_option("--trace-until", call.until_ms, "only up to this virtual time, in milliseconds")
        ->check(Number(1e-9, 1e9))
        ->needs(trace)
        ->group(group);
    CLI::Option *const gdb =
        command
            .add_option("--gdb", call.gdb_port, "wait for GDB on this port of the loopback address [1234]; 0: any free")
            ->expected(0, 1)
            ->default_str("1234")
            ->check(WholeNumber(0, 65535))
            ->group(group);
    command.add_option("--gdb-on", call.gdb_on, "run on and wait there: entry, violation, hang, fault or reset")
        ->check(OneOfKeys(kStops))
        ->capture_default_str()
        ->needs(gdb)
        ->group(group);
    command
        .add_option(
            "--symbols", call.symbols,
            "ELF of an application: its symbols serve a launched image with the same content; may be given again")
        ->group(group);
    command.add_option("--report", call.report, "write the run as one page of HTML: timeline, panel, flash, events");
    command
        .add_option("--live", call.live,
                    "show panel and console while the board runs; 1 is real time, 10 is ten times as fast")
        ->expected(0, 1)
        ->default_str("1")
        ->check(Number(0.001, 1e6));
}

std::vector<Firmware> ProgramsWithSymbols(const ObserveCall &call) {
    std::vector<Firmware> programs;
    for (const std::string &file : call.symbols) {
        programs.push_back(ReadFirmware(file));
        if (!programs.back().elf) throw Refusal(file, "not an ELF, so it has no symbols", "an ELF", "no-symbols");
    }
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
    RequireInCall(!console_is_traced_ || console_ == stdout, "--trace", "standard output carries the report in JSON",
                  "a file");
    if (!call.trace.empty()) {
        trace_.emplace(console_is_traced_ ? std::cout : outputs.add(call.trace).stream(), FilterOf(call),
                       call.trace_last);
        events_.sinks.push_back([this](const Event &event) { trace_->add(event); });
    }
    events_.sinks.push_back([this](const Event &event) {
        last_.add(event);
        if (event.kind == EventKind::console) lines_.emplace_back(event.time, event.what);
    });
    if (call.report.empty()) return;
    report_file_ = &outputs.add(call.report);
    record_.emplace(machine);
    events_.sinks.push_back([this](const Event &event) { record_->add(event); });
}

void BootObservers::console(char c) {
    if (live_) live_->wait_for(machine_.board().clock.now()); // a character appears when the line has sent it
    if (!console_is_traced_) std::fputc(c, console_);
    if (record_) record_->console(c);
    events_.console(c);
}

void BootObservers::start() {
    if (call_.live) {
        live_.emplace(*call_.live);
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
    events_.finish();
    if (live_) live_->wait_for(report.time);
    live_.reset();
    if (debugger_) debugger_->finished(report);
    debugger_.reset();
    if (record_) write_report(report, verdict, foretold);
    trace_.reset();
}

void BootObservers::write_report(const RunReport &report, const std::string &verdict,
                                 const Prediction *foretold) const {
    FrameRecorder &frames = *machine_.frames();
    frames.look();
    const FlashMap after = MapOf(machine_.chips(), machine_.options().board.straps.boots_from_nand());
    report_file_->write(
        ReportPage(*record_, report, after, frames.frames(),
                   {verdict.substr(0, verdict.find("; booting from")), describe_end(report), ThisCall(), foretold}));
}

std::string BootObservers::last_line(Picoseconds time) const {
    const auto after = std::upper_bound(lines_.begin(), lines_.end(), time,
                                        [](Picoseconds at, const auto &line) { return at < line.first; });
    if (after == lines_.begin()) return "";
    const std::string &line = (after - 1)->second;
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
        entry["event"] = Printable(DescribeEvent(event));
        if (event.pc) entry["place"] = Printable(event.symbols->place(event.pc));
        json["last_events"].push_back(entry);
    }
}

} // namespace fixture
