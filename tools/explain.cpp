// fixture explain: what a board will do, and why, from its chips and files alone. No bootloader runs.
#include "machine/chip_store.h"
#include "machine/firmware.h"
#include "machine/forecast.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/commands.h"
#include "tools/option_checks.h"
#include "tools/prediction_text.h"

#include "formats/boot_prediction.h"

#include <algorithm>
#include <fmt/format.h>
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

// The chips of a call, as far as the straps ask for them, and the state that is foretold from.
class ExplainedBoard {
public:
    explicit ExplainedBoard(const ExplainCall &call) : known_(FirmwareDirectory()), assumed_(call.assumed) {
        const Straps &straps = StrapsByName().at(call.straps);
        state_.pins_12_13 = straps.pins_12_13;
        state_.pins_14_18 = straps.pins_14_18;
        // The straps decide which chip is read at all; a file of the other one would not change the answer.
        if (state_.medium() == Medium::nand) {
            nand_ = LoadNand(call.chips);
            state_.flash = RawFlashOf(nand_);
        } else {
            dataflash_ = LoadDataflash(call.chips);
            state_.flash = RawFlashOf(dataflash_);
            // Not booted from, but the file system's all the same.
            if (!call.chips.nand.empty()) {
                nand_ = LoadNand(call.chips);
                state_.unstrapped_nand = ExamineFlash(RawFlashOf(nand_)).first_stage.has_value();
            }
        }
        state_.volume = call.volume;
        if (!call.eeprom.empty()) {
            EepromContents eeprom;
            LoadChip(eeprom, call.eeprom);
            state_.eeprom = eeprom.bytes;
        }
        state_.version_of = [this](std::span<const std::uint8_t> body) { return version_of(body); };
    }
    // state_ reads from the chips beside it.
    ExplainedBoard(const ExplainedBoard &) = delete;
    ExplainedBoard &operator=(const ExplainedBoard &) = delete;

    const BoardState &state() const { return state_; }

private:
    std::string version_of(std::span<const std::uint8_t> body) const {
        const Firmware *build = known_.identify(body);
        // An image that no build here made has no known version. Without --assume-version the prediction ends there and
        // says so.
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
    if (told.end == BootEnd::unknown_bootloader) return "state its version with --assume-version";
    // The first needs no hint, and the reason for a loop lies in the files, not in the call.
    if (told.end == BootEnd::application || told.end == BootEnd::loop) return "";
    const bool nand = StrapsByName().at(call.straps).boots_from_nand();
    if ((nand ? call.chips.nand : call.chips.dataflash).empty())
        return nand ? "the straps select NAND, but no --nand was given"
                    : "the straps select DataFlash, but no --dataflash was given; try --straps 12-13";
    // Last: without a bootloader no volume would help.
    if (call.volume.empty()) return "no --volume was given, so there are no banks";
    return "";
}

ordered_json ToJson(const ExplainCall &call, const Prediction &told) {
    ordered_json json = PredictionJson(told);
    json["hint"] = Hint(call, told);
    json["hazards"] = ordered_json::array();
    for (const BootHazard &hazard : told.hazards)
        json["hazards"].push_back({{"id", hazard.id},
                                   {"where", TextJson(hazard.place)},
                                   {"text", TextJson(hazard.text)},
                                   {"remedy", hazard.remedy}});
    return json;
}

void Print(const ExplainCall &call, const Prediction &told) {
    PrintPrediction(told);
    const std::string hint = Hint(call, told);
    if (!hint.empty()) fmt::print("  {}\n", hint);
    for (const BootHazard &hazard : told.hazards)
        fmt::print("hazard {}: {}{}{}\n  {}\n", hazard.id, Printable(hazard.place), hazard.place.empty() ? "" : ": ",
                   Printable(hazard.text), hazard.remedy);
}

int Explain(const ExplainCall &call) {
    // Of two blank chips there is only one thing to say: nothing starts.
    RequireInCall(call.chips.named(), "explain", "no chip", "--nand or --dataflash");
    RequireDirectory(call.volume);
    const ExplainedBoard board(call);
    const Prediction told = PredictBoot(board.state());
    CallReport outcome("explain", call.json);
    const bool good = told.end == BootEnd::application;
    std::string id = NameOf(told.end);
    std::replace(id.begin(), id.end(), ' ', '-');
    // A rescue image is launched too, but a script has to see that the application was not.
    if (!good) outcome.problems.push_back({id, "board", told.reason, ""});
    outcome.part = ToJson(call, told);
    // In plain text the hazards stand in the report, each with its remedy; as warnings they would be printed twice.
    if (call.json)
        for (const BootHazard &hazard : told.hazards)
            outcome.warnings.push_back({hazard.id, hazard.place, hazard.text, ""});
    else
        Print(call, told);
    return outcome.finish(good ? kGood : kBad);
}

} // namespace

void AddExplainCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<ExplainCall>();
    Command *command = app.add_subcommand("explain", "Predict what a board will do, and why, from its chips and files");
    call->chips.add_options(*command);
    command->add_option("--eeprom", call->eeprom, "chip file of the parameter EEPROM")->type_name("FILE");
    command->add_option("--volume", call->volume, "directory that the board sees as i:/vol0")->type_name("DIR");
    command->add_option("--straps", call->straps, "boot straps fitted")
        ->check(OneOfKeys(StrapsByName()))
        ->capture_default_str();
    command->add_option("--assume-version", call->assumed, "version to assume for a bootloader that is no known build")
        ->type_name("VERSION");
    command->add_flag("--json", call->json, "report as one JSON object");
    command->footer("Exit status: 0 a bank's application is launched, 1 anything else.");
    command->callback([call, &exit_status] { exit_status = Explain(*call); });
}

} // namespace fixture
