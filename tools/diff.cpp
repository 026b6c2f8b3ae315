// fixture diff: what two chips, banks or boards have in common, and what not.
#include "formats/bank_check.h"
#include "formats/board_volume.h"
#include "formats/chip_file.h"
#include "formats/parameter_store.h"
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
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

namespace fixture {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

struct DiffCall {
    std::string one, other;
    std::string as; // what the files are; empty: as they look
    ChipFiles parts;
    bool json = false;
};

struct Difference {
    std::string where;
    std::string one, other;
};
using Differences = std::vector<Difference>;

void Compare(Differences &found, const std::string &where, const std::string &one, const std::string &other) {
    if (one != other) found.push_back({where, one, other});
}

std::string BadBlocks(const RawFlash &flash) { return flash.bad_blocks.empty() ? "none" : Ranges(flash.bad_blocks); }

// --- flash

std::string Describe(const StoredImage &image, const std::vector<ReferenceImage> &known) {
    if (image.verdict() != ImageVerdict::good) return NameOf(image.verdict());
    // Byte by byte: size and sums may agree by chance, and a name must not be a guess.
    for (const ReferenceImage &reference : known)
        if (reference.image == image.bytes) return fmt::format("{}, {} bytes", reference.name, image.size);
    return fmt::format("good, {} bytes, sums 0x{:08X} 0x{:08X}", image.size, image.stored.sum1, image.stored.sum2);
}

void CompareSlots(const RawFlash &one, const RawFlash &other, Differences &found) {
    const std::vector<ReferenceImage> known = KnownReferences();
    for (const Slot &slot : SlotsOn(one))
        Compare(found, slot.name, Describe(ReadSlot(one.read, slot), known),
                Describe(ReadSlot(other.read, slot), known));
    const FlashReport reports[2] = {ExamineFlash(one), ExamineFlash(other)};
    // "none" and not "": the report shows both sides below each other, and an empty line says nothing.
    const auto record = [](const FlashReport &report) { return report.record.empty() ? "none" : report.record; };
    Compare(found, "version record", record(reports[0]), record(reports[1]));
    const auto start = [](const FlashReport &report) {
        return report.first_stage ? fmt::format("starts bootloader {}", *report.first_stage) : "starts nothing";
    };
    Compare(found, "first stage", start(reports[0]), start(reports[1]));
    Compare(found, "bad blocks", BadBlocks(one), BadBlocks(other));
}

// The part of a chip in which an address lies.
std::string PartOf(const RawFlash &flash, std::uint32_t address) {
    constexpr std::uint32_t kFileSystem = 0x01000000; // of a board that boots from NAND
    for (const Slot &slot : SlotsOn(flash))
        if (address >= slot.address && address - slot.address < slot.capacity) return slot.name;
    if (flash.medium == Medium::nand && address >= kFileSystem) return "file system";
    // Slot 0 is the lowest of the three on either medium.
    return address < SlotsOf(flash.medium).bootloader[0].address ? "before the slots" : "after the slots";
}

template <typename Contents> std::uint32_t PagesOf(const Contents &);
template <> std::uint32_t PagesOf(const NandContents &) { return kNandRows; }
template <> std::uint32_t PagesOf(const At45Contents &contents) { return contents.part().pages; }

template <typename Contents> void ComparePages(Contents &one, Contents &other, Differences &found) {
    const RawFlash flash = RawFlashOf(one);
    // Both are the same part: --nand-part and --dataflash-part count for both files.
    const std::uint32_t pages = PagesOf(one);
    assert(PagesOf(other) == pages && "both were loaded as the same part");
    std::map<std::string, std::vector<std::uint32_t>> changed;
    for (std::uint32_t page = 0; page < pages; ++page)
        // Pages that were never written are one shared page, so most of a chip is passed over by address.
        if (&one.page(page) != &other.page(page) && one.page(page) != other.page(page))
            changed[PartOf(flash, page * (flash.bytes / pages))].push_back(page);
    for (const auto &[part, numbers] : changed)
        found.push_back({part + ", pages", fmt::format("{} differ", numbers.size()), Ranges(numbers)});
}

template <typename Contents> void CompareChips(Contents one, Contents other, const DiffCall &, Differences &found) {
    // The slots answer what a person asks first; the pages then say whether anything else differs.
    CompareSlots(RawFlashOf(one), RawFlashOf(other), found);
    ComparePages(one, other, found);
}

// --- the parameter store

std::map<unsigned, std::string> ParametersIn(const StoreReport &report) {
    std::map<unsigned, std::string> parameters;
    if (report.current)
        for (const StoredParameter &parameter : report.sectors[*report.current].parameters)
            parameters[parameter.identifier] = parameter.data.empty() ? "no data" : Hex(parameter);
    return parameters;
}

std::string SectorText(const StoreSector &sector) {
    if (sector.empty()) return "empty";
    return sector.good ? fmt::format("good, word 0x{:04X}, {} bytes", sector.word, sector.length)
                       : "damaged: " + sector.problem;
}

void CompareStores(const fs::path &one, const fs::path &other, Differences &found) {
    EepromContents chips[2];
    LoadChip(chips[0], one);
    LoadChip(chips[1], other);
    const StoreReport reports[2] = {ReadStore(chips[0].bytes), ReadStore(chips[1].bytes)};
    std::map<unsigned, std::string> parameters[2] = {ParametersIn(reports[0]), ParametersIn(reports[1])};
    std::set<unsigned> identifiers;
    for (const auto &each : parameters)
        // From both sides: a parameter that only one of them has is a difference.
        for (const auto &[identifier, value] : each) identifiers.insert(identifier);
    for (const unsigned identifier : identifiers) {
        const std::string name = NameOfParameter(identifier);
        const auto text = [identifier](const std::map<unsigned, std::string> &from) {
            return from.contains(identifier) ? from.at(identifier) : std::string("not stored");
        };
        Compare(found, fmt::format("parameter {}{}", identifier, name.empty() ? "" : " (" + name + ")"),
                text(parameters[0]), text(parameters[1]));
    }
    // After the parameters: two stores may hold the same and still differ in which sector holds it.
    for (const int sector : {0, 1})
        Compare(found, fmt::format("sector {}", sector), SectorText(reports[0].sectors[sector]),
                SectorText(reports[1].sectors[sector]));
    std::vector<std::uint32_t> bytes;
    for (std::uint32_t at = 0; at < chips[0].bytes.size(); ++at)
        if (chips[0].bytes[at] != chips[1].bytes[at]) bytes.push_back(at);
    if (!bytes.empty()) found.push_back({"bytes", fmt::format("{} differ", bytes.size()), Ranges(bytes)});
}

// --- banks

std::string VersionIn(const BankReport &bank, FileRole role) {
    const DescriptorEntry &entry = bank.descriptor.entries[static_cast<std::size_t>(role)];
    return entry.problem.empty() ? entry.version : entry.problem;
}

std::map<std::string, std::string> FilesIn(const BankReport &bank) {
    std::map<std::string, std::string> files;
    for (const RecordReport &report : bank.records)
        files[report.record.path] = fmt::format("{}, {} bytes, byte-sum {}{}", NameOf(report.role), report.record.size,
                                                report.record.sum, report.problem.empty() ? "" : ", " + report.problem);
    return files;
}

bool SameBytes(const fs::path &one, const fs::path &other) {
    std::error_code error;
    // Sizes first: files of a bank may have many megabytes, and mostly differ in length when they differ.
    return fs::file_size(one, error) == fs::file_size(other, error) &&
           ReadFile(one, UINT32_MAX) == ReadFile(other, UINT32_MAX);
}

void CompareBanks(const fs::path &one, const fs::path &other, const std::string &place, Differences &found) {
    // Both examined as if in one place: where a bank stands is no difference of content.
    const BankReport banks[2] = {ExamineBank(one, kBankDirectories[0]), ExamineBank(other, kBankDirectories[0])};
    for (const FileRole role : {FileRole::application, FileRole::bootloader, FileRole::rescue})
        Compare(found, fmt::format("{}{} version", place, NameOf(role)), VersionIn(banks[0], role),
                VersionIn(banks[1], role));
    std::map<std::string, std::string> files[2] = {FilesIn(banks[0]), FilesIn(banks[1])};
    std::set<std::string> paths;
    for (const auto &each : files)
        for (const auto &[path, text] : each) paths.insert(path);
    for (const std::string &path : paths) {
        const auto text = [&path](const std::map<std::string, std::string> &from) {
            return from.contains(path) ? from.at(path) : std::string("not listed");
        };
        Compare(found, place + path, text(files[0]), text(files[1]));
        // Files may differ where size and byte-sum do not. A path that leads out of its bank is followed by nobody.
        // By the bootloader's own rules for paths, as on a volume that begins at the bank.
        const auto here = FindOnVolume(one, "i:/vol0/" + path), there = FindOnVolume(other, "i:/vol0/" + path);
        if (here && there && text(files[0]) == text(files[1]) && !SameBytes(*here, *there))
            found.push_back({place + path, "the bytes differ", "with the same size and byte-sum"});
    }
    for (const char *name : {kDescriptorName, kManifestName}) {
        std::error_code error;
        const bool there[2] = {fs::exists(one / name, error), fs::exists(other / name, error)};
        Compare(found, place + name, there[0] ? "there" : "missing", there[1] ? "there" : "missing");
        // What they say may be the same although the bytes are not: blanks, or elements that nobody reads.
        if (there[0] && there[1] && !SameBytes(one / name, other / name))
            found.push_back({place + name, "the bytes differ", "see above for what they say"});
    }
    Compare(found, place + "launch", banks[0].launches ? "launches" : "does not launch",
            banks[1].launches ? "launches" : "does not launch");
}

// --- what is what

bool IsBank(const fs::path &path) { return fs::exists(path / kDescriptorName) || fs::exists(path / kManifestName); }

// How many bootloader and rescue slots show a stored image's header where this chip would have it.
unsigned HeadersAt(const fs::path &file, Medium medium) {
    constexpr std::uintmax_t kMost = 300u << 20;
    // Read before it is known to be a chip: bounded by the longest dump that any of them has.
    const Bytes bytes = ReadFile(file, kMost);
    const SlotTable &slots = SlotsOf(medium);
    unsigned headers = 0;
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue}) {
        const std::size_t at =
            medium == Medium::nand ? slot.address / kNandPageBytes * kNandRawPageBytes : slot.address;
        // A dump may be cut short after its last written page.
        headers += at + sizeof kMakerText <= bytes.size() &&
                   std::equal(std::begin(kMakerText), std::end(kMakerText), bytes.begin() + static_cast<long>(at));
    }
    return headers;
}

