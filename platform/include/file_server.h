// The file server's configuration tables and set-up calls.
//
// The bootloader provides the tables; the platform reads them by name when it brings the server up. Each table is a
// list of pointers to entries, ended by a null pointer. Every object here is constant-initialised.
#pragma once

#include <cstdint>

extern "C" {

// Brings up the disk behind a back-end; the server alone looks at the result. Provided by the platform.
int PJFS_IntegrityIODevDiskInit(void);

struct PjfsBackend {
    const char *drive;       // drive letter
    const char *disk;        // name of the disk
    int (*initialise)(void); // called by the server when it opens the disk
    std::uint32_t zero1;
    const char *device; // block device that carries the disk: flash-layer instance 0
    std::uint32_t zero2[4];
};

struct PjfsClient {
    std::uint32_t zero1[3];
    std::uint8_t *memory_begin; // the server's working memory
    std::uint8_t *memory_end;
    std::uint32_t zero2[2];
    std::uint32_t value1; // passed as it stands: 100
    std::uint32_t value2; // passed as it stands: 4
};

struct PjfsAutoFormat {
    const char *drive;
    std::uint32_t zero1[2];
    std::uint32_t value1; // passed as it stands: 1
    const char *volume;   // created when the disk holds none
    std::uint32_t value2; // passed as it stands: 100
    std::uint32_t zero2[4];
};

// Provided by the bootloader.
extern const PjfsBackend __ghsentry_pjfs_backends_disk1;
extern const PjfsClient __ghsentry_pjfs_clients_client;
extern const PjfsAutoFormat __ghsentry_pjfs_autoformats_drive1;
extern const PjfsBackend *const __ghstable_pjfs_backends[];
extern const PjfsClient *const __ghstable_pjfs_clients[];
extern const PjfsAutoFormat *const __ghstable_pjfs_autoformats[];

// Provided by the platform; called in this order. The bootloader configures the server with 0x2000, 0x8000, 1 and a
// last 0, whose meaning is the server's own, and has it started with `wait` 1. PJFS_Server_Run returns 0 when it is up.
void PJFS_Server_RequestResources(const PjfsBackend *const *backends, const PjfsClient *const *clients);
void PJFS_Server_Configure(std::uint32_t size1, std::uint32_t size2, std::uint32_t count,
                           const PjfsBackend *const *backends, const PjfsClient *const *clients, std::uint32_t zero);
int PJFS_Server_Run(int wait);

} // extern "C"
