// What `fixture boot` shows of a run besides its console: the trace, the place of a bad end and what led to it.
#pragma once

#include "formats/file.h"
#include "machine/debugger.h"
#include "machine/report.h"
#include "machine/trace.h"
#include "tools/live.h"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace fixture {

class Command;

struct ObserveCall {
    std::string trace;
    std::size_t trace_last = 0;
    std::string kinds;
    std::string peripherals;
    std::string functions;
    double from_ms = 0;
    double until_ms = 0;
    bool keep_going = false;
    std::optional<std::uint16_t> gdb_port;
    std::string gdb_on = "entry";
    std::vector<std::string> symbols;
    std::string report;
    std::optional<double> live; // seconds of virtual time in a second
    bool wants_frames() const { return !report.empty() || live; }
};
void AddObserveOptions(Command &command, ObserveCall &call);
// Throws Refusal for options that would do nothing in this call.
void CheckObserveOptions(const ObserveCall &call);

// Programs that a bank may launch, by their ELFs: those of this build, and what the call names. Throws Refusal.
std::vector<Firmware> ProgramsWithSymbols(const ObserveCall &call);

// Everything that looks on while a machine runs.
class BootObservers {
public:
    // Before the run; `console` gets what the board prints, and trace and report go to `outputs`. Throws Refusal where
    // a file cannot be written, a name in a filter does not exist, or trace and console would share a stream with a
    // report in JSON.
    BootObservers(const ObserveCall &call, Machine &machine, std::FILE *console, OutputFiles &outputs);

    void console(char c);
    // When everybody else who looks on is in place: shows frames as they come, and waits for a debugger.
    void start();
    // Whether finish() has a use for what was foretold of the run.
    bool wants_forecast() const { return record_.has_value(); }
    // After the run: what is left to be written and told. `verdict` in one line; `foretold` may be null.
    void finish(const RunReport &report, const std::string &verdict, const Prediction *foretold);

    // What the console had printed last at a moment of the run: one line.
    std::string last_line(Picoseconds time) const;
    // A bad end's place, the calls that led there and the last events, in lines; empty for a good end.
    std::string describe_end(const RunReport &report) const;
    void add_end(const RunReport &report, nlohmann::ordered_json &json) const;

private:
    void write_report(const RunReport &report, const std::string &verdict, const Prediction *foretold) const;

    const ObserveCall &call_;
    Machine &machine_;
    std::FILE *console_;
    bool console_is_traced_;
    EventStream events_;
    EventRing last_{20};
    std::vector<std::pair<Picoseconds, std::string>> lines_; // of the console
    std::optional<Trace> trace_;
    OutputFile *report_file_ = nullptr;
    std::optional<Debugger> debugger_;
    std::optional<RunRecord> record_;
    std::optional<Live> live_;
};

} // namespace fixture