// The kind of a chip's file, by its length and by where images lie in it.
std::string KindOf(const fs::path &file, const fs::path &other) {
    // No dump of a flash chip is so short.
    if (fs::file_size(file) == EepromContents::kSize) return "eeprom";
    std::uintmax_t largest = 0;
    for (const At45Part &part : At45Parts()) largest = std::max<std::uintmax_t>(largest, part.bytes());
    // Longer than the largest DataFlash, so there is nothing to guess.
    if (fs::file_size(file) > largest || fs::file_size(other) > largest) return "nand";
    const unsigned nand = HeadersAt(file, Medium::nand) + HeadersAt(other, Medium::nand);
    const unsigned dataflash = HeadersAt(file, Medium::dataflash) + HeadersAt(other, Medium::dataflash);
    // A tie, usually none at all. A guess might compare the wrong pages and call it a result.
    if (nand == dataflash)
        throw Refusal(Fault::call,
                      {"ambiguous", file.string(), "nothing tells which chip it is", "--as nand or --as dataflash"});
    return nand > dataflash ? "nand" : "dataflash";
}

template <typename Contents> Contents LoadAs(Contents chip, const fs::path &file) {
    LoadChip(chip, file);
    return chip;
}

void CompareFiles(const DiffCall &call, const fs::path &one, const fs::path &other, const std::string &kind,
                  Differences &found) {
    if (kind == "eeprom") return CompareStores(one, other, found);
    const NandContents nand(FindNandPart(call.parts.nand_part));
    if (kind == "nand") return CompareChips(LoadAs(nand, one), LoadAs(nand, other), call, found);
    const At45Part &part = *FindAt45Part(call.parts.dataflash_part);
    CompareChips(LoadAs(At45Contents(part), one), LoadAs(At45Contents(part), other), call, found);
}

