// What the file server is configured with. The bootloader provides one entry of each kind (<bootloader.h>); the server
// reads them when it comes up.
#pragma once

#include <cstdint>

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
