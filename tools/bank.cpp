// fixture bank: makes the bank directories that a board updates itself from, and examines them.
#include "tools/commands.h"

#include "formats/bank.h"
#include "formats/bank_check.h"
#include "formats/stored_image.h"
#include "machine/firmware.h"
#include "tools/chip_files.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

struct BuildCall {
    std::string out;
    std::string application, application_version;
    std::string bootloader, bootloader_version;
    std::string rescue, rescue_version;
    std::vector<std::string> extras;
    ChipFiles chips;
    bool json = false;
};

struct CheckCall {
    std::string directory;
    std::string as;
    bool json = false;
};

std::string Dump(const ordered_json &json) { return json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace); }

// --- build

// A stored image as it is, anything else wrapped.
Bytes ReadStored(const std::string &file) {
    Bytes content = ReadFlatImage(file);
    return HasMaker(content) ? content : WrapFile(file);
}

std::vector<BankFile> ReadFiles(const BuildCall &call) {
    std::vector<BankFile> files;
    files.push_back(
        {FileRole::application, call.application, call.application_version, ReadFlatImage(call.application)});
    files.push_back({FileRole::bootloader, call.bootloader, call.bootloader_version, ReadStored(call.bootloader)});
    if (!call.rescue.empty())
        files.push_back({FileRole::rescue, call.rescue, call.rescue_version, ReadStored(call.rescue)});
    for (const std::string &extra : call.extras)
        files.push_back({FileRole::none, extra, "", ReadFile(extra, kLargestNumber)});
    return files;
}

// What stands at OUT goes when the new bank takes its place: only a bank, or nothing, may go.
void CheckReplaceable(const fs::path &out) {
    const fs::path parent = fs::absolute(out / "").lexically_normal().parent_path().parent_path();
    if (!fs::is_directory(parent)) throw std::runtime_error(fmt::format("{}: no such directory", parent.string()));
    if (!fs::exists(fs::symlink_status(out))) return;
    if (!fs::is_directory(fs::symlink_status(out)))
        throw std::runtime_error(
            fmt::format("{}: not a directory; expected a new name, an empty directory or a bank", out.string()));
    for (const fs::directory_entry &entry : fs::directory_iterator(out)) {
        const std::string name = entry.path().filename().string();
        if (name != kDescriptorName && name != kManifestName && name + "/" != kFileDirectory)
            throw std::runtime_error(fmt::format("{}: holds \"{}\", which is no part of a bank; expected a new name, "
                                                 "an empty directory or a bank",
                                                 out.string(), name));
    }
}

void WriteBank(const fs::path &out, const std::vector<BankFile> &files) {
    NewDirectory bank(out);
    fs::create_directory(bank.path() / kFileDirectory);
    for (const BankFile &file : files) WriteFile(bank.path() / file.path(), file.bytes);
    WriteFile(bank.path() / kDescriptorName, MakeDescriptor(files));
    WriteFile(bank.path() / kManifestName, MakeManifest(files));
    bank.take_place();
}

// A board compares the bank's text with what its bootloader says of itself.
void WarnOfVersion(const BankFile &file, std::vector<std::string> &warnings) {
    const KnownFirmware known(FirmwareDirectory());
    const Firmware *build = known.identify(std::span(file.bytes).subspan(kImageHeaderBytes));
    if (!build) return;
    const BootVersion &own = build->version;
    const std::string version = fmt::format("{}.{}.{}", own.major, own.minor, own.build);
    if (version != file.version)
        warnings.push_back(fmt::format("{}: is version {}, not {}; a board would store it and reset at every start, "
                                       "and never launch the application",
                                       file.path(), version, file.version));
}

