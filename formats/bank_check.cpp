#include "formats/bank_check.h"

#include "formats/stored_image.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr std::uintmax_t kLargestText = 4u << 20; // the bootloader's whole heap

// A file of the bank, never one outside it; none for anything that is not a regular file.
fs::path FindFile(const fs::path &directory, const std::string &relative) {
    std::error_code error;
    const fs::path root = fs::canonical(directory, error);
    const fs::path file = fs::canonical(directory / fs::path(relative).relative_path(), error);
    if (error || !fs::is_regular_file(file, error)) return {};
    const auto ends = std::mismatch(root.begin(), root.end(), file.begin(), file.end());
    return ends.first == root.end() ? file : fs::path{};
}

// The bytes of one of the bank's own two texts; empty, with a problem noted, where it cannot be read.
Bytes ReadText(const fs::path &directory, const char *name, std::vector<std::string> &problems) {
    const fs::path file = FindFile(directory, name);
    try {
        if (!file.empty()) return ReadFile(file, kLargestText);
        problems.push_back(fmt::format("{}: no such file", name));
    } catch (const std::exception &error) {
        problems.emplace_back(error.what());
    }
    return {};
}

std::string ContentProblem(FileRole role, const Bytes &bytes) {
    if (role == FileRole::application && bytes.empty()) return "0 bytes; expected an application";
    if (role == FileRole::application && bytes.size() > kLargestApplication)
        return fmt::format("{} bytes; expected at most {}, behind which the launch marker is written", bytes.size(),
                           kLargestApplication);
    return role == FileRole::bootloader || role == FileRole::rescue ? ExamineImage(bytes).problem() : "";
}

std::string FileProblem(const fs::path &directory, const ManifestRecord &record, FileRole role) {
    const fs::path file = FindFile(directory, record.path);
    if (file.empty()) return "no such file in the bank";
    const std::uintmax_t size = fs::file_size(file);
    if (size != record.size) return fmt::format("the file has {} bytes; expected {}", size, record.size);
    if (role != FileRole::none && size > kLoadBufferBytes)
        return fmt::format("{} bytes; expected at most {}, the load buffer", size, kLoadBufferBytes);
    const Bytes bytes = ReadFile(file, kLargestNumber);
    if (ByteSum(bytes) != record.sum)
        return fmt::format("the file's byte-sum is {}; expected {}", ByteSum(bytes), record.sum);
    return ContentProblem(role, bytes);
}

FileRole RoleOf(const BankReport &bank, const ManifestRecord &record) {
    const std::string path = bank.directory + record.path;
    if (path.size() > kLongestPath || record.path.find(kFileDirectory) == std::string::npos) return FileRole::none;
    return bank.descriptor.role_of(path);
}

void ExamineRecords(const fs::path &directory, const Manifest &manifest, BankReport &bank) {
    for (const ManifestRecord &record : manifest.records) {
        const FileRole role = RoleOf(bank, record);
        if (record.rejects)
            bank.problems.push_back(fmt::format("{}: offset {}: a path of nothing but \"/\", \"\\\" and \".\"; "
                                                "the bootloader gives the bank up there",
                                                kManifestName, record.offset + 24));
        if (!record.line_end)
            bank.problems.push_back(fmt::format("{}: offset {}: no line end; expected carriage return and line feed",
                                                kManifestName, record.offset + 280));
        if (!record.path.empty()) bank.records.push_back({record, role, FileProblem(directory, record, role)});
    }
    if (manifest.left_over > 0)
        bank.problems.push_back(fmt::format("{}: {} bytes behind the last whole record of 282, which are dropped",
                                            kManifestName, manifest.left_over));
}

// The record that counts for a role: the last one.
const RecordReport *Listed(const BankReport &bank, FileRole role) {
    const auto found = std::find_if(bank.records.rbegin(), bank.records.rend(),
                                    [role](const RecordReport &record) { return record.role == role; });
    return found == bank.records.rend() ? nullptr : &*found;
}

void TellUpdate(BankReport &bank, FileRole role, const char *otherwise) {
    const RecordReport *file = Listed(bank, role);
    if (!file) return;
    const std::string &version = bank.descriptor.entries[static_cast<std::size_t>(role)].version;
    bank.actions.push_back(
        file->problem.empty()
            ? fmt::format("stores {} {} from {}{}", NameOf(role), version, file->record.path, otherwise)
            : fmt::format("does not store the {}: {}: {}", NameOf(role), file->record.path, file->problem));
}

void TellLaunch(BankReport &bank) {
    const RecordReport *application = Listed(bank, FileRole::application);
    bank.launches = application->problem.empty();
    bank.actions.push_back(
        bank.launches ? fmt::format("launches {} ({} bytes)", application->record.path, application->record.size)
                      : fmt::format("does not launch {}: {}", application->record.path, application->problem));
}

// The bootloader's order: rescue image, bootloader, application.
void TellActions(BankReport &bank, const Manifest &manifest) {
    const bool given_up = std::any_of(manifest.records.begin(), manifest.records.end(),
                                      [](const ManifestRecord &record) { return record.rejects; });
    if (!bank.descriptor.problem.empty() || !manifest.has_headings || given_up) {
        bank.actions.emplace_back("rejects the bank and tries the next");
        return;
    }
    TellUpdate(bank, FileRole::rescue, ", unless the board's version record names it already");
    for (const FileRole role : {FileRole::bootloader, FileRole::application}) {
        if (Listed(bank, role)) continue;
        bank.problems.push_back(fmt::format("{}: no record for the {}", kManifestName, NameOf(role)));
        bank.actions.emplace_back("launches nothing from the bank and tries the next");
        return;
    }
    TellUpdate(bank, FileRole::bootloader, " and resets, unless that version is running already");
    TellLaunch(bank);
}

} // namespace

bool BankReport::good() const {
    return launches && problems.empty() && std::all_of(records.begin(), records.end(), [](const RecordReport &record) {
               return record.problem.empty();
           });
}

BankReport ExamineBank(const fs::path &directory, const std::string &board_directory) {
    if (!fs::is_directory(directory)) throw std::runtime_error(fmt::format("{}: not a directory", directory.string()));
    BankReport bank;
    bank.directory = board_directory;
    bank.descriptor = ReadDescriptor(ReadText(directory, kDescriptorName, bank.problems));
    if (!bank.descriptor.problem.empty())
        bank.problems.push_back(fmt::format("{}: {}", kDescriptorName, bank.descriptor.problem));
    const Manifest manifest = ReadManifest(ReadText(directory, kManifestName, bank.problems));
    if (!manifest.has_headings)
        bank.problems.push_back(fmt::format("{}: no two whole records of headings", kManifestName));
    ExamineRecords(directory, manifest, bank);
    TellActions(bank, manifest);
    return bank;
}

} // namespace fixture
