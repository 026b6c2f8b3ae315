// fixture flash: makes a board's raw flash as production would, and says what is in one.
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/commands.h"

#include "formats/stored_image.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/flash_slot.h"
#include "tools/option_checks.h"

#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <utility>

namespace fixture {

namespace {

struct FlashCall {
    std::string medium;
    ChipFiles chips;
    std::string bootloader;
    std::string rescue;
    unsigned slot = 0;
    std::string input, output, layout;
    WarningOptions judging;
    bool json = false;
};

// A chip with the file that it is in.
struct ShownChip {
    std::string file;
    std::string layout;
    FlashReport report;
};

const char *StateOf(const StoredImage &image) { return image.has_no_body() ? "no body" : NameOf(image.verdict()); }

nlohmann::ordered_json ToJson(const SlotReport &report) {
    const StoredImage &image = report.image;
    nlohmann::ordered_json json = SlotJson(report.slot.name);
    json.update({{"address", report.slot.address},
                 {"capacity", report.slot.capacity},
                 {"room", report.room},
                 {"state", StateOf(image)}});
    if (image.verdict() == ImageVerdict::erased) return json;
    json.update({{"size", image.size}, {"sum1", image.stored.sum1}, {"sum2", image.stored.sum2}});
    return json;
}

nlohmann::ordered_json ToJson(const ShownChip &chip) {
    const FlashReport &report = chip.report;
    nlohmann::ordered_json json{{"medium", NameOf(report.medium)},
                                {"part", report.part},
                                {"file", TextJson(chip.file)},
                                {"layout", chip.layout}};
    if (report.medium == Medium::nand) json["bad_blocks"] = report.bad_blocks;
    json["slots"] = nlohmann::ordered_json::array();
    for (const SlotReport &slot : report.slots) json["slots"].push_back(ToJson(slot));
    json["rescue_version"] = report.record.empty() ? nlohmann::ordered_json() : TextJson(report.record);
    json["first_stage"] = report.first_stage ? nlohmann::ordered_json(*report.first_stage) : nlohmann::ordered_json();
    return json;
}

std::string Describe(const StoredImage &image) {
    if (image.has_no_body()) return "NO BODY: a header with nothing to start";
    switch (image.verdict()) {
    case ImageVerdict::good: return fmt::format("good, {} bytes", image.size);
    case ImageVerdict::bad_size: return fmt::format("bad size: {} bytes", image.size);
    case ImageVerdict::bad_sums:
        return fmt::format("bad sums: {} bytes, 0x{:08X} 0x{:08X}; expected 0x{:08X} 0x{:08X}", image.size,
                           image.stored.sum1, image.stored.sum2, image.computed.sum1, image.computed.sum2);
    default: return NameOf(image.verdict());
    }
}

void Print(const ShownChip &chip) {
    const FlashReport &report = chip.report;
    fmt::print("{} {}\n", NameOf(report.medium), report.part);
    fmt::print("  {:<16}{}: {}\n", "file", Printable(chip.file), chip.layout);
    for (const SlotReport &slot : report.slots)
        fmt::print("  {:<16}0x{:08X}  {}\n", slot.slot.name, slot.slot.address, Describe(slot.image));
    fmt::print("  {:<16}0x{:08X}  {}\n", "rescue version", SlotsOf(report.medium).record.address,
               report.record.empty() ? "none" : Escaped(report.record));
    if (report.medium == Medium::nand)
        fmt::print("  bad blocks: {}\n", report.bad_blocks.empty() ? "none" : Ranges(report.bad_blocks));
    fmt::print("  the first stage starts {}\n",
               report.first_stage ? report.slots[*report.first_stage].slot.name : "nothing: no good bootloader");
}

// What the first stage would start, and whether anything is there.
bool Boots(const FlashReport &report) {
    return report.first_stage && !report.slots.at(*report.first_stage).image.has_no_body();
}

int Show(const FlashCall &call, const char *command, const std::vector<ShownChip> &chips) {
    CallReport outcome(command, call.json);
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    bool boots = false;
    for (const ShownChip &chip : chips) {
        boots |= Boots(chip.report);
        outcome.warnings.insert(outcome.warnings.end(), chip.report.warnings.begin(), chip.report.warnings.end());
        for (Problem &warning : outcome.warnings)
            // With two chips, a slot's name alone would be ambiguous.
            if (!warning.where.starts_with(chip.file)) warning.where = chip.file + ": " + warning.where;
        if (call.json)
            all.push_back(ToJson(chip));
        else
            Print(chip);
        if (!Boots(chip.report))
            outcome.problems.push_back({chip.report.first_stage ? "no-body" : "no-bootloader", chip.file,
                                        "no bootloader that the first stage can start", ""});
    }
    if (boots) outcome.problems.clear(); // a board boots from one of its chips
    outcome.part = {{"boots", boots}, {"chips", all}};
    return outcome.finish(outcome.judged(boots ? kGood : kBad, call.judging));
}

// Read alone, and never locked: to look at a dump somebody else may be writing must not make him wait.
template <typename Contents> ShownChip Look(Contents contents, const std::string &file) {
    const ChipFileLayout layout = LoadChip(contents, file);
    return {file, layout.describe(ShapeOf(contents)), ExamineFlash(RawFlashOf(contents))};
}

NandContents BlankNand(const ChipFiles &chips) { return NandContents(FindNandPart(chips.nand_part)); }
At45Contents BlankDataflash(const ChipFiles &chips) { return At45Contents(*FindAt45Part(chips.dataflash_part)); }

int ShowFlash(const FlashCall &call) {
    const ChipFiles &files = call.chips;
    // No blank chips as in `bank check`: here the chip itself is the question.
    if (!files.named()) throw Refusal(Fault::call, {"wrong-call", "flash info", "no chip", "--nand or --dataflash"});
    RequireDistinct({files.nand, files.dataflash});
    std::vector<ShownChip> chips;
    if (!files.nand.empty()) chips.push_back(Look(BlankNand(files), files.nand));
    if (!files.dataflash.empty()) chips.push_back(Look(BlankDataflash(files), files.dataflash));
    // Not of a chip that is being provisioned: one copy is what production stores.
    for (ShownChip &chip : chips) {
        const Problems more = WarningsOfOneCopy(chip.report);
        chip.report.warnings.insert(chip.report.warnings.end(), more.begin(), more.end());
    }
    return Show(call, "flash info", chips);
}

Provision ReadProvision(const FlashCall &call) {
    Provision provision{call.slot, ReadStoredImage(call.bootloader), {}, ""};
    if (call.rescue.empty()) return provision;
    // The last one: a file's name may hold colons, a version seldom does.
    const std::size_t colon = call.rescue.rfind(':');
    // No default: the board compares this text with its bank's, and replaces the rescue image where they differ.
    if (colon == std::string::npos) throw Refusal(Fault::call, {"wrong-call", "--rescue", call.rescue, "FILE:VERSION"});
    provision.rescue = ReadStoredImage(call.rescue.substr(0, colon));
    provision.rescue_version = call.rescue.substr(colon + 1);
    return provision;
}

template <typename Contents>
ShownChip ProvisionChip(Contents contents, const std::string &file, const Provision &provision, OutputFiles &outputs) {
    // Production provisions fresh chips and, after a repair, old ones: what the file holds outside the slots stays.
    OpenChip<Contents> chip(contents, file, ChipUse::create, outputs);
    const RawFlash flash = RawFlashOf(contents);
    StoreProvision(flash, provision);
    chip.store();
    outputs.commit(); // while the chip is held
    // What a new file holds is only known now, so its layout is told from the bytes that were written.
    const Bytes written = ChipBytesOf(contents, chip.layout(), file);
    return {file, RecogniseChip(file, written, ShapeOf(contents)).describe(ShapeOf(contents)), ExamineFlash(flash)};
}

// The chip that the board does not boot from comes erased with it.
template <typename Contents> void MakeOther(const Contents &blank, const std::string &file, OutputFiles &outputs) {
    // Only a missing file is made. One that is there may be another board's, and stays.
    std::error_code error;
    if (!file.empty() && !std::filesystem::exists(std::filesystem::symlink_status(file, error)))
        outputs.add(file).write(ChipBytesOf(blank));
}

int ProvisionFlash(const FlashCall &call) {
    const ChipFiles &chips = call.chips;
    const bool nand = call.medium == "nand";
    if ((nand ? chips.nand : chips.dataflash).empty())
        throw Refusal(Fault::call, {"wrong-call", "flash provision", "no chip file", "--" + call.medium});
    RequireDistinct({chips.nand, chips.dataflash});
    // Before any chip is opened: an image that cannot be used leaves nothing locked and nothing half made.
    const Provision provision = ReadProvision(call);
    OutputFiles outputs;
    // First, so that both files appear together or not at all.
    if (nand)
        MakeOther(BlankDataflash(chips), chips.dataflash, outputs);
    else
        MakeOther(BlankNand(chips), chips.nand, outputs);
    const ShownChip chip = nand ? ProvisionChip(BlankNand(chips), chips.nand, provision, outputs)
                                : ProvisionChip(BlankDataflash(chips), chips.dataflash, provision, outputs);
    return Show(call, "flash provision", {chip});
}

template <typename Contents> std::string Convert(Contents contents, const FlashCall &call) {
    // Proven writable before 276 MB are read.
    OutputFile output(call.output);
    const ChipFileLayout from = LoadChip(contents, call.input);
    const ChipShape shape = ShapeOf(contents);
    ChipFileLayout to{call.layout == "data" ? ChipLayout::data_only : ChipLayout::raw, 0};
    // At full length: programmers of chips expect the whole chip, not a file that ends after the last written page.
    to.bytes = to.layout == ChipLayout::raw ? shape.whole_bytes() : shape.data_bytes();
    output.write(ChipBytesOf(contents, to, call.input));
    output.finish();
    return fmt::format("{} to {}", from.describe(shape), to.describe(shape));
}

int ConvertChip(const FlashCall &call) {
    RequireDistinct({call.input, call.output});
    // --medium is asked for, not guessed: files may be shorter than their chips, so a length can fit either.
    const std::string done =
        call.medium == "nand" ? Convert(BlankNand(call.chips), call) : Convert(BlankDataflash(call.chips), call);
    CallReport outcome("flash convert", call.json);
    outcome.part = {{"file", TextJson(call.output)}, {"converted", done}};
    if (!call.json) fmt::print("{}: {}\n", Printable(call.output), done);
    return outcome.finish(kGood);
}

void AddProvision(Command &command, int &exit_status) {
    auto call = std::make_shared<FlashCall>();
    Command *provision = command.add_subcommand("provision", "Store a bootloader as production does");
    provision->add_option("--medium", call->medium, "chip the board boots from")
        ->required()
        ->check(OneOf({"nand", "dataflash"}));
    call->chips.add_options(*provision, "chip file; created if missing, changed in the named slots only");
    provision->add_option("--bootloader", call->bootloader, "stored image, flat binary or ELF")
        ->type_name("FILE")
        ->required();
    provision->add_option("--slot", call->slot, "bootloader slot; the other one is erased")
        ->check(WholeNumber(0, 1))
        ->capture_default_str();
    provision->add_option("--rescue", call->rescue, "rescue image and the version to record, as FILE:VERSION");
    call->judging.add_options(*provision);
    provision->add_flag("--json", call->json, "report as one JSON object");
    provision->callback([call, &exit_status] { exit_status = ProvisionFlash(*call); });
}

void AddInfo(Command &command, int &exit_status) {
    auto call = std::make_shared<FlashCall>();
    Command *info = command.add_subcommand("info", "Show every slot, and what can still go wrong");
    call->chips.add_options(*info);
    call->judging.add_options(*info);
    info->add_flag("--json", call->json, "report as one JSON object");
    info->callback([call, &exit_status] { exit_status = ShowFlash(*call); });
}

void AddConvert(Command &command, int &exit_status) {
    auto call = std::make_shared<FlashCall>();
    Command *convert = command.add_subcommand("convert", "Write a chip file in another layout, at full length");
    convert->add_option("IN", call->input, "chip file; its layout is recognised")->required();
    convert->add_option("OUT", call->output, "chip file to write")->required();
    convert->add_option("--medium", call->medium, "what the file holds")
        ->required()
        ->check(OneOf({"nand", "dataflash"}));
    convert
        ->add_option("--to", call->layout,
                     "raw: every byte of every page; data: without spare bytes (DataFlash: 512 or 1,024 bytes a page)")
        ->required()
        ->check(OneOf({"raw", "data"}));
    call->chips.add_part_options(*convert);
    convert->add_flag("--json", call->json, "report as one JSON object");
    convert->callback([call, &exit_status] { exit_status = ConvertChip(*call); });
}

} // namespace

void AddFlashCommand(Command &app, int &exit_status) {
    Command *command = app.add_subcommand("flash", "The slots of a board's raw flash: provision, show, write, compare");
    command->require_subcommand();
    AddProvision(*command, exit_status);
    AddInfo(*command, exit_status);
    AddConvert(*command, exit_status);
    AddFlashSlotCommands(*command, exit_status);
}

} // namespace fixture
