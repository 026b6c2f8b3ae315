// fixture image: gives images the header that they carry in raw flash, and says what is in one.
#include "tools/commands.h"

#include "formats/stored_image.h"
#include "formats/warning_ids.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/options.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

// More than any slot takes, so that an oversized image gets a report that says so, not a refusal.
constexpr std::uintmax_t kLargestFile = 64u << 20;

struct ImageCall {
    std::string input;
    std::string output;
    ChipFiles chips;
    WarningOptions judging;
    bool json = false;
};

// What the image would meet on the named board, or on a new one, as whatever its size lets it be.
Problems WarningsOf(const ImageCall &call, const std::string &file, const ImageReport &report) {
    Problems all;
    const auto add = [&](const std::string &id, const std::string &text) { all.push_back({id, file, text, ""}); };
    const auto fits = [&](std::string_view name) {
        return std::any_of(report.slots.begin(), report.slots.end(), [&](const SlotFit &slot) {
            return slot.fits && std::string_view(slot.slot).starts_with(name);
        });
    };
    // Slots, holes and tails say nothing about an image that no slot would start.
    if (!report.good()) return all;
    if (report.image.has_no_body())
        // Its sums are right, so every check of the board passes it.
        add(WarningId("no-body"), "a header alone, with nothing to start: a board that stores it is lost");
    if (report.trailing > 0)
        add(WarningId("trailing-bytes"), fmt::format("{} bytes after the image, which no sum covers", report.trailing));
    ForEachChip(call.chips, [&](const RawFlash &flash) {
        const auto add_holes = [&](const Problems &holes) {
            for (const Problem &hole : holes)
                add(hole.id, fmt::format("{}: {}: {}", NameOf(flash.medium), hole.where, hole.found));
        };
        // Nothing in an image says what it is for: it is held against every slot that could take it.
        if (fits("bootloader")) add_holes(WarningsOfBootloader(flash, report.image.size));
        if (fits("rescue")) add_holes(WarningsOfRescue(flash, report.image.size));
    });
    return all;
}

void AddToJson(CallReport &outcome, const std::string &file, const ImageReport &report) {
    nlohmann::ordered_json &json = outcome.part;
    json["file"] = TextJson(file);
    json["size"] = report.image.size;
    // As stored. A wrong field states below what it should be.
    json["sum1"] = report.image.stored.sum1;
    json["sum2"] = report.image.stored.sum2;
    json["trailing"] = report.trailing;
    json["fields"] = nlohmann::ordered_json::object();
    for (const ImageField &field : report.fields) {
        json["fields"][field.name] = {{"value", field.value}, {"valid", field.valid}};
        if (!field.valid) json["fields"][field.name]["expected"] = field.expected;
    }
    json["slots"] = nlohmann::ordered_json::array();
    for (const SlotFit &slot : report.slots) {
        nlohmann::ordered_json fit = SlotJson(slot.slot);
        fit.update({{"medium", slot.medium}, {"capacity", slot.capacity}, {"fits", slot.fits}});
        json["slots"].push_back(std::move(fit));
    }
}

void PrintReport(const std::string &file, const ImageReport &report) {
    fmt::print("{}\n", Printable(file));
    for (const ImageField &field : report.fields)
        fmt::print("  {:<8}{:<26}{}\n", field.name, field.value,
                   field.valid ? "valid" : "INVALID, expected " + field.expected);
    for (const SlotFit &slot : report.slots)
        fmt::print("  {:<10} {:<14}{:>9} of {:>9} bytes   {}\n", slot.medium, slot.slot, report.image.size,
                   slot.capacity, slot.fits ? "fits" : "too large");
}

int Show(const ImageCall &call, const char *command, const std::string &file, const ImageReport &report) {
    CallReport outcome(command, call.json);
    for (const ImageField &field : report.fields)
        if (!field.valid)
            // One problem a field, so that a program can tell a wrong size from wrong sums.
            outcome.problems.push_back({"bad-" + field.name, file, field.name + " " + field.value, field.expected});
    outcome.warnings = WarningsOf(call, file, report);
    AddToJson(outcome, file, report);
    if (!call.json) PrintReport(file, report);
    return outcome.finish(outcome.judged(report.good() ? kGood : kBad, call.judging));
}

int WrapImage(const ImageCall &call) {
    OutputFile output(call.output);
    // After the output is proven writable, as everywhere: a long input is then not read for nothing.
    const Bytes image = WrapFile(call.input);
    output.write(image);
    output.finish();
    // Examined from the bytes that were written, by the same judge as any other image.
    return Show(call, "image wrap", call.output, ExamineImage(image));
}

int ShowImage(const ImageCall &call) {
    return Show(call, "image info", call.input, ExamineImage(ReadFile(call.input, kLargestFile)));
}

} // namespace

void AddImageCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<ImageCall>();
    Command *command = app.add_subcommand("image", "Stored images: images with the header that raw flash needs");
    command->require_subcommand();

    Command *wrap = command->add_subcommand("wrap", "Put the 32-byte header before an image");
    wrap->add_option("IN", call->input, "ELF executable or flat binary")->required();
    wrap->add_option("OUT", call->output, "stored image to write")->required();
    wrap->add_flag("--json", call->json, "report as one JSON object");
    wrap->callback([call, &exit_status] { exit_status = WrapImage(*call); });

    Command *info = command->add_subcommand("info", "Show and check a stored image");
    info->add_option("FILE", call->input, "stored image")->required();
    call->chips.add_options(*info->add_option_group("Board", "chips to check against [blank]"));
    call->judging.add_options(*info);
    info->add_flag("--json", call->json, "report as one JSON object");
    info->callback([call, &exit_status] { exit_status = ShowImage(*call); });
}

} // namespace fixture
