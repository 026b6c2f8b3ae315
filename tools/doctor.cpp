// fixture doctor: what ails the chips of a board, what has led to it, and what mends it.
#include "formats/doctor.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/commands.h"
#include "tools/option_checks.h"
#include "tools/references.h"

#include <algorithm>
#include <cassert>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

namespace fixture {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

struct DoctorCall {
    ChipFiles chips;
    std::string eeprom;
    std::vector<std::string> banks;
    std::string fix;
    std::string only;
    bool json = false;
};

// What was found on one chip, and the repairs that were made of it.
struct Patient {
    std::string file;
    std::string option; // the file as an argument that can be pasted
    std::optional<FlashDiagnosis> flash;
    std::optional<StoreDiagnosis> store;
    std::vector<std::string> mended;
    bool healthy() const {
        assert(flash.has_value() != store.has_value() && "a patient is one chip");
        return flash ? flash->healthy() : store->healthy();
    }
};

std::vector<ReferenceImage> References(const DoctorCall &call) {
    // Known builds first: where a bank carries the same image, the name of the build says more.
    std::vector<ReferenceImage> references = KnownReferences();
    for (const std::string &bank : call.banks) {
        std::vector<ReferenceImage> more = BankReferences(bank);
        references.insert(references.end(), more.begin(), more.end());
    }
    return references;
}

bool Wanted(const DoctorCall &call, const std::string &place) { return call.only.empty() || call.only == place; }

// A healthy place may be named: there is nothing to mend in it, which the report says. A mistyped one would mend
// nothing as well, and the user would take OUT for a mended chip.
void RequirePlace(const DoctorCall &call, const std::vector<std::string> &places) {
    const bool known = call.only.empty() || std::find(places.begin(), places.end(), call.only) != places.end();
    RequireInCall(known, "--only", fmt::format("no place \"{}\" on this chip", call.only), Either(places));
}

std::vector<std::string> PlacesOf(const FlashDiagnosis &flash) {
    std::vector<std::string> places;
    for (const SlotDiagnosis &slot : flash.slots) places.emplace_back(slot.slot.name);
    places.emplace_back(SlotsOf(flash.medium).record.name);
    return places;
}

// Mends a copy of the chip, one slot after another, and looks at it again.
template <typename Contents>
Patient Treat(const DoctorCall &call, Contents contents, const std::string &file, const char *option,
              const std::vector<ReferenceImage> &references) {
    // Read only, so not locked: what is mended goes to a file of its own.
    const ChipFileLayout layout = LoadChip(contents, file);
    Patient patient{
        file, fmt::format("{} {}", option, ShellWord(file)), DiagnoseFlash(RawFlashOf(contents), references), {}, {}};
    if (call.fix.empty()) return patient;
    RequirePlace(call, PlacesOf(*patient.flash));
    for (const Repair &repair : patient.flash->repairs) {
        // One after another on the same copy: each repair writes its own slot and leaves the others.
        if (!Wanted(call, repair.place)) continue;
        repair.apply(RawFlashOf(contents));
        patient.mended.push_back(fmt::format("{}: {}", repair.place, repair.text));
    }
    // Even if nothing was mended: a script that asked for a file goes on with that file.
    WriteFile(call.fix, ChipBytesOf(contents, layout, call.fix));
    return patient;
}

Patient TreatEeprom(const DoctorCall &call) {
    EepromContents chip;
    LoadChip(chip, call.eeprom);
    Patient patient{call.eeprom, "--eeprom " + ShellWord(call.eeprom), {}, DiagnoseStore(chip.bytes), {}};
    if (call.fix.empty()) return patient;
    RequirePlace(call, {"sector 0", "sector 1"});
    if (const std::optional<int> sector = patient.store->clean;
        sector && Wanted(call, fmt::format("sector {}", *sector))) {
        // What the board's next start does by itself, so nothing is lost that the board would have kept.
        CleanSector(chip.bytes, *sector);
        patient.mended.push_back(fmt::format("sector {}: header cleared", *sector));
    }
    SaveChip(chip, call.fix);
    return patient;
}

ordered_json ToJson(const SlotDiagnosis &slot) {
    ordered_json json = SlotJson(slot.slot.name);
    json.update({{"condition", NameOf(slot.condition)}, {"holds", TextJson(slot.holds)}});
    if (slot.pages > 0) json["pages"] = slot.pages;
    if (slot.cut_page) json["cut_page"] = *slot.cut_page;
    json["damaged_pages"] = slot.damaged_pages;
    json["damages"] = ordered_json::array();
    for (const PageDamage &damage : slot.damages)
        json["damages"].push_back(
            {{"page", damage.page}, {"address", damage.address}, {"unit", damage.unit}, {"text", damage.text}});
    return json;
}

ordered_json ToJson(const Patient &patient) {
    ordered_json json{{"file", TextJson(patient.file)}, {"healthy", patient.healthy()}};
    if (patient.store) {
        json["history"] = patient.store->history.empty() ? ordered_json::array() : ordered_json{patient.store->history};
        json["clean_sector"] = patient.store->clean ? ordered_json(*patient.store->clean) : ordered_json();
    } else {
        const FlashDiagnosis &flash = *patient.flash;
        json["medium"] = NameOf(flash.medium);
        json["bad_blocks"] = flash.bad_blocks;
        json["slots"] = ordered_json::array();
        for (const SlotDiagnosis &slot : flash.slots) json["slots"].push_back(ToJson(slot));
        json["rescue_version"] = TextJson(flash.record);
        json["running"] = flash.running ? ordered_json(*flash.running) : ordered_json();
        json["history"] = ordered_json::array();
        for (const std::string &line : flash.history) json["history"].push_back(TextJson(line));
        json["repairs"] = ordered_json::array();
        for (const Repair &repair : flash.repairs)
            json["repairs"].push_back({{"id", repair.id},
                                       {"where", repair.place},
                                       {"text", TextJson(repair.text)},
                                       // Can be pasted once a name for the mended file is added.
                                       {"command", fmt::format("fixture {} {}", repair.command, patient.option)}});
    }
    json["mended"] = ordered_json::array();
    for (const std::string &line : patient.mended) json["mended"].push_back(TextJson(line));
    return json;
}

void Print(const FlashDiagnosis &flash, const std::string &option) {
    const bool nand = flash.medium == Medium::nand;
    for (const SlotDiagnosis &slot : flash.slots) {
        fmt::print("  {:<16}{:<9}{}\n", slot.slot.name, NameOf(slot.condition), Printable(slot.holds));
        for (const PageDamage &damage : slot.damages)
            fmt::print("    page {} at 0x{:08X}, {} {}: {}\n", damage.page, damage.address,
                       nand ? "block" : "page of the chip", damage.unit, damage.text);
        // The first few tell where it begins. A slot may have thousands.
        if (slot.damaged_pages > slot.damages.size())
            fmt::print("    and {} more\n", slot.damaged_pages - slot.damages.size());
    }
    fmt::print("  {:<16}{}\n", "version record", flash.record.empty() ? "none" : Escaped(flash.record));
    if (nand) fmt::print("  {:<16}{}\n", "bad blocks", flash.bad_blocks.empty() ? "none" : Ranges(flash.bad_blocks));
    fmt::print("  {:<16}{}\n", "first stage",
               flash.running ? fmt::format("starts {}", flash.slots[*flash.running].slot.name) : "starts nothing");
    for (const std::string &line : flash.history) fmt::print("history: {}\n", Printable(line));
    for (const Repair &repair : flash.repairs)
        // Always to another file: the named one is evidence of what happened to the board.
        fmt::print("mend {}: {}\n  fixture {} {} --out FIXED\n", repair.place, Printable(repair.text), repair.command,
                   option);
}

void Print(const StoreDiagnosis &store) {
    for (const int sector : {0, 1}) {
        const StoreSector &s = store.store.sectors[sector];
        fmt::print("  sector {}      {}\n", sector, s.good ? "good" : s.empty() ? "empty" : "damaged: " + s.problem);
    }
    fmt::print("  current       {}, since {}\n",
               store.store.current ? fmt::format("sector {}", *store.store.current) : "none", store.store.why);
    if (!store.history.empty()) fmt::print("history: {}\n", store.history);
    if (store.clean)
        fmt::print("mend sector {}: clear its header, as the board's next start does; --fix OUT does so\n",
                   *store.clean);
    // Nothing in the chip says what they were: only the user knows.
    if (!store.store.current)
        fmt::print("mend: set the parameters anew in a blank file: fixture eeprom set FILE ...\n");
}

void Print(const DoctorCall &call, const Patient &patient) {
    fmt::print("{}: {}\n", Printable(patient.file), patient.healthy() ? "healthy" : "not healthy");
    if (patient.flash)
        Print(*patient.flash, patient.option);
    else
        Print(*patient.store);
    for (const std::string &line : patient.mended)
        fmt::print("mended in {}: {}\n", Printable(call.fix), Printable(line));
    if (!call.fix.empty() && patient.mended.empty()) fmt::print("mended in {}: nothing\n", Printable(call.fix));
}

void CheckFix(const DoctorCall &call, std::size_t chips) {
    if (chips == 0) RequireInCall(false, "doctor", "no chip", "--nand, --dataflash or --eeprom");
    if (call.fix.empty()) return;
    RequireInCall(chips == 1, "--fix", "mends one chip per call", "one of --nand, --dataflash and --eeprom");
    // Never over an older file: it may be the only copy of what the chip held.
    if (fs::exists(fs::symlink_status(call.fix)))
        throw Refusal(Fault::call, {"exists", call.fix, "exists already", "a new name"});
}

int Diagnose(const DoctorCall &call) {
    for (const std::string &bank : call.banks) RequireDirectory(bank);
    // Before the references are made, which takes reading every known build and every bank.
    CheckFix(call, std::size_t{!call.chips.nand.empty()} + !call.chips.dataflash.empty() + !call.eeprom.empty());
    const std::vector<ReferenceImage> references = References(call);
    std::vector<Patient> patients;
    if (!call.chips.nand.empty())
        patients.push_back(
            Treat(call, NandContents(FindNandPart(call.chips.nand_part)), call.chips.nand, "--nand", references));
    if (!call.chips.dataflash.empty())
        patients.push_back(Treat(call, At45Contents(*FindAt45Part(call.chips.dataflash_part)), call.chips.dataflash,
                                 "--dataflash", references));
    if (!call.eeprom.empty()) patients.push_back(TreatEeprom(call));
    const bool healthy = std::all_of(patients.begin(), patients.end(), [](const Patient &p) { return p.healthy(); });
    CallReport outcome("doctor", call.json);
    outcome.part["chips"] = ordered_json::array();
    for (const Patient &patient : patients) {
        outcome.part["chips"].push_back(ToJson(patient));
        if (!patient.healthy()) outcome.problems.push_back({"not-healthy", patient.file, "not healthy", ""});
        if (!call.json) Print(call, patient);
    }
    return outcome.finish(healthy ? kGood : kBad);
}

} // namespace

void AddDoctorCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<DoctorCall>();
    Command *command =
        app.add_subcommand("doctor", "Find what is wrong with a board's chips, how it came about, and how to mend it");
    call->chips.add_options(*command);
    command->add_option("--eeprom", call->eeprom, "chip file of the parameter EEPROM")->type_name("FILE");
    command->add_option("--bank", call->banks, "bank whose images the chip may have held; may be repeated")
        ->type_name("DIR");
    Option *fix =
        command->add_option("--fix", call->fix, "write the mended chip to this new file; the named one stays as it is")
            ->type_name("FILE");
    command->add_option("--only", call->only, "slot or sector to mend, by its name in the report [all]")
        ->type_name("NAME")
        ->needs(fix);
    command->add_flag("--json", call->json, "report as one JSON object");
    command->footer("Exit status: 0 every chip is healthy, 1 one is not, mended or not.");
    command->callback([call, &exit_status] { exit_status = Diagnose(*call); });
}

} // namespace fixture
