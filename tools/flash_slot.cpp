#include "tools/flash_slot.h"

#include "formats/slot_store.h"
#include "formats/stored_image.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/commands.h"
#include "tools/option_checks.h"
#include "tools/references.h"

#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

struct SlotCall {
    std::string command; // as typed after `fixture`
    std::string slot;
    ChipFiles chips;
    std::string image;
    std::string version;
    std::string bank;
    std::string out;
    bool raw = false;
    bool json = false;
};

const std::vector<std::string> kSlotNames = {"bootloader0", "bootloader1", "rescue"};

std::optional<Slot> FindSlot(const RawFlash &flash, const std::string &name) {
    // "record" is in no table of slots: its block or page is written whole, so it has routines of its own.
    for (std::size_t n = 0; n < kSlotNames.size(); ++n)
        if (kSlotNames[n] == name) return SlotsOn(flash)[n];
    return std::nullopt;
}

const std::string &OnlyChip(const SlotCall &call) {
    RequireInCall(call.chips.nand.empty() != call.chips.dataflash.empty(), call.command,
                  call.chips.named() ? "two chips" : "no chip", "one of --nand and --dataflash");
    return call.chips.nand.empty() ? call.chips.dataflash : call.chips.nand;
}

// Calls `work` with the one chip of the call. Where it changes the chip, the file, or OUT, gets what it leaves, in the
// file's own layout.
template <typename Contents, typename Work>
void OnContents(const SlotCall &call, Contents contents, bool changes, Work work) {
    const std::string &file = OnlyChip(call);
    // With --out the named chip is only looked at: a dump from a dead board is evidence.
    const bool in_place = changes && call.out.empty();
    RequireDistinct({file, call.out});
    OutputFiles outputs;
    OpenChip<Contents> chip(contents, file, in_place ? ChipUse::change : ChipUse::look, outputs);
    OutputFile *const copy = changes && !in_place ? &outputs.add(call.out) : nullptr;
    // By now the outputs are known to be writable. If the work throws, they stay as they were.
    work(RawFlashOf(contents));
    if (copy) copy->write(ChipBytesOf(contents, chip.layout(), call.out));
    chip.store();
    outputs.commit();
}
template <typename Work> void OnChip(const SlotCall &call, bool changes, Work work) {
    OnlyChip(call);
    if (call.chips.nand.empty())
        OnContents(call, At45Contents(*FindAt45Part(call.chips.dataflash_part)), changes, work);
    else
        OnContents(call, NandContents(FindNandPart(call.chips.nand_part)), changes, work);
}

int Extract(const SlotCall &call) {
    std::size_t size = 0;
    OnChip(call, false, [&](const RawFlash &flash) {
        const Slot slot = *FindSlot(flash, call.slot);
        const StoredImage image = ReadSlot(flash.read, slot);
        if (!call.raw && image.verdict() != ImageVerdict::good)
            throw Refusal(OnlyChip(call), fmt::format("{}: {}", slot.name, NameOf(image.verdict())),
                          "a good image, or --raw for the slot's bytes as they are");
        // Raw bytes are for those who want to see a damaged image; a good one ends where its header says.
        const Bytes bytes = call.raw ? flash.read(slot.address, RoomIn(flash, slot)) : image.bytes;
        // Written only here, once the file has proven to hold such a chip.
        WriteFile(call.out, bytes);
        size = bytes.size();
    });
    CallReport outcome(call.command, call.json);
    outcome.part = SlotJson(call.slot);
    outcome.part.update({{"file", TextJson(call.out)}, {"size", size}});
    if (!call.json) fmt::print("{}: {} bytes of {}\n", Printable(call.out), size, call.slot);
    return outcome.finish(kGood);
}

int Report(const SlotCall &call, const std::string &text) {
    const std::string &file = call.out.empty() ? OnlyChip(call) : call.out;
    CallReport outcome(call.command, call.json);
    outcome.part = SlotJson(call.slot);
    outcome.part["file"] = TextJson(file);
    if (!call.json) fmt::print("{}: {}: {}\n", Printable(file), call.slot, Printable(text));
    return outcome.finish(kGood);
}

int Write(const SlotCall &call) {
    const bool record = call.slot == "record";
    // --image is not required by the parser, since the record takes none.
    RequireInCall(record || !call.image.empty(), call.command, "no image", "--image");
    RequireInCall(!record || call.image.empty(), "--image", "has no effect on the record", "--version alone");
    RequireInCall(!record || !call.version.empty(), call.command, "no text for the record", "--version");
    RequireInCall(call.version.empty() || record || call.slot == "rescue", "--version",
                  fmt::format("{} has no version record", call.slot), "slot rescue");
    const Bytes image = record ? Bytes{} : ReadStoredImage(call.image);
    OnChip(call, true, [&](const RawFlash &flash) {
        if (!record) StoreInSlot(flash, *FindSlot(flash, call.slot), image);
        if (!call.version.empty()) StoreRecord(flash, call.version);
    });
    return Report(call,
                  record ? fmt::format("\"{}\" written", call.version) : fmt::format("{} bytes written", image.size()));
}

