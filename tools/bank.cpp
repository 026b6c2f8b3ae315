// fixture bank: makes the bank directories that a board updates itself from, and examines them.
#include "tools/commands.h"

#include "formats/bank.h"
#include "formats/bank_check.h"
#include "formats/stored_image.h"
#include "machine/firmware.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/option_checks.h"
#include "tools/prediction_text.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace fixture {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

// What boards leave production with, and so what most banks will meet. The help of --running states it too.
constexpr const char *kUsualVersion = "1.9.0";

struct BuildCall {
    std::string out;
    std::string application, application_version;
    std::string bootloader, bootloader_version;
    std::string rescue, rescue_version;
    std::vector<std::string> extras;
    ChipFiles chips;
    WarningOptions judging;
    bool json = false;
};

struct CheckCall {
    std::string directory;
    std::string as;
    std::string running; // empty: kUsualVersion
    ChipFiles chips;
    WarningOptions judging;
    bool json = false;
};

// The board that a call names, or a new one, and the builds that are known here.
class NamedBoard {
public:
    explicit NamedBoard(const ChipFiles &chips)
        : known_(FirmwareDirectory()), nand_(LoadNand(chips)), dataflash_(LoadDataflash(chips)) {
        // One file cannot be both chips: every warning would be about a board that does not exist.
        RequireDistinct({chips.nand, chips.dataflash});
        // If no chip is named, both blank ones are examined: the bank may be for either kind of board.
        if (!chips.nand.empty() || !chips.named()) view_.chips.push_back(RawFlashOf(nand_));
        if (!chips.dataflash.empty() || !chips.named()) view_.chips.push_back(RawFlashOf(dataflash_));
        // By the image's content: the version that a bank states is the very thing under examination.
        view_.version_of = [this](std::span<const std::uint8_t> body) -> std::optional<std::string> {
            const Firmware *build = known_.identify(body);
            if (!build) return std::nullopt;
            return fmt::format("{}.{}.{}", build->version.major, build->version.minor, build->version.build);
        };
    }
    // view_ reads the chips beside it. The view of a copy would still read the original's.
    NamedBoard(const NamedBoard &) = delete;
    NamedBoard &operator=(const NamedBoard &) = delete;

    const BoardView &view() const { return view_; }
    // A board that boots from the chip that is named; of two, or none, from NAND. A chip without a bootloader gets one
    // that calls itself `running`, and so does one that no known build stands for.
    // The chip is a copy, which a prediction may change.
    BoardState state(const ChipFiles &chips, const std::string &running) {
        const bool nand = !chips.nand.empty() || chips.dataflash.empty();
        BoardState board;
        board.pins_12_13 = nand;
        // The prediction writes to its chip; view_ must keep showing the chips as they are. A copy costs nothing until
        // then, since pages are shared.
        started_nand_ = nand_;
        started_dataflash_ = dataflash_;
        board.flash = nand ? RawFlashOf(started_nand_) : RawFlashOf(started_dataflash_);
        // Any bytes that no build has: `running` then says which version it is.
        const Bytes any_bootloader(64, 0xE1);
        if (!ChooseBootloader(board.flash.read, SlotsOf(board.medium())))
            StoreProvision(board.flash, {0, Wrap(any_bootloader), {}, ""});
        // Asked last, after the builds known here and the banks' own images.
        board.version_of = [running](std::span<const std::uint8_t>) { return running; };
        return board;
    }

private:
    KnownFirmware known_;
    NandContents nand_;
    At45Contents dataflash_;
    NandContents started_nand_;
    At45Contents started_dataflash_{*FindAt45Part(kDefaultAt45)};
    BoardView view_;
};

// --- build

std::vector<BankFile> ReadFiles(const BuildCall &call) {
    std::vector<BankFile> files;
    files.push_back(
        {FileRole::application, call.application, call.application_version, ReadStartedImage(call.application)});
    files.push_back({FileRole::bootloader, call.bootloader, call.bootloader_version, ReadStoredImage(call.bootloader)});
    if (!call.rescue.empty())
        files.push_back({FileRole::rescue, call.rescue, call.rescue_version, ReadStoredImage(call.rescue)});
    for (const std::string &extra : call.extras)
        // The manifest has nine digits for a size: a larger file could not be listed.
        files.push_back({FileRole::none, extra, "", ReadFile(extra, kLargestNumber)});
    return files;
}

