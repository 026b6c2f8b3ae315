#include "formats/bank_check.h"

#include "formats/board_volume.h"
#include "formats/stored_image.h"
#include "formats/warning_ids.h"

#include <algorithm>
#include <cassert>
#include <fmt/format.h>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr std::uintmax_t kLargestDescriptor = (4u << 20) - 1; // it and its end in the bootloader's heap

// A file of the bank, never one outside it; none for anything that is not a regular file.
std::optional<fs::path> FindFile(const fs::path &directory, const std::string &relative) {
    // Not even where it stays inside: the board's volume serves no such path (FindOnVolume).
    for (const fs::path &part : fs::path(relative))
        if (part == "..") return std::nullopt;
    std::error_code error;
    // Links are resolved on both sides: a file from elsewhere will be missing where the bank is copied to.
    const fs::path root = fs::canonical(directory, error);
    const fs::path file = fs::canonical(directory / fs::path(relative).relative_path(), error);
    if (error || !fs::is_regular_file(file, error)) return std::nullopt;
    const auto ends = std::mismatch(root.begin(), root.end(), file.begin(), file.end());
    if (ends.first != root.end()) return std::nullopt;
    return file;
}

void AddProblem(BankReport &bank, const char *id, const std::string &where, const std::string &found,
                const std::string &expected = "") {
    bank.problems.push_back({id, where, found, expected});
}

// The bytes of one of the bank's own two texts; none, with a problem noted, where it cannot be read.
std::optional<Bytes> ReadText(const fs::path &directory, const char *name, std::uintmax_t most, BankReport &bank) {
    const std::optional<fs::path> file = FindFile(directory, name);
    if (!file) {
        AddProblem(bank, "missing", name, "no such file");
        return std::nullopt;
    }
    // A text that cannot be read is a finding like any other, not the end of the call: one report names all that is
    // wrong.
    try {
        return ReadFile(*file, most);
    } catch (const Refusal &refusal) {
        AddProblem(bank, refusal.problem().id.c_str(), name, refusal.problem().found, refusal.problem().expected);
    }
    return std::nullopt;
}

// Why an image is not stored, slots apart. A rescue image may be of any maker.
std::string StoreFailure(FileRole role, const ImageReport &image) {
    const bool any_maker = role == FileRole::rescue;
    if (any_maker ? image.image.sums_agree() : image.image.sums_agree() && image.image.maker) return "";
    for (const ImageField &field : image.fields)
        if (!field.valid && !(any_maker && field.name == "maker"))
            return fmt::format("{} {}; expected {}", field.name, field.value, field.expected);
    return "no stored image";
}

void WarnOfImage(BankReport &bank, const RecordReport &report, const StoredImage &image, const BoardView &board) {
    const auto warn = [&](WarningId id, std::string text) {
        bank.warnings.push_back({id, report.record.path, std::move(text), ""});
    };
    const std::string &version = bank.version(report.role);
    if (report.role == FileRole::rescue && !image.maker)
        warn("foreign-maker",
             "has another maker's text; the bootloader stores it, and the first stage starts it at its "
             "header instead of after it");
    // A header alone is left out: it is of no build, and ExamineImageFile has named it as the problem that it is.
    if (report.role == FileRole::bootloader && board.version_of && !report.calls_itself &&
        image.size > kImageHeaderBytes)
        warn("unknown-build", "it matches no build known here, so nobody can say whether it starts");
    // The running version comes out of the image, the wanted one out of the descriptor. While they differ, every start
    // stores the image and resets before it comes to the application.
    if (report.calls_itself && *report.calls_itself != version)
        warn("resets-for-ever", fmt::format("is version {}, not {}; a board stores it, resets at every start and never "
                                            "launches the application",
                                            *report.calls_itself, version));
    for (const RawFlash &flash : board.chips) {
        const Problems holes = report.role == FileRole::rescue ? WarningsOfRescue(flash, image.size, version)
                                                               : WarningsOfBootloader(flash, image.size);
        for (const Problem &hole : holes)
            bank.warnings.push_back({hole.id, report.record.path,
                                     fmt::format("on {}: {}: {}", NameOf(flash.medium), hole.where, hole.found), ""});
    }
}

void ExamineImageFile(BankReport &bank, RecordReport &report, const Bytes &bytes, const BoardView &board) {
    const ImageReport image = ExamineImage(bytes);
    report.image_size = image.image.size;
    report.problem = StoreFailure(report.role, image);
    report.storable = report.problem.empty();
    if (!report.storable) return;
    // It stays storable: header and sums are right, so a board does store it.
    if (image.image.size == kImageHeaderBytes)
        report.problem = "a header alone, with nothing to start: a board that stores it is lost";
    const auto body = std::span(image.image.bytes).subspan(kImageHeaderBytes);
    report.image_sums = image.image.stored;
    if (report.role == FileRole::bootloader && board.version_of) report.calls_itself = board.version_of(body);
    WarnOfImage(bank, report, image.image, board);
}

