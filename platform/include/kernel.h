// What the bootloader calls of the board and its kernel, beside the standard library. What the board calls of the
// bootloader is in <bootloader.h>.
//
// Console output is standard output (printf, fflush). Files are reached by the POSIX calls open, read, close and stat,
// on drive "i", volume "vol0" ("i:/vol0/..."); a failed one returns a negative value and sets errno.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <file_server.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <twi_device.h>
#include <unistd.h>

extern "C" {

// Pauses the caller for at least `microseconds`.
int usleep(__useconds_t microseconds);

// Drains the write buffer, writes back and invalidates the data cache, and invalidates the instruction cache, over
// `length` bytes from `address`, rounded out to whole cache lines.
void ASP_FlushCaches(std::uint32_t address, std::uint32_t length);

// The master clock in Hz.
std::uint32_t GetMasterClock(void);

// Brings the file server up, in this order. It is configured with 0x2000, 0x8000, 1 and a last 0, whose meaning is the
// server's own, and started with `wait` 1. PJFS_Server_Run returns 0 when the server is up.
void PJFS_Server_RequestResources(const PjfsBackend *const *backends, const PjfsClient *const *clients);
void PJFS_Server_Configure(std::uint32_t size1, std::uint32_t size2, std::uint32_t count,
                           const PjfsBackend *const *backends, const PjfsClient *const *clients, std::uint32_t zero);
int PJFS_Server_Run(int wait);

// Brings up the disk of a back-end. The configuration names it; the server alone calls it and looks at the result.
int PJFS_IntegrityIODevDiskInit(void);

// Wakes the task that waits for a request's final status.
void TWI_NotifyWaitingTask(TwiRequest *request);

} // extern "C"