// A board is a directory: chips under their usual names, and a volume with its banks.
void CompareBoards(const DiffCall &call, Differences &found) {
    const fs::path boards[2] = {call.one, call.other};
    bool any = false;
    for (const char *kind : {"nand", "dataflash", "eeprom"}) {
        const std::string name = std::string(kind) + ".bin";
        const bool there[2] = {fs::exists(boards[0] / name), fs::exists(boards[1] / name)};
        any |= there[0] || there[1];
        Compare(found, name, there[0] ? "there" : "missing", there[1] ? "there" : "missing");
        const std::size_t before = found.size();
        if (there[0] && there[1]) CompareFiles(call, boards[0] / name, boards[1] / name, kind, found);
        // A board may have three chips, so each difference names its own.
        for (std::size_t n = before; n < found.size(); ++n)
            found[n].where = fmt::format("{}: {}", name, found[n].where);
    }
    // The board's directory may be the volume itself, or hold it beside the chips.
    for (const char *volume : {"data", "volume/data"})
        for (const char *bank : {"app", "oldapp", "newapp"}) {
            const fs::path place = fs::path(volume) / bank;
            const bool there[2] = {fs::is_directory(boards[0] / place), fs::is_directory(boards[1] / place)};
            any |= there[0] || there[1];
            Compare(found, place.string(), there[0] ? "there" : "missing", there[1] ? "there" : "missing");
            if (there[0] && there[1]) CompareBanks(boards[0] / place, boards[1] / place, place.string() + ": ", found);
        }
    // Otherwise two directories that hold nothing would be "the same".
    if (!any)
        throw Refusal(
            Fault::call,
            {"wrong-call", fmt::format("{} and {}", call.one, call.other), "neither banks nor boards",
             fmt::format("{} in a bank; nand.bin, dataflash.bin, eeprom.bin or data/ in a board", kDescriptorName)});
}