// What stands at OUT goes when the new bank takes its place: only a bank, or nothing, may go.
void CheckReplaceable(const fs::path &out) {
    const auto refuse = [&](const fs::path &where, const std::string &found, const char *expected, const char *id) {
        throw Refusal(Fault::output, {id, where.string(), found, expected});
    };
    constexpr const char *kExpected = "a new name, an empty directory or a bank";
    // "out/app" and "out/app/" are the same directory; parent_path() of the second alone would be the first.
    const fs::path parent = fs::absolute(out / "").lexically_normal().parent_path().parent_path();
    std::error_code error;
    if (!fs::is_directory(parent, error)) refuse(parent, "no such directory", "", "missing");
    const fs::file_status status = fs::symlink_status(out, error);
    // A link is no directory here: the new bank would take the link's place, and what it led to would stay as it was.
    if (!fs::exists(status)) return;
    if (!fs::is_directory(status)) refuse(out, "not a directory", kExpected, "not-replaceable");
    for (const fs::directory_entry &entry : fs::directory_iterator(out)) {
        const std::string name = entry.path().filename().string();
        // A foreign file is a sign of a mistyped OUT. Replacing the directory would delete it without a word.
        if (name != kDescriptorName && name != kManifestName && name + "/" != kFileDirectory)
            refuse(out, fmt::format("holds \"{}\", which is no part of a bank", name), kExpected, "not-replaceable");
    }
}

// In any order: nobody sees the directory before it takes its place.
void WriteBank(const fs::path &directory, const std::vector<BankFile> &files) {
    fs::create_directory(directory / kFileDirectory);
    for (const BankFile &file : files) WriteFile(directory / file.path(), file.bytes);
    WriteFile(directory / kDescriptorName, MakeDescriptor(files));
    WriteFile(directory / kManifestName, MakeManifest(files));
}

ordered_json ToJson(const std::string &out, const std::vector<BankFile> &files) {
    ordered_json json{{"bank", TextJson(out)}, {"files", ordered_json::array()}};
    for (const BankFile &file : files)
        json["files"].push_back({{"role", NameOf(file.role)},
                                 {"path", TextJson(file.path())},
                                 {"size", file.bytes.size()},
                                 {"byte_sum", ByteSum(file.bytes)},
                                 {"version", TextJson(file.version)}});
    return json;
}

// Where a bank is to stand on the board: as asked for, or by the directory's own name.
// Some checks depend on the place: a path and its bank's directory share one buffer of the bootloader.
std::string BoardDirectory(const fs::path &directory, const std::string &as) {
    const fs::path named = fs::absolute(directory / "").lexically_normal().parent_path().filename();
    const std::string name = as.empty() ? named.string() : as;
    for (const char *place : kBankDirectories)
        if (std::string(place).ends_with("/" + name + "/")) return place;
    return kBankDirectories[0];
}

void PrintProblems(const Problems &problems) {
    for (const Problem &problem : problems) fmt::print(stderr, "fixture: {} ({})\n", problem.text(), problem.id);
}

void PrintFiles(const std::string &out, const std::vector<BankFile> &files) {
    std::size_t width = 4;
    for (const BankFile &file : files) width = std::max(width, file.path().size());
    fmt::print("{}\n", Printable(out));
    fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", "role", "path", width, "bytes", "byte-sum", "version");
    for (const BankFile &file : files)
        fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", NameOf(file.role), file.path(), width, file.bytes.size(),
                   ByteSum(file.bytes), file.version);
}

// The new bank is examined before it takes its place, so that build and check say the same.
int Build(const BuildCall &call) {
    // The cheap refusals come first. The new directory removes itself if anything below fails.
    CheckReplaceable(call.out);
    NewDirectory directory(call.out);
    const std::vector<BankFile> files = ReadFiles(call);
    CheckBankFiles(files);
    const NamedBoard board(call.chips);
    WriteBank(directory.path(), files);
    const BankReport bank = ExamineBank(directory.path(), BoardDirectory(call.out, ""), board.view());
    CallReport outcome("bank build", call.json);
    outcome.part = ToJson(call.out, files);
    outcome.problems = bank.problems;
    outcome.warnings = bank.warnings;
    const int status = outcome.judged(bank.problems.empty() ? kGood : kBad, call.judging);
    // The only step that changes OUT. With --strict a warning keeps the old bank in its place.
    if (status == kGood) directory.take_place();
    if (status != kGood) outcome.problems.push_back({"not-built", call.out, "the bank is not written", ""});
    if (!call.json && status == kGood) PrintFiles(call.out, files);
    if (!call.json) PrintProblems(outcome.problems);
    return outcome.finish(status);
}

// --- check

