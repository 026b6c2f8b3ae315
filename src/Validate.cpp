#include "Validate.h"

#include "App.h"
#include "Boot.h"
#include "ImageRecord.h"
#include "Medium.h"
#include "PJFS.h"
#include "PrjDsc.h"
#include "Rescue.h"
#include "Sums.h"
#include "Watchdog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <kernel.h>
#include <memory_map.h>

namespace {

// What a manifest has listed.
struct FoundFlags {
    std::uint8_t appFound;
    std::uint8_t bootFound;
    std::uint8_t rescueFound; // Kept: set once by any bank, it stays set for the rest of the boot.
};
struct State {
    FoundFlags found;
};
State state;

// One line of a manifest. Numbers are decimal text in the first nine characters of their columns.
struct ManifestRecord {
    char size[12];
    char checksum[12];
    char path[256]; // relative to the bank, padded with blanks
    char line_end[2];
};
static_assert(sizeof(ManifestRecord) == 282);
constexpr std::size_t kDigits = 9;
constexpr int kHeaderRecords = 2;

struct PathField {
    char text[sizeof(ManifestRecord::path) + 1]; // the last byte stays 0
};
struct FullPath {
    char text[kPathSize];
};

bool BuildPath(FullPath &path, const char *directory, const char *name) {
    path = {};
    if (std::strlen(directory) + std::strlen(name) >= sizeof path.text) return false;
    std::strcat(path.text, directory);
    std::strcat(path.text, name);
    return true;
}

bool ReadRecord(int file, ManifestRecord &record) {
    record = {};
    return read(file, &record, sizeof record) == static_cast<ssize_t>(sizeof record);
}

std::uint32_t Number(char (&column)[12]) {
    column[kDigits] = '\0';
    return static_cast<std::uint32_t>(std::atoi(column));
}

// Returns the path that the field holds, without its padding and leading separators; null where it holds nothing but
// 256 separators. Kept: a line end is removed from the field's last bytes only, not from before its padding.
const char *CleanPath(PathField &field) {
    constexpr std::size_t kLength = sizeof(ManifestRecord::path);
    for (std::size_t i = kLength; i > 0 && field.text[i - 1] == ' '; --i) field.text[i - 1] = '\0';
    const std::size_t skipped = std::strspn(field.text, "/\\.");
    if (skipped == kLength) return nullptr;
    for (std::size_t i = kLength; i > 0 && field.text[i - 1] != '\0' && std::strchr("\n\r ", field.text[i - 1]); --i)
        field.text[i - 1] = '\0';
    return field.text + skipped;
}

void TakeFile(const char *path, std::uint32_t size, std::uint32_t checksum) {
    switch (PrjDsc_GetFileType(path)) {
    case kPrjDscBootloader:
        Boot_SetPathFilename(path);
        Boot_SetCheckSum(checksum);
        Boot_SetSize(size);
        Boot_SetVersion(PrjDsc_GetVersion(kPrjDscBootloader));
        state.found.bootFound = 1;
        break;
    case kPrjDscRescue:
        Rescue_SetPathFilename(path);
        Rescue_SetCheckSum(checksum);
        Rescue_SetSize(size);
        Rescue_SetVersion(PrjDsc_GetVersion(kPrjDscRescue));
        state.found.rescueFound = 1;
        break;
    case kPrjDscApplication:
        App_SetPathFilename(path);
        App_SetCheckSum(checksum);
        App_SetSize(size);
        state.found.appFound = 1;
        break;
    default: // not ours
        break;
    }
}

// Returns -1 for a record that condemns its bank.
int TakeRecord(const char *bank, ManifestRecord &record) {
    const std::uint32_t size = Number(record.size);
    const std::uint32_t checksum = Number(record.checksum);
    PathField field = {};
    std::memcpy(field.text, record.path, sizeof record.path);
    const char *const name = CleanPath(field);
    if (!name) return -1;
    FullPath path;
    if (BuildPath(path, bank, name) && std::strstr(name, "bin/")) TakeFile(path.text, size, checksum);
    return 0;
}

int ReadManifest(const char *bank) {
    FullPath path;
    if (!BuildPath(path, bank, "BankContent.txt")) return -1;
    const int file = open(path.text, O_RDONLY, 0777);
    if (file < 0) return -1;
    ManifestRecord record;
    for (int i = 0; i < kHeaderRecords; ++i)
        if (!ReadRecord(file, record)) return -1;
    while (ReadRecord(file, record))
        if (TakeRecord(bank, record) != 0) return -1;
    return 0; // Kept: the file stays open, as all files checked here do; every boot ends in a reset or for good.
}

void UpdateRescue(std::uint32_t nand_boot) {
    char record[kRescueVersionSize];
    if (Validate_IsNewRescueVersion(record, nand_boot) != 0) return;
    if (Validate_File(Rescue_GetPathFilename(), Rescue_GetCheckSum(), Rescue_GetSize()) != 0) return;
    const bool stored = Rescue_Store(record, nand_boot) == 0;
    std::printf(stored ? "\tRescue image replaced successfully.\n" : "\tRescue image replace failed.\n");
}

void PrintFileFailed(const char *path, std::uint32_t checksum, std::uint32_t size) {
    std::printf("\tValidate_File(%s, %i, %i) Failed!!!", path, static_cast<int>(checksum), static_cast<int>(size));
}

void UpdateBootloader(std::uint32_t nand_boot) {
    if (Validate_IsNewBootVersion() != 0) return;
    if (Validate_File(Boot_GetPathFilename(), Boot_GetCheckSum(), Boot_GetSize()) != 0) {
        PrintFileFailed(Boot_GetPathFilename(), Boot_GetCheckSum(), Boot_GetSize());
        return;
    }
    const bool stored = Boot_Store(nand_boot) == 0;
    std::printf(stored ? "\tBootloader image replaced successfully.\n" : "\tBootloader image replace failed.\n");
}

// The check comes last of all, since the launch takes the load buffer as the check has left it. An empty file leaves
// another one's bytes there.
int LaunchApplication() {
    const bool good = Validate_File(App_GetPathFilename(), App_GetCheckSum(), App_GetSize()) == 0;
    if (good && App_GetSize() > 0) return App_Load();
    PrintFileFailed(App_GetPathFilename(), App_GetCheckSum(), App_GetSize());
    return -1;
}

} // namespace