void ExamineApplication(BankReport &bank, RecordReport &report, const Bytes &bytes) {
    if (bytes.empty()) report.problem = "0 bytes; expected an application";
    // A warning and no problem: the board launches it, and loses only what the marker covers.
    if (bytes.size() > kLargestApplication)
        bank.warnings.push_back({WarningId("launch-marker-overlap"), report.record.path,
                                 fmt::format("{} bytes: the bootloader launches it, but the launch marker is written "
                                             "over what lies from byte {} on",
                                             bytes.size(), kLargestApplication),
                                 ""});
}

RecordReport ExamineRecord(BankReport &bank, const fs::path &directory, const ManifestRecord &record, FileRole role,
                           const BoardView &board) {
    RecordReport report;
    report.record = record;
    report.role = role;
    const FileCheck check = CheckFile(FindFile(directory, record.path), record.size, record.sum);
    report.problem = check.problem;
    report.passes = report.problem.empty();
    if (!report.passes) return report;
    if (role == FileRole::application) ExamineApplication(bank, report, check.content);
    if (role == FileRole::bootloader || role == FileRole::rescue) ExamineImageFile(bank, report, check.content, board);
    return report;
}

FileRole RoleOf(const BankReport &bank, const ManifestRecord &record) {
    const std::string path = bank.directory + record.path;
    // The board skips a record whose path does not fit its buffer, and one outside bin/, before it asks for a role.
    if (path.size() > kLongestPath || record.path.find(kFileDirectory) == std::string::npos) return FileRole::none;
    return bank.descriptor.role_of(path);
}

std::string At(std::size_t offset) { return fmt::format("{}: offset {}", kManifestName, offset); }

void ExamineRecords(const fs::path &directory, const Manifest &manifest, BankReport &bank, const BoardView &board) {
    for (const ManifestRecord &record : manifest.records) {
        if (record.rejects) {
            bank.rejected = true;
            // What follows is examined all the same: who ships the bank wants to know all of it, not where a board
            // stops.
            AddProblem(bank, "bad-path", At(record.offset + 24),
                       "a path of nothing but \"/\", \"\\\" and \".\"; the bootloader rejects the bank there");
        }
        // The board never looks at line ends. But a line without its own is likely one byte short, and then every later
        // record is read from the wrong place: length alone tells records apart.
        if (!record.line_end)
            AddProblem(bank, "no-line-end", At(record.offset + 280), "no line end", "carriage return and line feed");
        // Not a file for the board either: an empty path has no bin/ in it.
        if (record.path.empty()) continue;
        bank.records.push_back(ExamineRecord(bank, directory, record, RoleOf(bank, record), board));
        if (const RecordReport &report = bank.records.back(); !report.problem.empty())
            AddProblem(bank, "bad-file", record.path, report.problem);
    }
    if (manifest.left_over > 0)
        AddProblem(bank, "short-record", kManifestName,
                   fmt::format("{} bytes after the last whole record, which are dropped", manifest.left_over),
                   "records of 282 bytes");
}

void TellUpdate(BankReport &bank, FileRole role, const char *otherwise) {
    const RecordReport *file = bank.listed(role);
    if (!file) return;
    const std::string version = Escaped(bank.version(role)), path = Escaped(file->record.path);
    bank.actions.push_back(file->storable
                               ? fmt::format("stores {} {} from {}{}", NameOf(role), version, path, otherwise)
                               : fmt::format("does not store the {}: {}: {}", NameOf(role), path, file->problem));
}

void TellLaunch(BankReport &bank) {
    const RecordReport *application = bank.listed(FileRole::application);
    assert(application && "a bank that lists none is done with before");
    const std::string path = Escaped(application->record.path);
    // An empty file passes by size and sum, and leaves another file's bytes in the load buffer. So the board does not
    // launch it.
    bank.launches = application->passes && application->record.size > 0;
    bank.actions.push_back(bank.launches ? fmt::format("launches {} ({} bytes)", path, application->record.size)
                                         : fmt::format("does not launch {}: {}", path, application->problem));
}

// The bootloader's order: rescue image, bootloader, application.
void TellActions(BankReport &bank) {
    if (bank.rejected) {
        bank.actions.emplace_back("rejects the bank and tries the next");
        return;
    }
    // Before the roles are asked for: a bank that cannot be launched refreshes the rescue image all the same.
    TellUpdate(bank, FileRole::rescue, ", unless the board's version record names it already");
    for (const FileRole role : {FileRole::bootloader, FileRole::application}) {
        if (bank.listed(role)) continue;
        AddProblem(bank, "not-listed", kManifestName, fmt::format("no record for the {}", NameOf(role)));
        bank.actions.emplace_back("launches nothing from the bank and tries the next");
        return;
    }
    TellUpdate(bank, FileRole::bootloader, " and resets, unless that version is running already");
    TellLaunch(bank);
}

void RequireDirectory(const fs::path &directory) {
    std::error_code error;
    const fs::file_status status = fs::status(directory, error);
    if (!fs::exists(status)) throw Refusal(Fault::unreadable, {"missing", directory.string(), "no such directory", ""});
    if (!fs::is_directory(status))
        throw Refusal(Fault::unreadable, {"not-a-directory", directory.string(), "not a directory", "a directory"});
}

} // namespace

