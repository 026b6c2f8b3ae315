#include "tools/boot_hint.h"

#include "formats/bank_check.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

namespace fs = std::filesystem;

// The first stage's own choice, so that a hint never names a chip from which it would not start.
bool HasBootloader(const Chips &chips, Medium medium) {
    const FlashReader read = medium == Medium::nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
    return ChooseBootloader(read, SlotsOf(medium)).has_value();
}

std::string OfMissingBootloader(const HintCall &call, const RunReport &report, const Chips &chips) {
    const bool nand = report.medium == "NAND";
    const Medium medium = nand ? Medium::nand : Medium::dataflash, other = nand ? Medium::dataflash : Medium::nand;
    if (HasBootloader(chips, medium))
        return call.host ? "the slot holds a bootloader that no native build stands for; try without --host" : "";
    // A chip that was not named is blank. "No good bootloader" alone would send the user looking for damage.
    const bool given = !(nand ? call.nand : call.dataflash).empty();
    const std::string found = given
                                  ? fmt::format("the straps select the {}, which has no good bootloader", report.medium)
                                  : fmt::format("the straps select the {}, and no file of it was given", report.medium);
    // The straps select the wrong chip: the one slip with a single right answer.
    if (HasBootloader(chips, other))
        return fmt::format("{}; the {} has one: try --straps {}", found, NameOf(other), nand ? "none" : "12-13");
    return found + "; store one with `fixture flash provision`, or see `fixture flash info`";
}

bool HoldsData(const fs::path &directory) {
    // A directory that may not be read counts as none: a hint must never end in an error of its own.
    std::error_code error;
    return fs::is_directory(directory / "data", error);
}

// For a volume that is named by its data/ directory, or by a bank.
std::string OfVolumeLevel(const HintCall &call) {
    const fs::path given = fs::path(call.volume);
    // One level up for a volume named by its data/, two for one named by a bank.
    for (const fs::path &above : {given / "..", given / "../.."})
        if (HoldsData(above))
            return fmt::format("{} holds no data/, but {} does: try --volume {}", call.volume,
                               fs::weakly_canonical(above).string(), above.lexically_normal().string());
    return fmt::format("{} holds no data/; the banks are looked for in data/app, data/oldapp and data/newapp",
                       call.volume);
}

// The reason in one line, with what the first bank that is there is rejected for.
std::string WhyNothing(const Prediction &told) {
    const auto rejects = [](const BootStep &step) {
        const std::string_view id = step.id;
        // By identifiers: texts are for people, and change.
        return id == "bank-rejected" || id == "bank-incomplete" || id == "application-rejected";
    };
    const auto first = std::find_if(told.steps.begin(), told.steps.end(), rejects);
    if (first == told.steps.end()) return told.reason;
    return fmt::format("{}; {}: {}", told.reason, first->place, first->text);
}

std::string OfVolume(const HintCall &call) {
    if (call.volume.empty()) return "there is no volume; give the directory that holds data/ with --volume";
    if (!HoldsData(call.volume)) return OfVolumeLevel(call);
    if (call.foretold && call.foretold->end == BootEnd::nothing) return WhyNothing(*call.foretold);
    return fmt::format("no bank launches; see `fixture bank check {}`", ShellWord(call.volume));
}

// Without its clock a controller goes on showing the levels of before, whatever happens at its pins: a wait for one of
// them never ends.
std::string OfClocks(const RunReport &report, const Board &board) {
    constexpr struct {
        const char *pins;
        unsigned peripheral;
        // PIOC, PIOD and PIOE share one clock.
    } kControllers[] = {{"PIOA.PDSR", 2}, {"PIOB.PDSR", 3}, {"PIOC.PDSR", 4}, {"PIOD.PDSR", 4}, {"PIOE.PDSR", 4}};
    for (const auto &[pins, peripheral] : kControllers)
        if (report.place.find(pins) != std::string::npos && !board.pmc.clocked(peripheral))
            return fmt::format("the clock of {:.4} is off, so its pins show their old levels for ever; set bit {} of "
                               "PMC_PCER first",
                               pins, peripheral);
    return "";
}

std::string OfResets(const HintCall &call, const RunReport &report) {
    const bool slots = !call.nand.empty() || !call.dataflash.empty();
    // Before the forecast, which knows no watchdog: without one the board might well have started.
    if (report.place.starts_with("watchdog")) return "the watchdog ends every start; try a longer --watchdog";
    if (call.foretold && call.foretold->end == BootEnd::loop) return call.foretold->reason;
    if (slots)
        return fmt::format("see `fixture bank check {}` for banks that replace each other", ShellWord(call.volume));
    return "no chip file was given, so every start is the same bootloader again: a bank that stores another one has no "
           "effect; name the chips with --nand or --dataflash";
}

} // namespace

std::string HintOf(const HintCall &call, const RunReport &report, const Board &board, const Chips &chips,
                   const KnownFirmware &known) {
    // The order matters: verdicts that explain themselves come first. Only a hang or a fault is traced to a clock or to
    // the image in the slot.
    if (report.verdict == Verdict::no_bootloader) return OfMissingBootloader(call, report, chips);
    if (report.verdict == Verdict::reset_loop) return OfResets(call, report);
    if (report.verdict == Verdict::launched) // with a wrong volume a board still has its rescue image
        return call.volume.empty() || HoldsData(call.volume) ? "" : OfVolumeLevel(call);
    if (report.verdict == Verdict::power_lost) return "";
    if (report.verdict == Verdict::idle) return OfVolume(call);
    if (std::string clock = OfClocks(report, board); !clock.empty()) return clock;
    if (!report.slot || report.verdict == Verdict::violation) return "";
    const bool nand = report.medium == "NAND";
    const FlashReader read = nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
    const StoredImage image = ReadSlot(read, SlotsOf(nand ? Medium::nand : Medium::dataflash).bootloader[*report.slot]);
    // Bounded: the image may end inside its own header.
    const auto body = std::span(image.bytes).subspan(std::min<std::size_t>(image.bytes.size(), kImageHeaderBytes));
    if (body.empty()) return "the slot holds a header and no bootloader after it";
    return known.identify(body) ? "" : "the image in the slot is no build known here; it may be no bootloader";
}

std::string IdOf(Verdict verdict) {
    std::string id = VerdictName(verdict);
    std::replace(id.begin(), id.end(), ' ', '-');
    return id;
}

} // namespace fixture
