#include "PJFS.h"

#include <bootloader.h>
#include <cstdio>
#include <kernel.h>

constexpr PjfsBackend __ghsentry_pjfs_backends_disk1 = {"i", "FlashDisk1", PJFS_IntegrityIODevDiskInit,
                                                        0,   "WLFSDev0",   {}};
constexpr PjfsClient __ghsentry_pjfs_clients_client = {
    {}, pjfs_working_memory, pjfs_working_memory + kFileServerMemorySize, {}, 100, 4};
constexpr PjfsAutoFormat __ghsentry_pjfs_autoformats_drive1 = {"i", {}, 1, "vol0", 100, {}};

constexpr const PjfsBackend *__ghstable_pjfs_backends[] = {&__ghsentry_pjfs_backends_disk1, nullptr};
constexpr const PjfsClient *__ghstable_pjfs_clients[] = {&__ghsentry_pjfs_clients_client, nullptr};
constexpr const PjfsAutoFormat *__ghstable_pjfs_autoformats[] = {&__ghsentry_pjfs_autoformats_drive1, nullptr};

int PJFS_InitServer() {
    PJFS_Server_RequestResources(__ghstable_pjfs_backends, __ghstable_pjfs_clients);
    PJFS_Server_Configure(0x2000, 0x8000, 1, __ghstable_pjfs_backends, __ghstable_pjfs_clients, 0);
    const int result = PJFS_Server_Run(1);
    if (result != 0) std::printf("PJFS Server : PJFS_Server_Run Failed!!!\n");
    return result;
}

std::int32_t PJFS_FileSize(const char *path) {
    struct stat record = {};
    if (stat(path, &record) < 0) {
        const int reason = errno;
        std::printf("FileSize failed with errno=%i", reason);
        errno = reason;
    }
    return static_cast<std::int32_t>(record.st_size);
}
