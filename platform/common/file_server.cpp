// Stands in for the file server where it meets the bootloader: it reads the configuration tables as the server would
// and cannot work with wrong ones. The files themselves come from elsewhere.
#include "stand_ins.h"

#include <bootloader.h>
#include <cstring>
#include <kernel.h>

namespace {

constexpr std::uint32_t kWorkingMemory = 294'400;

struct {
    bool resources_requested;
    bool configured;
} constinit g_server = {};

void Require(bool right, const char *what) {
    if (!right) PLATFORM_Refuse("File server", what, kFileServerRefused);
}

bool Same(const char *text, const char *expected) { return text && std::strcmp(text, expected) == 0; }

template <typename T, std::size_t N> bool AllZero(const T (&words)[N]) {
    for (const T word : words)
        if (word != 0) return false;
    return true;
}

// A list of pointers to entries, ended by a null pointer.
template <typename Entry> void RequireOnly(const Entry *const *table, const Entry &entry, const char *what) {
    Require(table && table[0] == &entry && table[1] == nullptr, what);
}

void CheckBackend(const PjfsBackend &entry) {
    Require(Same(entry.drive, "i") && Same(entry.disk, "FlashDisk1"), "wrong drive or disk");
    Require(Same(entry.device, "WLFSDev0"), "no such block device");
    Require(entry.initialise == PJFS_IntegrityIODevDiskInit, "the disk has no initialisation");
    Require(entry.zero1 == 0 && AllZero(entry.zero2), "words of the back-end that must be 0");
}

void CheckClient(const PjfsClient &entry) {
    Require(entry.memory_begin && entry.memory_end - entry.memory_begin == kWorkingMemory, "wrong working memory");
    Require(entry.value1 == 100 && entry.value2 == 4, "wrong client values");
    Require(AllZero(entry.zero1) && AllZero(entry.zero2), "words of the client that must be 0");
}

void CheckAutoFormat(const PjfsAutoFormat &entry) {
    Require(Same(entry.drive, "i") && Same(entry.volume, "vol0"), "wrong volume to create");
    Require(entry.value1 == 1 && entry.value2 == 100, "wrong values of the volume to create");
    Require(AllZero(entry.zero1) && AllZero(entry.zero2), "words of the volume that must be 0");
}

void CheckTables(const PjfsBackend *const *backends, const PjfsClient *const *clients) {
    RequireOnly(backends, __ghsentry_pjfs_backends_disk1, "wrong table of back-ends");
    RequireOnly(clients, __ghsentry_pjfs_clients_client, "wrong table of clients");
}

} // namespace

int PJFS_IntegrityIODevDiskInit() { return 0; }

void PJFS_Server_RequestResources(const PjfsBackend *const *backends, const PjfsClient *const *clients) {
    CheckTables(backends, clients);
    CheckBackend(*backends[0]);
    CheckClient(*clients[0]);
    g_server.resources_requested = true;
}

void PJFS_Server_Configure(std::uint32_t size1, std::uint32_t size2, std::uint32_t count,
                           const PjfsBackend *const *backends, const PjfsClient *const *clients, std::uint32_t zero) {
    Require(g_server.resources_requested, "configured before its resources were requested");
    CheckTables(backends, clients);
    Require(size1 == 0x2000 && size2 == 0x8000 && count == 1 && zero == 0, "wrong sizes");
    g_server.configured = true;
}

int PJFS_Server_Run(int wait) {
    Require(g_server.configured, "started before it was configured");
    Require(wait == 1, "must be waited for");
    RequireOnly(__ghstable_pjfs_autoformats, __ghsentry_pjfs_autoformats_drive1, "wrong table of volumes to create");
    CheckAutoFormat(*__ghstable_pjfs_autoformats[0]);
    if (__ghsentry_pjfs_backends_disk1.initialise() != 0) return -1;
    return PLATFORM_FileServerFails() ? -1 : 0;
}
