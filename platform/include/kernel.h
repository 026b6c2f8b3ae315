// What the bootloader calls on its kernel, beside the standard library: pauses, caches, the master clock, and the
// POSIX file calls on the volume (drive "i", volume "vol0").
//
// Console output is standard output (printf, fflush). A failed file call returns a negative value and sets errno.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

extern "C" {

// Pauses the caller for at least `microseconds`.
int usleep(__useconds_t microseconds);

// Drains the write buffer, writes back and invalidates the data cache, and invalidates the instruction cache, over
// `length` bytes from `address`, rounded out to whole cache lines.
void ASP_FlushCaches(std::uint32_t address, std::uint32_t length);

// The master clock in Hz.
std::uint32_t GetMasterClock(void);

} // extern "C"
