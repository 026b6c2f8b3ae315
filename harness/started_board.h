// What tests stand on: whole boots, and single routines of the bootloader, on either processor.
//
//   StartedBoard started(Processor::arm);                      a powered board, started up to the entry of main
//   started.call("NandFlash_if_Read", 0x40000, buffer, 2048);
//
//   BootResult boot = RunBoot({.processor = Processor::host, .volume = directory});
//   boot.console.ends_with("Start application\n");
//
// The bootloader is the build with the fixed build record.
#pragma once

#include "machine/machine.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace fixture {

using Processor = ProcessorKind;

// The bootloader builds that tests run: version 1.9.0, 1.9.1.
const KnownFirmware &TestFirmware();
const Firmware &Bootloader(const std::string &version = "1.9.0");

class StartedBoard {
public:
    // `prepare` sees the board before it starts.
    explicit StartedBoard(Processor processor, BoardOptions board = {},
                          const std::function<void(Board &)> &prepare = {});
    // The same on chips that outlive it, with files.
    StartedBoard(Processor processor, Chips &chips, const std::filesystem::path &volume, BoardOptions board = {},
                 const std::function<void(Board &)> &prepare = {});

    Board &board() { return machine_->board(); }
    Machine &machine() { return *machine_; }

    // Calls a routine by its name. Pointers are SDRAM addresses. Throws std::runtime_error where it does not return.
    template <typename... Arguments> std::uint32_t call(const char *routine, Arguments... arguments) {
        return call_with(routine, {static_cast<std::uint32_t>(arguments)...});
    }
    // The same where the stage may end otherwise: the end, and the result where the routine returned.
    StageResult try_call(const char *routine, const std::vector<std::uint32_t> &arguments, std::uint32_t &result);

    // SDRAM to put buffers in; the address is good on both processors.
    std::uint32_t scratch(std::size_t bytes);
    std::uint32_t scratch_text(const std::string &text);
    // SDRAM as the processor sees it.
    std::uint8_t *at(std::uint32_t address);
    // A named object of the bootloader.
    void *object(const char *name) { return machine_->object(name); }
    // What was printed since the last call.
    std::string console();

private:
    std::uint32_t call_with(const char *routine, const std::vector<std::uint32_t> &arguments);

    Chips own_chips_;
    std::string console_;
    std::uint32_t next_scratch_ = 0x21000000;
    std::unique_ptr<Machine> machine_;
};

struct BootCase {
    Processor processor = Processor::arm;
    std::filesystem::path volume;
    BoardOptions board;
    Chips *chips = nullptr;  // none: empty chips
    bool from_slots = false; // true: the first stage chooses from the slots, no --firmware
    bool file_server_fails = false;
    unsigned most_resets = 8;
    bool run_launched = false;
    std::function<void(Machine &)> prepare;
    std::function<void(Machine &)> inspect; // after the run, with memory and board as they were left
};

struct BootResult {
    std::string console;
    RunReport report;
};

// One power-up to the end of the run.
BootResult RunBoot(const BootCase &boot);

// A directory that is removed again.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    const std::filesystem::path &path() const { return path_; }
    // Writes a file below it, directories included.
    std::filesystem::path write(const std::filesystem::path &relative, const std::string &content) const;

private:
    std::filesystem::path path_;
};

} // namespace fixture
