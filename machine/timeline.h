// A boot's virtual time, split by what it went to, start by start.
//
//   Timeline timeline(machine);                  before the run, on the emulated processor
//   machine.run();
//   timeline.finish();
//   timeline.total().ratio();                    time over what was dictated: 1 for a program that could do no better
//
// Every routine of the bootloader stands for a cause. From the first instruction of a routine until the next routine
// with a cause of its own, all time goes to that cause: instructions, bus accesses and waits alike. Routines that work
// for whoever calls them (memcpy, a division, a wire's bytes) have none. So the causes' times add up to the run's,
// to the picosecond.
//
// Some of it is dictated, whatever the program does: the pauses and bit times that it has to make, the cycles of the
// bus as programmed, what it waits for while it polls one register (chips, console, serial bus), the pages of files
// read for the first time in a start. The instructions are not, nor is reading a file again.
//
// An image without symbols has one cause, the rest. Looking on changes nothing that the run counts.
#pragma once

#include "machine/machine.h"
#include "machine/symbols.h"

#include <array>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

namespace fixture {

enum class Cause : std::uint8_t {
    pauses,      // usleep, but for the panel's bits, and the serial controller's settling
    console,     // making texts, and sending them at the console's rate
    reads,       // raw flash: looking for the chip, reading
    writes,      // raw flash: erasing, programming, reading back
    sums,        // over images and files
    files,       // calls of the file system
    wire,        // the two-wire bus: parameter store and panel controller
    panel,       // its serial bus, the LCD controller, drawing
    flush,       // caches and translation
    rest,        // all else
    application, // what was launched; no part of the boot
};
inline constexpr std::size_t kCauses = 11;
// "stated pauses", "console", "raw reads", ...
const char *NameOf(Cause cause);

struct TimeSpent {
    Picoseconds time = 0;
    Picoseconds dictated = 0; // may exceed `time` by what a pause ends early

    TimeSpent &operator+=(const TimeSpent &other);
    double ratio() const { return static_cast<double>(time) / static_cast<double>(dictated); }
};
using TimeSplit = std::array<TimeSpent, kCauses>;

class Timeline {
public:
    // The machine outlives the timeline; one timeline a machine.
    explicit Timeline(Machine &machine);
    ~Timeline();
    Timeline(const Timeline &) = delete;
    Timeline &operator=(const Timeline &) = delete;

    // After the run: charges what is still open.
    void finish();

    // One for every start of a bootloader, and for what was launched at the end.
    const std::vector<TimeSplit> &starts() const { return starts_; }
    // All starts together.
    TimeSplit sum() const;
    // The boot without the launched image.
    TimeSpent total() const;
    // The share of the boot that has no cause of its own.
    double rest() const;

private:
    // What of a routine's time is dictated, beside its files.
    enum class Dictates : std::uint8_t { accesses, all, nothing };
    struct Role {
        Cause cause = Cause::rest;
        Dictates dictates = Dictates::accesses;
        bool inherited = false; // it works for its caller
        bool pauses = false;    // called with microseconds
        bool bits = false;      // what it pauses for are the bits of its bus
    };
    struct Place {
        const char *routine;
        Role role;
    };
    static const Place kPlaces[];

    void entered(std::uint32_t address);
    void begin();
    void charge();
    TimeSpent &spent() { return starts_.back()[static_cast<std::size_t>(role_.cause)]; }
    const Role &role_at(std::uint32_t address);

    Machine &machine_;
    const Firmware *firmware_ = nullptr;
    std::uint32_t usleep_ = 0;                      // its address in that firmware
    std::unordered_map<std::uint32_t, Role> roles_; // by address, of the same
    Role role_;
    std::pair<unsigned, bool> start_{}; // the machine's count, and whether what was launched runs
    std::vector<TimeSplit> starts_;
    Picoseconds time_ = 0; // up to which all is charged
    std::uint64_t instructions_ = 0;
    Picoseconds waited_ = 0;
    Picoseconds files_ = 0; // those of pages read for the first time
    Picoseconds all_files_ = 0;
};

} // namespace fixture