int Erase(const SlotCall &call) {
    OnChip(call, true, [&](const RawFlash &flash) {
        if (const std::optional<Slot> slot = FindSlot(flash, call.slot))
            EraseSlot(flash, *slot);
        else
            EraseRecord(flash);
    });
    return Report(call, "erased");
}

struct SlotCheck {
    std::string where;
    std::string found;
    std::string expected;
    bool good() const { return found == expected; }
};

std::string Describe(const ReferenceImage &image) {
    return fmt::format("{}, {} bytes", image.version, image.image.size());
}

SlotCheck CheckSlot(const RawFlash &flash, const Slot &slot, const ReferenceImage &expected) {
    const StoredImage image = ReadSlot(flash.read, slot);
    SlotCheck check{slot.name, NameOf(image.verdict()), Describe(expected)};
    if (image.verdict() == ImageVerdict::good)
        // A good image of another build is no damage, and is told apart from it.
        check.found =
            image.bytes == expected.image ? check.expected : fmt::format("another good image, {} bytes", image.size);
    return check;
}

// What the chip holds against what a board that has taken the bank would hold.
std::vector<SlotCheck> Verify(const RawFlash &flash, const std::vector<ReferenceImage> &bank) {
    // Only the slot that the first stage starts counts: after an update the other one may hold anything.
    const FlashReport report = ExamineFlash(flash);
    const auto slots = SlotsOn(flash);
    std::vector<SlotCheck> checks;
    for (const ReferenceImage &image : bank) {
        if (image.role == FileRole::rescue) {
            checks.push_back(CheckSlot(flash, slots[2], image));
            checks.push_back({"version record", report.record.empty() ? "none" : report.record, image.version});
        } else if (report.first_stage) {
            checks.push_back(CheckSlot(flash, slots[*report.first_stage], image));
        } else {
            checks.push_back({"bootloader", "no good one in either slot", Describe(image)});
        }
    }
    return checks;
}

int VerifyChip(const SlotCall &call) {
    RequireDirectory(call.bank);
    const std::vector<ReferenceImage> bank = BankReferences(call.bank);
    // Nothing to compare would pass for "all good".
    if (bank.empty()) throw Refusal(call.bank, "neither a bootloader nor a rescue image", "a bank that lists one");
    std::vector<SlotCheck> checks;
    OnChip(call, false, [&](const RawFlash &flash) { checks = Verify(flash, bank); });
    const bool good = std::all_of(checks.begin(), checks.end(), [](const SlotCheck &check) { return check.good(); });
    CallReport outcome(call.command, call.json);
    outcome.part["file"] = TextJson(OnlyChip(call));
    for (const SlotCheck &check : checks) {
        if (!check.good()) outcome.problems.push_back({"differs", check.where, check.found, check.expected});
        if (!call.json)
            fmt::print("{:<16}{}\n", check.where,
                       Printable(check.good() ? "good: " + check.expected
                                              : fmt::format("DIFFERS: {}; expected {}", check.found, check.expected)));
    }
    return outcome.finish(good ? kGood : kBad);
}

} // namespace

void AddFlashSlotCommands(Command &flash, int &exit_status) {
    auto call = std::make_shared<SlotCall>();
    const auto add = [&](const char *name, const char *help, bool with_record, int (*run)(const SlotCall &)) {
        Command *command = flash.add_subcommand(name, help);
        // The record has no image to extract.
        std::vector<std::string> names = kSlotNames;
        if (with_record) names.emplace_back("record");
        command
            ->add_option("SLOT", call->slot,
                         with_record ? "which slot; record is the rescue image's version" : "which slot")
            ->required()
            ->check(OneOf(names));
        call->chips.add_options(*command);
        command->add_flag("--json", call->json, "report as one JSON object");
        command->callback([call, run, name, &exit_status] {
            call->command = std::string("flash ") + name;
            exit_status = run(*call);
        });
        return command;
    };
    const char *const kOut = "write the changed chip to this file and leave the named one as it is";
    Command *extract = add("extract", "Copy the image of one slot to a file", false, Extract);
    extract->add_option("--out", call->out, "file to write")->type_name("FILE")->required();
    extract->add_flag("--raw", call->raw, "copy every byte of the slot, good image or not");
    Command *write = add("write", "Store an image in one slot; the others stay as they are", true, Write);
    write->add_option("--image", call->image, "stored image, flat binary or ELF")->type_name("FILE");
    write->add_option("--version", call->version, "version to record, with a rescue image or alone")
        ->type_name("VERSION");
    write->add_option("--out", call->out, kOut)->type_name("FILE");
    Command *erase = add("erase", "Erase one slot; the others stay as they are", true, Erase);
    erase->add_option("--out", call->out, kOut)->type_name("FILE");

    Command *verify = flash.add_subcommand("verify", "Compare the slots with what a bank carries");
    call->chips.add_options(*verify);
    verify->add_option("--against", call->bank, "bank directory")->type_name("DIR")->required();
    verify->add_flag("--json", call->json, "report as one JSON object");
    verify->callback([call, &exit_status] {
        call->command = "flash verify";
        exit_status = VerifyChip(*call);
    });
}

} // namespace fixture