// What the bank's images would meet on the named board, or on a new one.
std::vector<std::string> WarningsOf(const BuildCall &call, const std::vector<BankFile> &files) {
    std::vector<std::string> all;
    const auto add = [&](const BankFile &file, const RawFlash &flash, const std::vector<std::string> &warnings) {
        for (const std::string &warning : warnings)
            all.push_back(fmt::format("{} on {}: {}", file.path(), NameOf(flash.medium), warning));
    };
    for (const BankFile &file : files) {
        const auto bytes = static_cast<std::uint32_t>(file.bytes.size());
        if (file.role == FileRole::bootloader) WarnOfVersion(file, all);
        ForEachChip(call.chips, [&](const RawFlash &flash) {
            if (file.role == FileRole::bootloader) add(file, flash, WarningsOfBootloader(flash, bytes));
            if (file.role == FileRole::rescue) add(file, flash, WarningsOfRescue(flash, bytes, file.version));
        });
    }
    return all;
}

ordered_json ToJson(const std::string &out, const std::vector<BankFile> &files,
                    const std::vector<std::string> &warnings) {
    ordered_json json{{"bank", out}, {"files", ordered_json::array()}};
    for (const BankFile &file : files)
        json["files"].push_back({{"role", NameOf(file.role)},
                                 {"path", file.path()},
                                 {"size", file.bytes.size()},
                                 {"byte_sum", ByteSum(file.bytes)},
                                 {"version", file.version}});
    json["warnings"] = warnings;
    return json;
}

void PrintFiles(const std::string &out, const std::vector<BankFile> &files) {
    std::size_t width = 4;
    for (const BankFile &file : files) width = std::max(width, file.path().size());
    fmt::print("{}\n", out);
    fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", "role", "path", width, "bytes", "byte-sum", "version");
    for (const BankFile &file : files)
        fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", NameOf(file.role), file.path(), width, file.bytes.size(),
                   ByteSum(file.bytes), file.version);
}

int Build(const BuildCall &call) {
    CheckReplaceable(call.out);
    const std::vector<BankFile> files = ReadFiles(call);
    CheckBankFiles(files);
    const std::vector<std::string> warnings = WarningsOf(call, files);
    WriteBank(call.out, files);
    if (call.json) {
        fmt::print("{}\n", Dump(ToJson(call.out, files, warnings)));
    } else {
        PrintFiles(call.out, files);
        PrintWarnings(call.out, warnings);
    }
    return 0;
}

// --- check

ordered_json ToJson(const std::string &directory, const BankReport &bank) {
    ordered_json json{{"bank", directory},
                      {"directory", bank.directory},
                      {"good", bank.good()},
                      {"launches", bank.launches},
                      {"descriptor", ordered_json::object()},
                      {"records", ordered_json::array()},
                      {"problems", bank.problems},
                      {"actions", bank.actions}};
    for (const FileRole role : {FileRole::application, FileRole::bootloader, FileRole::rescue}) {
        const DescriptorEntry &entry = bank.descriptor.entries[static_cast<std::size_t>(role)];
        json["descriptor"][NameOf(role)] = {{"base_name", entry.base_name},
                                            {"extension", entry.extension},
                                            {"version", entry.version},
                                            {"problem", entry.problem}};
    }
    for (const RecordReport &report : bank.records)
        json["records"].push_back({{"offset", report.record.offset},
                                   {"role", NameOf(report.role)},
                                   {"path", report.record.path},
                                   {"size", report.record.size},
                                   {"byte_sum", report.record.sum},
                                   {"problem", report.problem}});
    return json;
}

void PrintDescriptor(const Descriptor &descriptor) {
    fmt::print("\n{}\n", kDescriptorName);
    for (const FileRole role : {FileRole::application, FileRole::bootloader, FileRole::rescue}) {
        const DescriptorEntry &entry = descriptor.entries[static_cast<std::size_t>(role)];
        const std::string text = entry.problem.empty() ? fmt::format("\"{}\" and \"{}\", version {}", entry.base_name,
                                                                     entry.extension, entry.version)
                                                       : entry.problem;
        fmt::print("  {:<12} {}\n", NameOf(role), text);
    }
}

