#include "tools/references.h"

#include "formats/bank_check.h"
#include "formats/stored_image.h"
#include "machine/forecast.h"
#include "tools/commands.h"

#include <fmt/format.h>

namespace fixture {

namespace fs = std::filesystem;

std::vector<ReferenceImage> KnownReferences() {
    const KnownFirmware known(FirmwareDirectory());
    std::vector<ReferenceImage> references;
    for (const Firmware &build : known.all()) {
        const std::string version = VersionText(build);
        // Wrapped, as they lie in a slot: whole slots are compared, header and all.
        references.push_back(
            {"build " + version, FileRole::bootloader, Wrap(build.flat), version, ShellWord(build.file.string())});
    }
    return references;
}

std::vector<ReferenceImage> BankReferences(const fs::path &bank) {
    std::vector<ReferenceImage> references;
    // The place counts for nothing here: content alone is asked for.
    const BankReport report = ExamineBank(bank, kBankDirectories[0]);
    for (const RecordReport &record : report.records) {
        // No slot holds an application: it is launched from the volume.
        if (record.role != FileRole::bootloader && record.role != FileRole::rescue) continue;
        const fs::path file = bank / record.record.path;
        // A chip held against a damaged file would be called damaged itself.
        if (!record.problem.empty()) throw Refusal(file, record.problem, "a good image");
        const std::string &version = report.descriptor.entries[static_cast<std::size_t>(record.role)].version;
        references.push_back({fmt::format("{} {} of {}", NameOf(record.role), version, bank.string()), record.role,
                              ReadStoredImage(file), version, ShellWord(file.string())});
    }
    return references;
}

} // namespace fixture