Differences Find(const DiffCall &call) {
    for (const std::string &named : {call.one, call.other})
        if (!fs::exists(named)) throw Refusal(Fault::unreadable, {"missing", named, "no such file or directory", ""});
    Differences found;
    const bool directories[2] = {fs::is_directory(call.one), fs::is_directory(call.other)};
    if (directories[0] != directories[1])
        throw Refusal(Fault::call, {"wrong-call", fmt::format("{} and {}", call.one, call.other),
                                    "a file and a directory cannot be compared", "two of one kind"});
    if (!directories[0])
        CompareFiles(call, call.one, call.other, call.as.empty() ? KindOf(call.one, call.other) : call.as, found);
    else if (IsBank(call.one) || IsBank(call.other))
        CompareBanks(call.one, call.other, "", found);
    else
        CompareBoards(call, found);
    return found;
}

int Diff(const DiffCall &call) {
    const Differences found = Find(call);
    CallReport outcome("diff", call.json);
    outcome.part["differences"] = ordered_json::array();
    for (const Difference &difference : found) {
        // The first one named is the expectation: `diff GOOD SUSPECT` reads as it was typed.
        outcome.problems.push_back({"differs", difference.where, difference.other, difference.one});
        outcome.part["differences"].push_back({{"where", TextJson(difference.where)},
                                               {"a", TextJson(difference.one)},
                                               {"b", TextJson(difference.other)}});
        if (!call.json)
            fmt::print("{}\n  {}\n  {}\n", Printable(difference.where), Printable(difference.one),
                       Printable(difference.other));
    }
    if (found.empty() && !call.json) fmt::print("the same\n");
    return outcome.finish(found.empty() ? kGood : kBad);
}

} // namespace

void AddDiffCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<DiffCall>();
    Command *command =
        app.add_subcommand("diff", "Compare two chips, banks or boards: slots, versions, parameters, pages");
    command->add_option("A", call->one, "chip file, bank directory, or board directory")->required();
    command->add_option("B", call->other, "what to compare it with")->required();
    command->add_option("--as", call->as, "chip that the files hold, where their contents do not tell")
        ->check(OneOf({"nand", "dataflash", "eeprom"}));
    call->parts.add_part_options(*command);
    command->add_flag("--json", call->json, "report as one JSON object");
    command->footer("Exit status: 0 the same, 1 different.");
    command->callback([call, &exit_status] { exit_status = Diff(*call); });
}

} // namespace fixture
