// fixture flash: makes a board's raw flash as production would, and says what is in one.
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include "formats/stored_image.h"
#include "tools/chip_files.h"
#include "tools/flash_slot.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

struct FlashCall {
    std::string medium;
    ChipFiles chips;
    std::string bootloader;
    std::string rescue;
    unsigned slot = 0;
    bool json = false;
};

nlohmann::ordered_json ToJson(const SlotReport &report) {
    const StoredImage &image = report.image;
    nlohmann::ordered_json json{{"name", report.slot.name},
                                {"address", report.slot.address},
                                {"capacity", report.slot.capacity},
                                {"room", report.room},
                                {"state", NameOf(image.verdict)}};
    if (image.verdict == ImageVerdict::erased) return json;
    json.update({{"size", image.size}, {"sum1", image.stored.sum1}, {"sum2", image.stored.sum2}});
    return json;
}

nlohmann::ordered_json ToJson(const FlashReport &report) {
    nlohmann::ordered_json json{{"medium", NameOf(report.medium)}, {"part", report.part}};
    if (report.medium == Medium::nand) json["bad_blocks"] = report.bad_blocks;
    json["slots"] = nlohmann::ordered_json::array();
    for (const SlotReport &slot : report.slots) json["slots"].push_back(ToJson(slot));
    json["rescue_version"] = report.record.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(report.record);
    json["first_stage"] = report.first_stage ? nlohmann::ordered_json(*report.first_stage) : nlohmann::ordered_json();
    json["warnings"] = report.warnings;
    return json;
}

std::string Describe(const StoredImage &image) {
    switch (image.verdict) {
    case ImageVerdict::good: return fmt::format("good, {} bytes", image.size);
    case ImageVerdict::bad_size: return fmt::format("bad size: {} bytes", image.size);
    case ImageVerdict::bad_sums:
        return fmt::format("bad sums: {} bytes, 0x{:08X} 0x{:08X}; expected 0x{:08X} 0x{:08X}", image.size,
                           image.stored.sum1, image.stored.sum2, image.computed.sum1, image.computed.sum2);
    default: return NameOf(image.verdict);
    }
}

void Print(const FlashReport &report) {
    fmt::print("{} {}\n", NameOf(report.medium), report.part);
    for (const SlotReport &slot : report.slots)
        fmt::print("  {:<16}0x{:08X}  {}\n", slot.slot.name, slot.slot.address, Describe(slot.image));
    fmt::print("  {:<16}0x{:08X}  {}\n", "rescue version", SlotsOf(report.medium).record.address,
               report.record.empty() ? "none" : report.record);
    if (report.medium == Medium::nand)
        fmt::print("  bad blocks: {}\n",
                   report.bad_blocks.empty() ? "none" : fmt::format("{}", fmt::join(report.bad_blocks, ", ")));
    fmt::print("  the first stage starts {}\n",
               report.first_stage ? report.slots[*report.first_stage].slot.name : "nothing: no good bootloader");
    PrintWarnings(NameOf(report.medium), report.warnings);
}

int Show(const std::vector<FlashReport> &reports, bool json) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    bool boots = false;
    for (const FlashReport &report : reports) {
        boots |= report.first_stage.has_value();
        if (json)
            all.push_back(ToJson(report));
        else
            Print(report);
    }
    if (json) fmt::print("{}\n", nlohmann::ordered_json{{"boots", boots}, {"chips", all}}.dump(2));
    return boots ? 0 : 1;
}

int ShowFlash(const FlashCall &call) {
    if (!call.chips.named()) throw CLI::RequiredError("--nand or --dataflash");
    std::vector<FlashReport> reports;
    ForEachChip(call.chips, [&](const RawFlash &flash) { reports.push_back(ExamineFlash(flash)); });
    return Show(reports, call.json);
}

// An image that carries its header already has to be a good one.
Bytes LoadStoredImage(const std::string &file) {
    Bytes content = ReadFlatImage(file);
    if (!HasMaker(content)) return WrapFile(file);
    const ImageReport report = ExamineImage(content);
    if (!report.good()) throw Refusal(file + ": " + report.problem());
    content.resize(report.size);
    return content;
}

Provision ReadProvision(const FlashCall &call) {
    Provision provision{call.slot, LoadStoredImage(call.bootloader), {}, ""};
    if (call.rescue.empty()) return provision;
    const std::size_t colon = call.rescue.rfind(':');
    if (colon == std::string::npos) throw CLI::ValidationError("--rescue", call.rescue + ": FILE:VERSION expected");
    provision.rescue = LoadStoredImage(call.rescue.substr(0, colon));
    provision.rescue_version = call.rescue.substr(colon + 1);
    return provision;
}

template <typename Contents>
FlashReport ProvisionChip(Contents contents, const std::string &file, const Provision &provision) {
    const RawFlash flash = RawFlashOf(contents);
    StoreProvision(flash, provision);
    SaveChip(contents, file);
    return ExamineFlash(flash);
}

int ProvisionFlash(const FlashCall &call) {
    const ChipFiles &chips = call.chips;
    const bool nand = call.medium == "nand";
    if ((nand ? chips.nand : chips.dataflash).empty()) throw CLI::RequiredError("--" + call.medium);
    const Provision provision = ReadProvision(call);
    const FlashReport report = nand ? ProvisionChip(LoadNand(chips), chips.nand, provision)
                                    : ProvisionChip(LoadDataflash(chips), chips.dataflash, provision);
    // The other chip comes erased with the board.
    if (nand && !chips.dataflash.empty() && !std::filesystem::exists(chips.dataflash))
        SaveChip(LoadDataflash(chips), chips.dataflash);
    if (!nand && !chips.nand.empty() && !std::filesystem::exists(chips.nand)) SaveChip(LoadNand(chips), chips.nand);
    return Show({report}, call.json);
}

} // namespace

void AddFlashCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<FlashCall>();
    CLI::App *command = app.add_subcommand("flash", "Raw flash: the slots of a board's chips");
    command->require_subcommand(1);
    CLI::App *provision = command->add_subcommand("provision", "Store a bootloader as production does");
    provision->add_option("--medium", call->medium, "chip the board boots from")
        ->required()
        ->check(CLI::IsMember({"nand", "dataflash"}));
    call->chips.add_options(*provision, false);
    provision->add_option("--bootloader", call->bootloader, "stored image, flat binary or ELF")
        ->required()
        ->check(CLI::ExistingFile);
    provision->add_option("--slot", call->slot, "bootloader slot; the other one is erased")
        ->check(CLI::Range(0, 1))
        ->capture_default_str();
    provision->add_option("--rescue", call->rescue, "FILE:VERSION: rescue image, and the version to record");
    provision->add_flag("--json", call->json, "report as one JSON object");
    provision->callback([call, &exit_status] { exit_status = ProvisionFlash(*call); });

    CLI::App *info = command->add_subcommand("info", "Show every slot, and what can still go wrong");
    call->chips.add_options(*info);
    info->add_flag("--json", call->json, "report as one JSON object");
    info->callback([call, &exit_status] { exit_status = ShowFlash(*call); });
    AddFlashSlotCommands(*command, exit_status);
}

} // namespace fixture