void PrintRecords(const std::vector<RecordReport> &records) {
    std::size_t width = 4;
    for (const RecordReport &report : records) width = std::max(width, report.record.path.size());
    fmt::print("\n{}\n  {:<12} {:<{}} {:>10} {:>10}\n", kManifestName, "role", "path", width, "bytes", "byte-sum");
    for (const RecordReport &report : records)
        fmt::print("  {:<12} {:<{}} {:>10} {:>10}  {}\n", NameOf(report.role), report.record.path, width,
                   report.record.size, report.record.sum, report.problem.empty() ? "good" : "BAD: " + report.problem);
}

void PrintReport(const std::string &directory, const BankReport &bank) {
    fmt::print("{} as {}: {}\n", directory, bank.directory, bank.good() ? "good" : "BAD");
    for (const std::string &problem : bank.problems) fmt::print("  {}\n", problem);
    PrintDescriptor(bank.descriptor);
    PrintRecords(bank.records);
    fmt::print("\nThe bootloader\n");
    for (const std::string &action : bank.actions) fmt::print("  {}\n", action);
}

// Where the bank is to stand on the board: as asked for, or by the directory's own name.
std::string BoardDirectory(const CheckCall &call) {
    const fs::path named = fs::absolute(fs::path(call.directory) / "").lexically_normal().parent_path().filename();
    const std::string name = call.as.empty() ? named.string() : call.as;
    for (const char *directory : kBankDirectories)
        if (std::string(directory).ends_with("/" + name + "/")) return directory;
    return kBankDirectories[0];
}

int Check(const CheckCall &call) {
    const BankReport bank = ExamineBank(call.directory, BoardDirectory(call));
    if (call.json)
        fmt::print("{}\n", Dump(ToJson(call.directory, bank)));
    else
        PrintReport(call.directory, bank);
    return bank.good() ? 0 : 1;
}

void AddBuild(CLI::App &bank, int &exit_status) {
    auto call = std::make_shared<BuildCall>();
    CLI::App *build = bank.add_subcommand("build", "Make a bank directory from firmware files");
    build->add_option("OUT", call->out, "directory to write; an older bank there is replaced")->required();
    build->add_option("--app", call->application, "main application, flat or ELF")->required();
    build->add_option("--app-version", call->application_version, "1 to 16 characters")->required();
    build->add_option("--bootloader", call->bootloader, "bootloader; wrapped where it is not a stored image")
        ->required();
    build->add_option("--bootloader-version", call->bootloader_version, "1 to 16 characters")->required();
    CLI::Option *rescue = build->add_option("--rescue", call->rescue, "rescue image; wrapped likewise");
    CLI::Option *version = build->add_option("--rescue-version", call->rescue_version, "1 to 16 characters");
    rescue->needs(version);
    version->needs(rescue);
    build->add_option("--extra", call->extras, "further files, as they are");
    call->chips.add_options(
        *build->add_option_group("Board", "the chips that warnings speak of; new ones where none are named"));
    build->add_flag("--json", call->json, "report as one JSON object");
    build->callback([call, &exit_status] { exit_status = Build(*call); });
}

void AddCheck(CLI::App &bank, int &exit_status) {
    auto call = std::make_shared<CheckCall>();
    CLI::App *check = bank.add_subcommand("check", "Verify a bank directory and say what a board would do with it");
    check->add_option("DIR", call->directory, "bank directory")->required();
    check->add_option("--as", call->as, "place on the board; by default the directory's own name, or else app")
        ->check(CLI::IsMember({"app", "oldapp", "newapp"}));
    check->add_flag("--json", call->json, "report as one JSON object");
    check->callback([call, &exit_status] { exit_status = Check(*call); });
}

} // namespace

void AddBankCommand(CLI::App &app, int &exit_status) {
    CLI::App *bank = app.add_subcommand("bank", "Banks: directories with one firmware set");
    bank->require_subcommand(1);
    AddBuild(*bank, exit_status);
    AddCheck(*bank, exit_status);
}

} // namespace fixture