ordered_json ToJson(const RecordReport &report) {
    return {{"offset", report.record.offset}, {"role", NameOf(report.role)},   {"path", TextJson(report.record.path)},
            {"size", report.record.size},     {"byte_sum", report.record.sum}, {"problem", Printable(report.problem)}};
}

ordered_json ToJson(const BankReport &bank) {
    // The descriptor has an entry for each role even where it says nothing: programs need not ask which keys are there.
    ordered_json json{{"directory", bank.directory},      {"good", bank.good()},
                      {"launches", bank.launches},        {"descriptor", ordered_json::object()},
                      {"records", ordered_json::array()}, {"actions", bank.actions}};
    for (const FileRole role : {FileRole::application, FileRole::bootloader, FileRole::rescue}) {
        const DescriptorEntry &entry = bank.descriptor.entries[static_cast<std::size_t>(role)];
        json["descriptor"][NameOf(role)] = {{"base_name", TextJson(entry.base_name)},
                                            {"extension", TextJson(entry.extension)},
                                            {"version", TextJson(entry.version)},
                                            {"problem", Printable(entry.problem)}};
    }
    for (const RecordReport &report : bank.records) json["records"].push_back(ToJson(report));
    return json;
}

void PrintDescriptor(const Descriptor &descriptor) {
    fmt::print("\n{}\n", kDescriptorName);
    for (const FileRole role : {FileRole::application, FileRole::bootloader, FileRole::rescue}) {
        const DescriptorEntry &entry = descriptor.entries[static_cast<std::size_t>(role)];
        const std::string text = entry.problem.empty()
                                     ? fmt::format("\"{}\" and \"{}\", version {}", Escaped(entry.base_name),
                                                   Escaped(entry.extension), Escaped(entry.version))
                                     : entry.problem;
        fmt::print("  {:<12} {}\n", NameOf(role), text);
    }
}

void PrintRecords(const std::vector<RecordReport> &records) {
    std::size_t width = 4;
    for (const RecordReport &report : records) width = std::max(width, Escaped(report.record.path).size());
    fmt::print("\n{}\n  {:<12} {:<{}} {:>10} {:>10}\n", kManifestName, "role", "path", width, "bytes", "byte-sum");
    for (const RecordReport &report : records)
        fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", NameOf(report.role), Escaped(report.record.path), width,
                   report.record.size, report.record.sum,
                   report.problem.empty() ? "good" : "BAD: " + Printable(report.problem));
}

void PrintReport(const std::string &directory, const BankReport &bank) {
    fmt::print("{} as {}: {}\n", Printable(directory), bank.directory, bank.good() ? "good" : "BAD");
    for (const Problem &problem : bank.problems)
        if (problem.id != "bad-file") fmt::print("  {}\n", problem.text()); // those stand with their records
    PrintDescriptor(bank.descriptor);
    PrintRecords(bank.records);
    fmt::print("\nThe bootloader\n");
    for (const std::string &action : bank.actions) fmt::print("  {}\n", action);
}

int CheckBank(const CheckCall &call, const NamedBoard &board) {
    // Refused, not ignored: whoever names a version expects the answer to depend on it.
    if (!call.running.empty())
        throw Refusal(Fault::call,
                      {"wrong-call", "--running", "has no effect on one bank", "the directory that holds data/"});
    const BankReport bank = ExamineBank(call.directory, BoardDirectory(call.directory, call.as), board.view());
    CallReport outcome("bank check", call.json);
    outcome.part = ToJson(bank);
    outcome.part["bank"] = TextJson(call.directory);
    // In JSON alone, since PrintReport shows them among the records they belong to.
    outcome.problems = bank.problems;
    outcome.warnings = bank.warnings;
    if (!call.json) PrintReport(call.directory, bank);
    return outcome.finish(outcome.judged(bank.good() ? kGood : kBad, call.judging));
}

// A problem of one bank among several names the bank.
Problems Within(const BankReport &bank, Problems problems) {
    for (Problem &problem : problems) problem.where = bank.directory + ": " + problem.where;
    return problems;
}

void Append(Problems &to, const Problems &more) { to.insert(to.end(), more.begin(), more.end()); }

