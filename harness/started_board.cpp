#include "harness/started_board.h"

#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <stdexcept>

namespace fixture {

const KnownFirmware &TestFirmware() {
    static const KnownFirmware known(FirmwareDirectory() / "fixed");
    return known;
}

const Firmware &Bootloader(const std::string &version) {
    for (const Firmware &build : TestFirmware().all()) {
        const BootVersion &v = build.version;
        if (fmt::format("{}.{}.{}", v.major, v.minor, v.build) == version) return build;
    }
    throw std::runtime_error("no build of the bootloader for tests; run make firmware");
}

StartedBoard::StartedBoard(Processor processor, BoardOptions board, const std::function<void(Board &)> &prepare)
    : StartedBoard(processor, own_chips_, {}, board, prepare) {}

StartedBoard::StartedBoard(Processor processor, Chips &chips, const std::filesystem::path &volume, BoardOptions board,
                           const std::function<void(Board &)> &prepare) {
    // Made in place: callbacks refer to this object, and the machine refers to the chips beside it.
    machine_ = std::make_unique<Machine>(chips, RunOptions{.processor = processor,
                                                           .known = &TestFirmware(),
                                                           .firmware = &Bootloader(),
                                                           .volume = volume,
                                                           .board = board,
                                                           .console = [this](char c) { console_ += c; }});
    // Before the start, so that faults and pin levels hold from the first instruction on.
    if (prepare) prepare(machine_->board());
    const StageResult started = machine_->start();
    if (started.end != StageEnd::stopped_at) throw std::runtime_error("main not reached: " + started.place);
}

StageResult StartedBoard::try_call(const char *routine, const std::vector<std::uint32_t> &arguments,
                                   std::uint32_t &result) {
    return machine_->call(routine, arguments, result);
}

std::uint32_t StartedBoard::call_with(const char *routine, const std::vector<std::uint32_t> &arguments) {
    // Ends of any other kind throw: a test that goes on after a fault would test nothing.
    std::uint32_t result = 0;
    const StageResult end = try_call(routine, arguments, result);
    if (end.end != StageEnd::stopped_at) throw std::runtime_error(std::string(routine) + " ended at " + end.place);
    return result;
}

std::uint32_t StartedBoard::scratch(std::size_t bytes) {
    const std::uint32_t address = next_scratch_;
    next_scratch_ += (static_cast<std::uint32_t>(bytes) + 31u) & ~31u; // whole cache lines: buffers do not share one
    return address;
}

std::uint32_t StartedBoard::scratch_text(const std::string &text) {
    const std::uint32_t address = scratch(text.size() + 1);
    std::copy_n(text.c_str(), text.size() + 1, at(address));
    return address;
}

std::uint8_t *StartedBoard::at(std::uint32_t address) { return board().memory.memory().from(address).data(); }

std::string StartedBoard::console() { return std::exchange(console_, {}); }

BootResult RunBoot(const BootCase &boot) {
    BootResult result;
    Chips none;
    Machine machine(boot.chips ? *boot.chips : none, {.processor = boot.processor,
                                                      .known = &TestFirmware(),
                                                      .firmware = boot.from_slots ? nullptr : &Bootloader(),
                                                      .slots = boot.from_slots,
                                                      .volume = boot.volume,
                                                      .board = boot.board,
                                                      .file_server_fails = boot.file_server_fails,
                                                      .most_resets = boot.most_resets,
                                                      .run_launched = boot.run_launched,
                                                      .console = [&result](char c) { result.console += c; }});
    if (boot.prepare) boot.prepare(machine);
    result.report = machine.run();
    if (boot.inspect) boot.inspect(machine);
    return result;
}

TemporaryDirectory::TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "fixture-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
    path_ = name;
}

// Not removed: no reason for a test to fail, and no place to throw from.
TemporaryDirectory::~TemporaryDirectory() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

std::filesystem::path TemporaryDirectory::write(const std::filesystem::path &relative,
                                                const std::string &content) const {
    std::filesystem::path file = path_ / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

} // namespace fixture
