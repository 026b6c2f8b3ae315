#include "platform/host/host_kernel.h"
#include "console.h"

#include <kernel.h>
#include <memory_map.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace fixture {

HostKernel g_host_kernel;

namespace {

// The modules' heap: no larger than the board's, and emptied at every start.
std::map<void *, std::size_t> &Allocations() {
    static std::map<void *, std::size_t> record;
    return record;
}
std::size_t g_allocated = 0;

int Fails(long result) {
    errno = static_cast<int>(-result);
    return -1;
}

} // namespace

void ReleaseModuleHeap() {
    for (auto &[block, size] : Allocations()) std::free(block);
    Allocations().clear();
    g_allocated = 0;
}

} // namespace fixture

using fixture::Fails;
using fixture::host_kernel;

extern "C" {

std::uint32_t host_bus_read(std::uint32_t address, unsigned bytes) { return host_kernel().bus->read(address, bytes); }
void host_bus_write(std::uint32_t address, unsigned bytes, std::uint32_t value) {
    host_kernel().bus->write(address, bytes, value);
}

// A turn is two instructions of the board's processor, 5 ns each.
void host_spin(std::uint32_t turns) { host_kernel().clock->advance(turns * (10 * fixture::kNanosecond)); }

int host_open(const char *path, int flags, ...) {
    const bool for_writing = (flags & 3) != 0;
    int handle = host_kernel().volume->open(path, for_writing);
    if (handle < 0 && for_writing) handle = host_kernel().volume->open(path, false);
    return handle < 0 ? Fails(handle) : handle;
}

ssize_t host_read(int handle, void *buffer, std::size_t length) {
    if (handle < 0) return Fails(-EBADF);
    const long count = host_kernel().volume->read(handle, {static_cast<std::uint8_t *>(buffer), length});
    return count < 0 ? Fails(count) : count;
}

int host_close(int handle) {
    const int result = handle < 0 ? -EBADF : host_kernel().volume->close(handle);
    return result < 0 ? Fails(result) : 0;
}

int host_stat(const char *path, struct stat *record) {
    fixture::FileSystem &volume = *host_kernel().volume;
    const int handle = volume.open(path, false);
    if (handle < 0) return Fails(handle);
    record->st_size = volume.size(handle);
    volume.close(handle);
    return 0;
}

int host_usleep(__useconds_t microseconds) {
    host_kernel().clock->advance(microseconds * fixture::kMicrosecond);
    return 0;
}

int host_printf(const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    const std::string copy = length < 0 ? std::string{} : std::string(text, static_cast<std::size_t>(length));
    std::free(text);
    for (const char c : copy) CONSOLE_Put(c);
    return length;
}

int host_puts(const char *text) { return host_printf("%s\n", text); }
int host_putchar(int c) {
    CONSOLE_Put(static_cast<char>(c));
    return c;
}
int host_fflush(std::FILE *) { return 0; }

void *host_malloc(std::size_t bytes) {
    if (bytes > kHeapSize - fixture::g_allocated) return nullptr;
    void *block = std::malloc(bytes ? bytes : 1);
    if (!block) return nullptr;
    std::memset(block, 0xA5, bytes); // the board's heap is not cleared either
    fixture::Allocations()[block] = bytes;
    fixture::g_allocated += bytes;
    return block;
}

void host_free(void *block) {
    const auto found = fixture::Allocations().find(block);
    if (found != fixture::Allocations().end()) {
        fixture::g_allocated -= found->second;
        fixture::Allocations().erase(found);
    }
    std::free(block); // a block that the modules do not own is the sanitizer's to report
}

void ASP_FlushCaches(std::uint32_t address, std::uint32_t length) { host_kernel().cache->clean(address, length); }
std::uint32_t GetMasterClock(void) { return host_kernel().master_clock_hz(); }

} // extern "C"
