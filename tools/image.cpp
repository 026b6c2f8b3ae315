// fixture image: gives images the header that they carry in raw flash, and says what is in one.
#include "tools/commands.h"

#include "formats/stored_image.h"
#include "tools/chip_files.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

constexpr std::uintmax_t kLargestFile = 64u << 20;

struct ImageCall {
    std::string input;
    std::string output;
    ChipFiles chips;
    bool json = false;
};

// What the image would meet on the named board, or on a new one, as whatever its size lets it be.
std::vector<std::string> WarningsOf(const ImageCall &call, const ImageReport &image) {
    std::vector<std::string> all;
    const auto fits = [&](std::string_view name) {
        return std::any_of(image.slots.begin(), image.slots.end(), [&](const SlotFit &slot) {
            return slot.fits && std::string_view(slot.slot).starts_with(name);
        });
    };
    if (!image.good()) return all;
    ForEachChip(call.chips, [&](const RawFlash &flash) {
        const auto add = [&](const std::vector<std::string> &warnings) {
            for (const std::string &warning : warnings)
                all.push_back(fmt::format("{}: {}", NameOf(flash.medium), warning));
        };
        if (fits("bootloader")) add(WarningsOfBootloader(flash, image.size));
        if (fits("rescue")) add(WarningsOfRescue(flash, image.size));
    });
    return all;
}

nlohmann::ordered_json ToJson(const std::string &file, const ImageReport &report,
                              const std::vector<std::string> &warnings) {
    nlohmann::ordered_json json{{"file", file}, {"good", report.good()}};
    for (const ImageField &field : report.fields) {
        json["fields"][field.name] = {{"value", field.value}, {"valid", field.valid}};
        if (!field.valid) json["fields"][field.name]["expected"] = field.expected;
    }
    json["size"] = report.size;
    json["trailing"] = report.trailing;
    json["slots"] = nlohmann::ordered_json::array();
    for (const SlotFit &slot : report.slots)
        json["slots"].push_back(
            {{"medium", slot.medium}, {"slot", slot.slot}, {"capacity", slot.capacity}, {"fits", slot.fits}});
    json["warnings"] = warnings;
    return json;
}

void PrintReport(const std::string &file, const ImageReport &report) {
    fmt::print("{}\n", file);
    for (const ImageField &field : report.fields)
        fmt::print("  {:<8}{:<26}{}\n", field.name, field.value,
                   field.valid ? "valid" : "INVALID, expected " + field.expected);
    if (report.trailing > 0) fmt::print("  {} bytes behind the image, which no sum covers\n", report.trailing);
    for (const SlotFit &slot : report.slots)
        fmt::print("  {:<10} {:<14}{:>9} of {:>9} bytes   {}\n", slot.medium, slot.slot, report.size, slot.capacity,
                   slot.fits ? "fits" : "too large");
}

int Show(const ImageCall &call, const std::string &file, const ImageReport &report) {
    const std::vector<std::string> warnings = WarningsOf(call, report);
    if (call.json) {
        fmt::print("{}\n", ToJson(file, report, warnings).dump(2, ' ', true, nlohmann::json::error_handler_t::replace));
    } else {
        PrintReport(file, report);
        PrintWarnings(file, warnings);
    }
    return report.good() ? 0 : 1;
}

int WrapImage(const ImageCall &call) {
    const Bytes image = WrapFile(call.input);
    WriteFile(call.output, image);
    return Show(call, call.output, ExamineImage(image));
}

int ShowImage(const ImageCall &call) {
    return Show(call, call.input, ExamineImage(ReadFile(call.input, kLargestFile)));
}

} // namespace

void AddImageCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<ImageCall>();
    CLI::App *command = app.add_subcommand("image", "Stored images: the header that images carry in raw flash");
    command->require_subcommand(1);

    CLI::App *wrap = command->add_subcommand("wrap", "Put the 32-byte header before an image");
    wrap->add_option("IN", call->input, "ELF executable or flat binary")->required();
    wrap->add_option("OUT", call->output, "stored image to write")->required();
    wrap->add_flag("--json", call->json, "report as one JSON object");
    wrap->callback([call, &exit_status] { exit_status = WrapImage(*call); });

    CLI::App *info = command->add_subcommand("info", "Show and check a stored image");
    info->add_option("FILE", call->input, "stored image")->required();
    call->chips.add_options(
        *info->add_option_group("Board", "the chips that warnings speak of; new ones where none are named"));
    info->add_flag("--json", call->json, "report as one JSON object");
    info->callback([call, &exit_status] { exit_status = ShowImage(*call); });
}

} // namespace fixture