int Validate_Bank(const char *bank, std::uint32_t nand_boot) {
    kickWatchdog();
    Rescue_Init();
    App_Init();
    Boot_Init();
    FullPath descriptor;
    const bool fits = BuildPath(descriptor, bank, "ProjectDescriptorFile.xml");
    if (fits) PrjDsc_SetPathFilename(descriptor.text);
    if (!fits || PrjDsc_Parse() != 0) {
        std::printf("error processing project descriptor file\n");
        return -1;
    }
    return Validate_BankContent(bank, nand_boot);
}

int Validate_BankContent(const char *bank, std::uint32_t nand_boot) {
    state.found.appFound = 0;
    state.found.bootFound = 0;
    if (ReadManifest(bank) != 0) return -1;
    if (state.found.rescueFound) UpdateRescue(nand_boot);
    if (!state.found.bootFound || !state.found.appFound) return 0;
    UpdateBootloader(nand_boot);
    return LaunchApplication();
}

int Validate_File(const char *path, std::uint32_t checksum, std::uint32_t size) {
    constexpr int kOpenForCheck = 0x800; // the file system's own flag; its low bits say read-only
    const int file = open(path, kOpenForCheck);
    if (file < 0) return -1;
    if (static_cast<std::uint32_t>(PJFS_FileSize(path)) != size) {
        std::printf("filesize check %i != %i\n", static_cast<int>(size), static_cast<int>(PJFS_FileSize(path)));
        std::fflush(stdout);
        return -1;
    }
    if (size > kLoadBufferSize) return -1;
    if (read(file, image_load_buf, size) != static_cast<ssize_t>(size)) return -1;
    return Sums_Bytes(image_load_buf, size) == checksum ? 0 : -1;
}
