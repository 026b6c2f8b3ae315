#include "Validate.h"

#include "Boot.h"
#include "ImageRecord.h"
#include "Medium.h"
#include "Rescue.h"
#include "StoredImage.h"

#include <boot_version.h>
#include <cstdio>
#include <cstring>

int Validate_IsNewBootVersion() {
    char running[64];
    std::snprintf(running, sizeof running, "%i.%i.%s", kBootVersionMajor, kBootVersionMinor, kBootVersionBuild);
    char bank[kVersionSize + 1] = {}; // a version of 16 characters has no terminator in its record
    std::memcpy(bank, Boot_GetVersion(), kVersionSize);
    std::printf("Current bootlaoder is: %s\n", running);
    std::printf("Bank bootloader is: %s\n", bank);
    return std::strcmp(running, bank) != 0 ? 0 : -1;
}

int Validate_IsNewRescueVersion(char *record, std::uint32_t nand_boot) {
    std::memset(record, 0, kRescueVersionSize);
    const Medium &medium = *Medium_Of(nand_boot);
    if (medium.read(medium.rescue_version, record, kRescueVersionSize) != 0) return -1;
    // Where the record's NAND block is bad, the read skips on into the first bootloader slot, and so would the write.
    if (std::memcmp(record, OLramWrapper_StringToken, kRescueVersionSize) == 0) return -1;
    if (std::strncmp(record, Rescue_GetVersion(), kRescueVersionSize) == 0) return -1;
    std::memcpy(record, Rescue_GetVersion(), kRescueVersionSize); // zero-padded in its own record
    return 0;
}
static_assert(kVersionSize == kRescueVersionSize);
