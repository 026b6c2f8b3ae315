#include "machine/timeline.h"

#include <algorithm>
#include <fnmatch.h>
#include <string>
#include <utility>

namespace fixture {

// Routines and their causes, by name or by a pattern; the first line that fits holds. What stands nowhere is rest.
const Timeline::Place Timeline::kPlaces[] = {
    // Steps between the instruction sets, and the library: they work for whoever calls them.
    {"*_from_thumb", {.inherited = true}},
    {"*_from_arm", {.inherited = true}},
    {"__gnu_thumb1*", {.inherited = true}},
    {"mem*", {.inherited = true}},
    {"str*", {.inherited = true}},
    {"*div*", {.inherited = true}},
    {"GetMasterClock", {.inherited = true}},
    {"(anonymous namespace)::PllClock", {.inherited = true}},

    {"usleep", {.cause = Cause::pauses, .dictates = Dictates::nothing, .pauses = true}},
    {"(anonymous namespace)::Wait", {.inherited = true}},

    // The two-wire bus. Its delays are bit times, which no program can shorten.
    {"mmio::Spin", {.cause = Cause::wire, .dictates = Dictates::all}},
    {"I2C_Delay", {.cause = Cause::wire, .dictates = Dictates::all}},
    {"I2C_*", {Cause::wire}},
    {"SCL*", {Cause::wire}},
    {"SDA*", {Cause::wire}},
    {"(anonymous namespace)::SclComesUp", {Cause::wire}},
    {"TWI*", {Cause::wire}},
    {"dev_at91sam926x_twi*", {Cause::wire}},
    {"*EEprom*", {Cause::wire}},
    {"ReadAndCheckSector", {Cause::wire}},
    {"*hkSum", {Cause::wire}},
    {"ui*", {Cause::wire}},

    // The panel's serial bus makes its bits by usleep: those are no pauses, but the bus.
    {"Spi_*", {.cause = Cause::panel, .bits = true}},
    {"LCD_*", {Cause::panel}},
    {"*LCD", {Cause::panel}},
    {"(anonymous namespace)::SendWord", {Cause::panel}},
    {"(anonymous namespace)::StoreTurns", {Cause::panel}},

    // Raw flash. What reads and writes share belongs to the one that called it.
    {"AT91SAM926X_WriteDataflash", {Cause::writes}},
    {"AT91SAM926X_ReadDataflash", {Cause::reads}},
    {"AT91SAM926X_InitializeDataflash", {Cause::reads}},
    // Little but a stated wait of 10.5 ms, a loop of its own too.
    {"AT91SAM926X_SpiEnable", {.cause = Cause::pauses, .dictates = Dictates::all}},
    {"AT91SAM926X_SpiInit", {.cause = Cause::pauses, .dictates = Dictates::all}},
    {"AT91SAM926X_SpiWrite", {.inherited = true}},
    {"(anonymous namespace)::Send", {.inherited = true}},
    {"(anonymous namespace)::Move", {.inherited = true}},
    {"(anonymous namespace)::WaitReady", {.inherited = true}},
    {"(anonymous namespace)::MayTransfer", {.inherited = true}},
    // Erasing stands before AT91F_*, which would take it in: the first line that fits holds.
    {"NandFlash_Write", {Cause::writes}},
    {"AT91F_NandEraseBlock", {Cause::writes}},
    {"NandFlash_Read", {Cause::reads}},
    {"NandFlash_Init", {Cause::reads}},
    {"OL_nand*", {Cause::reads}},
    {"AT91F_*", {Cause::reads}},
    {"CheckBlock", {.inherited = true}},
    {"(anonymous namespace)::*Page", {.inherited = true}},
    {"NandBus_*", {.inherited = true}},

    {"Sums_*", {Cause::sums}},
    // Calls of the file system: pages that are read for the first time are dictated, pages that are read again are not.
    {"_open*", {Cause::files}},
    {"_read*", {Cause::files}},
    {"_close*", {Cause::files}},
    {"_stat*", {Cause::files}},
    {"semihosting::*", {Cause::files}},
    {"ASP_FlushCaches", {Cause::flush}},
    {"MMU_Enable*", {Cause::flush}},

    {"CONSOLE_*", {Cause::console}},
    {"*printf*", {Cause::console}},
    {"*puts*", {Cause::console}},
    {"__s*", {Cause::console}},
    {"*fflush*", {Cause::console}},
    {"_write*", {Cause::console}},
};

namespace {

bool Fits(const std::string &name, const char *pattern) { return fnmatch(pattern, name.c_str(), FNM_NOESCAPE) == 0; }

} // namespace

const char *NameOf(Cause cause) {
    static constexpr std::array<const char *, kCauses> kNames = {
        "stated pauses", "console", "raw reads",   "raw writes", "sums",        "file calls",
        "two-wire bus",  "panel",   "cache flush", "the rest",   "application",
    };
    return kNames[static_cast<std::size_t>(cause)];
}

TimeSpent &TimeSpent::operator+=(const TimeSpent &other) {
    time += other.time;
    dictated += other.dictated;
    return *this;
}

Timeline::Timeline(Machine &machine) : machine_(machine) {
    machine_.arm().watch_runs([this](const CodeRun &run) { entered(run.address); });
}

Timeline::~Timeline() { machine_.arm().watch_runs(nullptr); }

const Timeline::Role &Timeline::role_at(std::uint32_t address) {
    // By address: a routine is entered a hundred thousand times and looked up by name once.
    const auto [known, is_new] = roles_.try_emplace(address);
    if (!is_new) return known->second;
    const std::string name = Symbols(firmware_).routine(address);
    for (const Place &place : kPlaces)
        if (Fits(name, place.routine)) {
            known->second = place.role;
            break;
        }
    return known->second;
}

void Timeline::begin() {
    firmware_ = machine_.running();
    // Without bit 0, by which a symbol tells the instruction set: runs of code begin at even addresses.
    usleep_ = firmware_ && firmware_->elf ? firmware_->elf->symbol("usleep").value_or(0) & ~1u : 0;
    // The same address is another routine in another build.
    roles_.clear();
    role_ = {};
    if (machine_.in_launched()) role_ = {.cause = Cause::application, .dictates = Dictates::nothing};
    starts_.emplace_back();
}

void Timeline::entered(std::uint32_t address) {
    const std::pair start(machine_.starts(), machine_.in_launched());
    if (starts_.empty() || start != start_) {
        charge();
        start_ = start;
        begin();
    }
    if (machine_.in_launched()) return;
    Role role = role_at(address);
    if (role.inherited) return;
    charge();
    // usleep called from the panel's bus: the time is the bus's, not a pause.
    if (role.pauses && role_.bits) {
        role.cause = role_.cause;
        role.bits = true;
    }
    role_ = role;
    // r0 holds the microseconds that are asked for.
    if (address == usleep_) spent().dictated += machine_.arm().registers()[0] * kMicrosecond;
}

// What has passed since the last charge goes to the routine at work. It was instructions, files, or the board.
void Timeline::charge() {
    const ArmProcessor &arm = machine_.arm();
    const Picoseconds time = arm.time() - std::exchange(time_, arm.time());
    const std::uint64_t instructions = arm.instructions() - std::exchange(instructions_, arm.instructions());
    const Picoseconds waited = machine_.board().bus.waited() - std::exchange(waited_, machine_.board().bus.waited());
    const Picoseconds needed = machine_.file_time_needed() - std::exchange(files_, machine_.file_time_needed());
    const Picoseconds all_files = machine_.file_time() - std::exchange(all_files_, machine_.file_time());
    // Before the first routine there is nobody to charge; the exchanges above have set where counting begins.
    if (starts_.empty()) return;
    const Picoseconds computed = instructions * machine_.board().pmc.core_cycle();
    spent().time += time;
    spent().dictated += needed;
    if (role_.dictates == Dictates::all) spent().dictated += time;
    if (role_.dictates == Dictates::accesses) {
        // What is computed between two looks at a register costs nothing: the wait lasts as long without it.
        const Picoseconds worked = computed - std::min(computed, waited) + all_files;
        spent().dictated += time - std::min(time, worked);
    }
}

void Timeline::finish() { charge(); }

TimeSplit Timeline::sum() const {
    TimeSplit all{};
    for (const TimeSplit &start : starts_)
        for (std::size_t n = 0; n < kCauses; ++n) all[n] += start[n];
    return all;
}

TimeSpent Timeline::total() const {
    TimeSpent boot;
    const TimeSplit all = sum();
    for (std::size_t n = 0; n < kCauses; ++n)
        if (static_cast<Cause>(n) != Cause::application) boot += all[n];
    return boot;
}

double Timeline::rest() const {
    const auto rest = static_cast<double>(sum()[static_cast<std::size_t>(Cause::rest)].time);
    return rest / static_cast<double>(total().time);
}

} // namespace fixture