int CheckVolume(const CheckCall &call, NamedBoard &board) {
    const std::string running = call.running.empty() ? kUsualVersion : call.running;
    // The banks together: each may be good by itself and still replace what another one stores, start after start.
    const VolumeReport volume = ExamineVolume(call.directory, board.view(), board.state(call.chips, running));
    CallReport outcome("bank check", call.json);
    outcome.problems = volume.problems;
    outcome.warnings = volume.warnings;
    ordered_json banks = ordered_json::array(), power_ups = ordered_json::array();
    for (const BankReport &bank : volume.banks) {
        Append(outcome.problems, Within(bank, bank.problems));
        Append(outcome.warnings, Within(bank, bank.warnings));
        banks.push_back(ToJson(bank));
        if (!call.json) PrintReport(call.directory, bank);
        if (!call.json) fmt::print("\n");
    }
    for (const Prediction &told : volume.power_ups) power_ups.push_back(PredictionJson(told));
    outcome.part = {{"volume", TextJson(call.directory)},
                    {"good", volume.good()},
                    {"launches", volume.launches()},
                    {"banks", banks},
                    {"power_ups", power_ups}};
    if (!call.json) {
        fmt::print("{} as a volume: {}\n", Printable(call.directory), volume.good() ? "good" : "BAD");
        for (const Problem &problem : volume.problems) fmt::print("  {} ({})\n", problem.text(), problem.id);
        for (std::size_t n = 0; n < volume.power_ups.size(); ++n) {
            // A second power-up is foretold only where the first one leaves something for it to do otherwise.
            fmt::print("\n{}\n", n == 0 ? "What a board does with it" : "What it does at the next power-up");
            PrintPrediction(volume.power_ups[n]);
        }
    }
    return outcome.finish(outcome.judged(volume.good() ? kGood : kBad, call.judging));
}

// A volume holds data/ with the banks; a bank holds its descriptor.
int Check(const CheckCall &call) {
    NamedBoard board(call.chips);
    std::error_code error;
    // A volume is known by its data/. A directory that is neither is examined as a bank, whose report says what is
    // missing.
    if (!fs::is_directory(fs::path(call.directory) / "data", error)) return CheckBank(call, board);
    if (!call.as.empty())
        throw Refusal(Fault::call, {"wrong-call", "--as", "has no effect on a volume", "a bank's directory"});
    return CheckVolume(call, board);
}

void AddBuild(Command &bank, int &exit_status) {
    auto call = std::make_shared<BuildCall>();
    Command *build = bank.add_subcommand("build", "Make a bank directory from firmware files");
    build->add_option("OUT", call->out, "directory to write; replaces an older bank there")->required();
    build->add_option("--app", call->application, "main application, flat binary or ELF")
        ->type_name("FILE")
        ->required();
    build->add_option("--app-version", call->application_version, "its version, 1 to 16 characters")
        ->type_name("VERSION")
        ->required();
    build->add_option("--bootloader", call->bootloader, "bootloader; gets its header here if it has none")
        ->type_name("FILE")
        ->required();
    build->add_option("--bootloader-version", call->bootloader_version, "its version, 1 to 16 characters")
        ->type_name("VERSION")
        ->required();
    Option *rescue = build->add_option("--rescue", call->rescue, "rescue image; gets its header here if it has none")
                         ->type_name("FILE");
    Option *version = build->add_option("--rescue-version", call->rescue_version, "its version, 1 to 16 characters")
                          ->type_name("VERSION");
    // Both or neither: the board stores a rescue image only when its version differs from the recorded one, so an image
    // without a version could never be told from the one before it.
    rescue->needs(version);
    version->needs(rescue);
    build->add_option("--extra", call->extras, "further files to carry, unchanged")->type_name("FILE");
    call->chips.add_options(*build->add_option_group("Board", "chips to check against [blank]"));
    call->judging.add_options(*build);
    build->add_flag("--json", call->json, "report as one JSON object");
    build->callback([call, &exit_status] { exit_status = Build(*call); });
}

void AddCheck(Command &bank, int &exit_status) {
    auto call = std::make_shared<CheckCall>();
    Command *check =
        bank.add_subcommand("check", "Check a bank, or a volume with its banks, and say what a board does with it");
    check->add_option("DIR", call->directory, "bank directory, or the volume that holds data/")->required();
    check->add_option("--as", call->as, "place on the board [the directory's own name, or else app]")
        ->check(OneOf({"app", "oldapp", "newapp"}));
    check->add_option("--running", call->running, "for a volume, version of the bootloader that the board runs [1.9.0]")
        ->type_name("VERSION");
    call->chips.add_options(*check->add_option_group("Board", "chips to check against [blank]"));
    call->judging.add_options(*check);
    check->add_flag("--json", call->json, "report as one JSON object");
    check->callback([call, &exit_status] { exit_status = Check(*call); });
}

} // namespace

void AddBankCommand(Command &app, int &exit_status) {
    Command *bank = app.add_subcommand("bank", "Banks: directories that each hold one firmware set");
    bank->require_subcommand();
    AddBuild(*bank, exit_status);
    AddCheck(*bank, exit_status);
}

} // namespace fixture
