// The file system's side of the bootloader: what the file server is configured with, its start, and file sizes.
//
// The configuration tables are declared in <bootloader.h>; the platform reads them by name. Files are reached through
// the platform's open, read, close and stat on drive "i", volume "vol0" ("i:/vol0/...").
#pragma once

#include <cstdint>

extern "C" {

// The file server's working memory. Its place is the linker script's business: the first part of the zero-initialised
// data, with nothing else inside.
inline constexpr std::uint32_t kFileServerMemorySize = 294400;
extern std::uint8_t pjfs_working_memory[kFileServerMemorySize];

// Configures and starts the file server. Call once, before any file is opened.
// Returns the server's result, 0 when it is up; otherwise prints "PJFS Server : PJFS_Server_Run Failed!!!\n" first.
int PJFS_InitServer(void);

// Returns the file's size in bytes. Where it cannot be told, prints "FileSize failed with errno=%i" (no line end) and
// returns 0; errno stays what the failed query made it. Only opening the file tells an empty file from a missing one.
std::int32_t PJFS_FileSize(const char *path);

} // extern "C"