const RecordReport *BankReport::listed(FileRole role) const {
    // The board keeps one record a role, and each that it meets overwrites the one before.
    const auto found = std::find_if(records.rbegin(), records.rend(),
                                    [role](const RecordReport &record) { return record.role == role; });
    return found == records.rend() ? nullptr : &*found;
}

const std::string &BankReport::version(FileRole role) const {
    return descriptor.entries.at(static_cast<std::size_t>(role)).version;
}

BankReport ExamineBank(const fs::path &directory, const std::string &board_directory, const BoardView &board) {
    RequireDirectory(directory);
    BankReport bank;
    bank.directory = board_directory;
    const std::optional<Bytes> descriptor = ReadText(directory, kDescriptorName, kLargestDescriptor, bank);
    if (descriptor) {
        bank.descriptor = ReadDescriptor(*descriptor);
        if (!bank.descriptor.problem.empty())
            AddProblem(bank, "bad-descriptor", kDescriptorName, bank.descriptor.problem);
    }
    // Read even if the descriptor is bad, so that one report tells of both files. Without roles its records have none.
    // No limit: the board takes one record at a time, so no manifest is too long for it.
    const std::optional<Bytes> text = ReadText(directory, kManifestName, UINTMAX_MAX, bank);
    const Manifest manifest = ReadManifest(text.value_or(Bytes{}));
    if (text && !manifest.has_headings)
        AddProblem(bank, "no-headings", kManifestName, "the two 282-byte heading records are missing or cut short");
    bank.rejected = !descriptor || !bank.descriptor.problem.empty() || !manifest.has_headings;
    ExamineRecords(directory, manifest, bank, board);
    TellActions(bank);
    return bank;
}

// --- volumes

namespace {

bool Stores(const Prediction &power_up, std::string_view id) {
    return std::any_of(power_up.steps.begin(), power_up.steps.end(),
                       [id](const BootStep &step) { return id == step.id; });
}

// The version that a bank states for a bootloader, where the image is the one that it carries.
const std::string *VersionInBanks(const std::vector<BankReport> &banks, std::span<const std::uint8_t> body) {
    const ImageSums sums = SumsOf(body);
    for (const BankReport &bank : banks) {
        const RecordReport *const carried = bank.listed(FileRole::bootloader);
        if (carried && carried->storable && carried->image_size == body.size() + kImageHeaderBytes &&
            carried->image_sums == sums)
            return &bank.version(FileRole::bootloader);
    }
    return nullptr;
}

void JudgePowerUps(VolumeReport &volume, const std::string &where) {
    const Prediction &last = volume.power_ups.back();
    if (last.end == BootEnd::loop) {
        for (const BootHazard &hazard : last.hazards)
            if (hazard.id == kBanksFight || hazard.id == kResetsForEver)
                volume.problems.push_back({hazard.id, where, fmt::format("{}; {}", last.reason, hazard.text), ""});
        // The first power-up may well store a rescue image. If the second stores one again, banks take turns.
    } else if (volume.power_ups.size() > 1 && Stores(last, "rescue-stored")) {
        volume.warnings.push_back({WarningId("rescue-rewritten"), where,
                                   "its banks carry different rescue images: the board rewrites the rescue slot at "
                                   "every start, and a power cut then leaves none",
                                   ""});
    }
}

} // namespace

bool VolumeReport::launches() const { return !power_ups.empty() && power_ups.back().end == BootEnd::application; }

bool VolumeReport::good() const {
    return launches() && problems.empty() &&
           std::all_of(banks.begin(), banks.end(), [](const BankReport &bank) { return bank.good(); });
}

VolumeReport ExamineVolume(const fs::path &volume, const BoardView &board, BoardState state) {
    RequireDirectory(volume);
    constexpr std::string_view kRoot = "i:/vol0/";
    VolumeReport report;
    for (const std::string_view name : kBankDirectories) {
        const fs::path directory = volume / name.substr(kRoot.size());
        std::error_code error;
        if (fs::is_directory(directory, error))
            report.banks.push_back(ExamineBank(directory, std::string(name), board));
    }
    if (report.banks.empty()) {
        report.problems.push_back({"no-bank", volume.string(), "no bank", "data/app, data/oldapp or data/newapp"});
        return report;
    }
    state.volume = volume;
    state.version_of = [&, own = state.version_of](std::span<const std::uint8_t> body) {
        if (board.version_of)
            // The image's own word goes before the bank's: that the two differ is one of the mistakes looked for.
            if (const std::optional<std::string> known = board.version_of(body)) return *known;
        if (const std::string *const stated = VersionInBanks(report.banks, body)) return *stated;
        return own ? own(body) : std::string();
    };
    report.power_ups.push_back(PredictBoot(state));
    // Only a power-up that came to an end leaves something for another one to begin with.
    const BootEnd end = report.power_ups.front().end;
    if (end == BootEnd::application || end == BootEnd::rescue) {
        Prediction again = PredictBoot(state);
        if (Stores(again, "rescue-stored") || again.end != end) report.power_ups.push_back(std::move(again));
    }
    JudgePowerUps(report, volume.string());
    return report;
}

} // namespace fixture
