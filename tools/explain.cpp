// fixture explain: what a board will do, and why, from its chips and files alone. No bootloader runs.
#include "machine/chip_store.h"
#include "machine/firmware.h"
#include "machine/forecast.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/commands.h"
#include "tools/references.h"

#include "formats/boot_prediction.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

using nlohmann::ordered_json;

struct ExplainCall {
    ChipFiles chips;
    std::string eeprom;
    std::string volume;
    std::string straps = "none";
    std::string assumed; // the version of bootloaders that no known build stands for
    bool json = false;
};

struct FittedStraps {
    bool pins_12_13, pins_14_18;
};
const std::map<std::string, FittedStraps> kStraps = {
    {"none", {false, false}}, {"12-13", {true, false}}, {"14-18", {false, true}}, {"both", {true, true}}};

// The chips of a call, as far as the straps ask for them, and the state that is foretold from.
class ExplainedBoard {
public:
    explicit ExplainedBoard(const ExplainCall &call) : known_(FirmwareDirectory()), assumed_(call.assumed) {
        const FittedStraps &straps = kStraps.at(call.straps);
        state_.pins_12_13 = straps.pins_12_13;
        state_.pins_14_18 = straps.pins_14_18;
        if (state_.medium() == Medium::nand) {
            nand_ = LoadNand(call.chips);
            state_.flash = RawFlashOf(nand_);
        } else {
            dataflash_ = LoadDataflash(call.chips);
            state_.flash = RawFlashOf(dataflash_);
        }
        state_.volume = call.volume;
        if (!call.eeprom.empty()) {
            EepromContents eeprom;
            LoadChip(eeprom, call.eeprom);
            state_.eeprom = eeprom.bytes;
        }
        state_.version_of = [this](std::span<const std::uint8_t> body) { return version_of(body); };
    }
    ExplainedBoard(const ExplainedBoard &) = delete;
    ExplainedBoard &operator=(const ExplainedBoard &) = delete;

    const BoardState &state() const { return state_; }

private:
    std::string version_of(std::span<const std::uint8_t> body) const {
        const Firmware *build = known_.identify(body);
        return build ? VersionText(*build) : assumed_;
    }

    KnownFirmware known_;
    std::string assumed_;
    NandContents nand_;
    At45Contents dataflash_{*FindAt45Part(kDefaultAt45)};
    BoardState state_;
};

// Why a board that launches nothing may do so for a reason that lies in the call.
std::string Hint(const ExplainCall &call, const Prediction &told) {
    if (told.end == BootEnd::unknown_bootloader) return "say which version it is with --assume-version";
    if (told.end == BootEnd::application || told.end == BootEnd::loop) return "";
    const bool nand = kStraps.at(call.straps).pins_12_13 || kStraps.at(call.straps).pins_14_18;
    if ((nand ? call.chips.nand : call.chips.dataflash).empty())
        return nand ? "the straps select NAND, but no --nand was given"
                    : "the straps select DataFlash, but no --dataflash was given; try --straps 12-13";
    if (call.volume.empty()) return "no --volume was given, so there are no banks";
    return "";
}

ordered_json ToJson(const ExplainCall &call, const Prediction &told) {
    ordered_json json{
        {"end", NameOf(told.end)},           {"reason", TextJson(told.reason)},
        {"hint", Hint(call, told)},          {"slot", told.slot ? ordered_json(*told.slot) : ordered_json()},
        {"version", TextJson(told.version)}, {"launched", TextJson(told.launched)},
        {"size", told.launched_bytes},       {"resets", told.resets},
        {"steps", ordered_json::array()},    {"hazards", ordered_json::array()}};
    for (const BootStep &step : told.steps)
        json["steps"].push_back({{"start", step.start},
                                 {"id", step.id},
                                 {"where", TextJson(step.place)},
                                 {"text", TextJson(step.text)},
                                 {"console", TextJson(step.console)}});
    for (const BootHazard &hazard : told.hazards)
        json["hazards"].push_back({{"id", hazard.id},
                                   {"where", TextJson(hazard.place)},
                                   {"text", TextJson(hazard.text)},
                                   {"remedy", hazard.remedy}});
    return json;
}

void Print(const ExplainCall &call, const Prediction &told) {
    unsigned start = 0;
    for (const BootStep &step : told.steps) {
        if (step.start != start)
            fmt::print("{}\n", step.start == 1 ? "at power-up" : fmt::format("after reset {}", step.start - 1));
        start = step.start;
        fmt::print("  {}{}{}\n", Shown(step.place), step.place.empty() ? "" : ": ", Shown(step.text));
    }
    const std::string hint = Hint(call, told);
    fmt::print("verdict: {}{}\n", Shown(told.reason), hint.empty() ? "" : fmt::format("\n  {}", hint));
    for (const BootHazard &hazard : told.hazards)
        fmt::print("hazard {}: {}{}{}\n  {}\n", hazard.id, Shown(hazard.place), hazard.place.empty() ? "" : ": ",
                   Shown(hazard.text), hazard.remedy);
}

int Explain(const ExplainCall &call) {
    if (!call.chips.named()) throw CLI::RequiredError("--nand or --dataflash");
    const ExplainedBoard board(call);
    const Prediction told = PredictBoot(board.state());
    CallReport outcome("explain", call.json);
    const bool good = told.end == BootEnd::application;
    std::string id = NameOf(told.end);
    std::replace(id.begin(), id.end(), ' ', '-');
    if (!good) outcome.problems.push_back({id, "board", told.reason, ""});
    outcome.part = ToJson(call, told);
    if (call.json)
        for (const BootHazard &hazard : told.hazards)
            outcome.warnings.push_back({hazard.id, hazard.place, hazard.text, ""});
    else
        Print(call, told);
    return outcome.finish(good ? kGood : kBad);
}

} // namespace

void AddExplainCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<ExplainCall>();
    CLI::App *command = app.add_subcommand("explain", "Tell what a board will do, and why, from its chips and files");
    call->chips.add_options(*command);
    command->add_option("--eeprom", call->eeprom, "EEPROM chip file");
    command->add_option("--volume", call->volume, "directory that is volume vol0 of drive i")
        ->check(CLI::ExistingDirectory);
    command->add_option("--straps", call->straps, "boot straps fitted")
        ->check(CLI::IsMember(kStraps))
        ->capture_default_str();
    command->add_option("--assume-version", call->assumed,
                        "version of a bootloader that is none of the builds known here");
    command->add_flag("--json", call->json, "report as one JSON object");
    command->footer("Exit status: 0 a bank's application is launched, 1 anything else.");
    command->callback([call, &exit_status] { exit_status = Explain(*call); });
}

} // namespace fixture
