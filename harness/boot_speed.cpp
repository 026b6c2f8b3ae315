#include "harness/boot_speed.h"

#include "formats/bank.h"
#include "formats/file.h"
#include "harness/noise.h"
#include "sweep/world.h"
#include "tools/timeline_table.h"

#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

namespace {

constexpr std::uint32_t kLargeApplication = 8 << 20;
constexpr std::uint32_t kRescueBytes = 1 << 20;

// A volume whose only bank has the board's own bootloader and a large application. Its bytes are small: a bank states a
// sum in nine digits.
std::shared_ptr<const std::filesystem::path> LargeApplication() {
    Bytes application = Noise(kLargeApplication);
    for (std::uint8_t &byte : application) byte &= 0x3F;
    const std::vector<BankFile> files = {
        {FileRole::application, "application.bin", "1.0", std::move(application)},
        {FileRole::bootloader, "bootloader.bin", "1.9.0", Wrap(Bootloader().flat)},
    };
    std::shared_ptr<const std::filesystem::path> volume = TemporaryVolume();
    const std::filesystem::path bank = *volume / "data" / "app";
    std::filesystem::create_directories(bank / kFileDirectory);
    for (const BankFile &file : files) WriteFile(bank / file.path(), file.bytes);
    WriteFile(bank / kDescriptorName, MakeDescriptor(files));
    WriteFile(bank / kManifestName, MakeManifest(files));
    return volume;
}

struct Boot {
    const char *what;
    Situation setup;
    std::shared_ptr<const std::filesystem::path> (*volume)(); // null: the situation's
    unsigned resets;                                          // that a good run has
};

MeasuredBoot Measure(const Boot &boot, const SweepFirmware &firmware) {
    // Without a sweep's name and seed, so that the chips take their typical times and the figures are comparable.
    World world = MakeWorld(boot.setup, firmware);
    if (boot.volume) world.volume = boot.volume();
    RunOptions options;
    options.known = &firmware.known;
    options.slots = true;
    options.volume = *world.volume;
    options.board = world.board;
    options.run_launched = false;
    Machine machine(world.chips, options);
    Timeline timeline(machine);
    const RunReport report = machine.run();
    timeline.finish();
    // A boot that fails is fast: its time must never enter the table.
    if (report.verdict != Verdict::launched || report.resets != boot.resets)
        throw std::runtime_error(
            fmt::format("boot \"{}\": {} {}", boot.what, VerdictName(report.verdict), report.place));
    const TimeSpent all = timeline.total();
    return {{boot.what, Milliseconds(all.time), "ms", Milliseconds(all.dictated),
             "pauses, wire, console; chips; each page of files once"},
            report.time,
            timeline.rest(),
            TimelineTable(timeline)};
}

} // namespace

std::vector<MeasuredBoot> BootSpeed() {
    // Builds with a fixed revision and date: the real ones print texts of other lengths, and the console takes time.
    const SweepFirmware firmware(FirmwareDirectory() / "fixed");
    const Boot boots[] = {
        {"boot: update on NAND", {.rescue = RescueState::none, .new_rescue = true}, nullptr, 2},
        {"boot: launch of 8 MiB", {}, LargeApplication, 1},
        {"boot: rescue image of 1 MiB", {.rescue_bytes = kRescueBytes}, TemporaryVolume, 1},
        {"boot: update on DataFlash", {.medium = Medium::dataflash}, nullptr, 2},
        {"boot: rescue image on DataFlash", {.medium = Medium::dataflash}, TemporaryVolume, 1},
    };
    std::vector<MeasuredBoot> measured;
    for (const Boot &boot : boots) measured.push_back(Measure(boot, firmware));
    return measured;
}

} // namespace fixture
