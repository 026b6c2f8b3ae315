// One power-up of a board and all that follows from it: the first-stage stand-in starts a bootloader, the bootloader
// resets the processor, the first stage starts what was left for it, and so on, until something ends the run.
//
//   Machine machine(chips, run_options);
//   machine.board().two_wire_trouble.inject({LineFault::Line::scl, 37});     prepare the board, plan faults
//   RunReport report = machine.run();
//
// A Machine is one power-up; a power cycle is a new Machine on the same chips.
#pragma once

#include "fixture/board.h"
#include "fixture/processors/arm_processor.h"
#include "machine/firmware.h"
#include "machine/frames.h"
#include "machine/volume.h"
#include "platform/host/native_processor.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

enum class ProcessorKind : std::uint8_t { arm, host };

// What files arrive at, in MiB a second: a little less than raw pages of the 8-bit NAND do (12.7, docs/bench.txt), for
// the layer between files and pages.
inline constexpr double kFileRate = 12;

struct RunOptions {
    ProcessorKind processor = ProcessorKind::arm;
    const KnownFirmware *known = nullptr;    // builds that images are known by; needed on the host
    std::span<const Firmware> programs = {}; // ELFs whose symbols serve a launched image with the same content
    const Firmware *firmware = nullptr; // replaces the first stage's choice: at the first start with slots, else always
    bool slots = false;                 // the first stage looks for bootloaders in the chips' slots
    std::filesystem::path volume;       // directory of the file system; empty: no files
    double file_rate = kFileRate;       // MiB of files that a second brings; above 0
    BoardOptions board;
    bool file_server_fails = false;
    unsigned most_resets = 8;
    bool run_launched = true; // false: the run ends where the first stage would start the launched image
    bool watch_alignment = true;
    bool keep_going = true; // false: the first violation ends the run
    bool sightings = false; // whether the report shows the place of a bad end; reads the ELF again when there is one
    std::function<void(char)> console;
};

enum class Verdict : std::uint8_t {
    launched,      // an image was handed over and started
    idle,          // nothing to launch: main has returned
    no_bootloader, // the first stage found no good slot
    power_lost,    // the planned cut came
    reset_loop,    // more resets than allowed
    hang,          // a wait that can never end
    fault,         // the program reported a fault or cannot go on
    violation,     // something the datasheets forbid was done
};
const char *VerdictName(Verdict verdict);

// Where the processor was when something went wrong.
struct Sighting {
    Picoseconds time = 0;
    std::uint32_t pc = 0;           // 0 natively
    std::vector<std::string> chain; // the place and the calls that led there, innermost first; empty natively
    std::uint64_t times = 1;        // how often it happened: a violation in this run, a reset in a loop; else once
};

struct RunReport {
    Verdict verdict = Verdict::idle;
    std::string place;    // of a hang, fault or violation; what made the last reset of a loop
    std::string medium;   // "NAND" or "DataFlash": what the board boots from
    std::string launched; // the file or slot whose image was started
    std::uint32_t launched_bytes = 0;
    std::string launched_end;     // how the launched image ended
    std::optional<unsigned> slot; // the bootloader slot that the first stage took last
    unsigned resets = 0;
    Picoseconds time = 0;
    std::uint64_t instructions = 0; // on the emulated processor
    std::optional<Sighting> sighting;
    TwoWireTimes two_wire; // the shortest bit times that were seen

    // 0 launched, 1 nothing to launch, 3 anything that must not happen.
    int exit_status() const;
};

// What a run goes through, for those who look on.
enum class EventKind : std::uint8_t {
    access,    // a register is read or written
    chip,      // a chip does something
    violation, // something the datasheets forbid
    console,   // a line of the console
    file,      // a call of the file system
    reset,     // the processor is reset
    stage,     // what the first stage chooses and starts; how a stage ends
    power,     // the power goes
};

// What stops a run for a look at it.
enum class Trouble : std::uint8_t { violation, hang, fault, reset };

class Machine {
public:
    Machine(Chips &chips, RunOptions options);
    ~Machine();
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    Board &board() { return board_; }
    RunReport run();

    // Collects the panel's frames from now on. Before the run.
    void record_frames(PanelWiring wiring);
    FrameRecorder *frames() { return frames_ ? &*frames_ : nullptr; }

    // Told of resets, stages and file calls as they happen.
    std::function<void(EventKind kind, std::string where, std::string what)> observer;
    // Told of trouble at the place where it arises, before anything is done about it.
    std::function<void(Trouble trouble, const std::string &what)> troubled;
    Chips &chips() { return chips_; }
    const RunOptions &options() const { return options_; }
    // Bootloader starts so far.
    unsigned starts() const { return starts_; }
    // What files have taken so far, and what of it reading each page once a start would have.
    Picoseconds file_time() const { return file_time_; }
    Picoseconds file_time_needed() const { return file_time_needed_; }
    // Where the emulated processor is: 0 where none runs. Exact inside a bus access.
    std::uint32_t pc() const { return arm_ && arm_->running() ? arm_->pc() : 0; }
    // Whether an image runs that was handed over.
    bool in_launched() const { return in_launched_; }
    // What runs, known by its content: a build, or a program of the options. Null or without an ELF where nothing is
    // known of it.
    const Firmware *running() const { return running_; }
    // The processor of the run, made if it is not there yet: for a debugger. Not for a native run.
    ArmProcessor &arm();
    // The calls that led to where the emulated processor is.
    std::vector<std::string> call_chain() const;
    // Ends the running stage from outside: a debugger's reset, or its loss of power.
    void stop(StageResult result);

    // For single routines: starts the chosen bootloader up to the entry of main, then calls one routine by its name.
    StageResult start();
    StageResult call(const char *routine, std::span<const std::uint32_t> arguments, std::uint32_t &result);
    // A named object of the bootloader, in this process's memory; null where there is none.
    void *object(const char *name);
    // A routine's or object's address on the emulated processor.
    std::uint32_t symbol(const char *name) const;
    std::uint64_t instructions() const { return arm_ ? arm_->instructions() : 0; }

private:
    void connect();
    void tell(EventKind kind, std::string where, std::string what) const;
    void sight(std::uint64_t times);
    void stage_ends(const StageResult &end);
    StageResult run_bootloader(const Firmware &firmware);
    void launch();
    const Firmware *program_at(std::uint32_t entry);
    const Firmware *bootloader_in_slot();
    const Firmware *choose_bootloader();
    void note_rescue(char c);
    void name_launched();
    RunReport finish(RunReport report);

    RunOptions options_;
    Chips &chips_;
    Board board_;
    Volume volume_;
    SemihostingServer debugger_;
    std::unique_ptr<ArmProcessor> arm_;
    std::unique_ptr<NativeProcessor> native_;
    const Firmware *running_ = nullptr;
    std::optional<Firmware> from_slot_;
    std::optional<FrameRecorder> frames_;
    Picoseconds file_time_ = 0;
    Picoseconds file_time_needed_ = 0;
    bool in_launched_ = false;
    unsigned starts_ = 0;
    std::optional<Sighting> sighting_; // of the first thing that went wrong
    std::string console_line_;         // the one that is being printed, or its beginning
    bool rescue_found_ = false;        // since the bootloader's last start
    RunReport report_;
};

} // namespace fixture
