// The C library's view of this platform: files through the debugger, standard output on the console, a heap of fixed
// size. The library's open, read, close, stat, printf and malloc end here.
#include "platform.h"
#include "semihosting.h"

#include <cstring>
#include <kernel.h>
#include <memory_map.h>

#undef errno
extern "C" int errno; // the library copies it to where the caller looks

namespace {

using semihosting::Call;

int Fails(int reason) {
    errno = reason;
    return -1;
}

int FailsAsDebuggerSays() { return Fails(Call(semihosting::kErrno, nullptr)); }

// A file that cannot be opened is missing, unless the debugger knows a reason that only an existing one can have.
// Debuggers differ in what they answer for a missing one.
int FailsToOpen() {
    switch (const int reason = Call(semihosting::kErrno, nullptr)) {
    case EACCES:
    case EISDIR:
    case EMFILE:
    case ENFILE:
    case EIO: return Fails(reason);
    default: return Fails(ENOENT);
    }
}

int LengthOf(int handle) {
    const std::int32_t block[] = {handle};
    return Call(semihosting::kFileLength, block);
}

__attribute__((section(".heap"), aligned(4096))) char g_heap[kHeapSize];
constinit std::uint32_t g_heap_used = 0;

} // namespace

extern "C" {

// Only the access in the two low bits counts: nothing is ever created. A file that must not be written is read.
int _open(const char *path, int flags, int) {
    std::int32_t handle = -1;
    if ((flags & 3) != O_RDONLY) handle = semihosting::Open(path, semihosting::kUpdateBinary);
    if (handle < 0) handle = semihosting::Open(path, semihosting::kReadBinary);
    return handle < 0 ? FailsToOpen() : handle;
}

int _read(int handle, char *buffer, int length) {
    if (handle < 0) return Fails(EBADF);
    const std::int32_t block[] = {handle, reinterpret_cast<std::int32_t>(buffer), length};
    const std::int32_t missing = Call(semihosting::kRead, block);
    if (missing < 0 || missing > length) return FailsAsDebuggerSays();
    return length - missing;
}

int _close(int handle) {
    if (handle < 0) return Fails(EBADF);
    const std::int32_t block[] = {handle};
    return Call(semihosting::kClose, block) == 0 ? 0 : FailsAsDebuggerSays();
}

int _stat(const char *path, struct stat *record) {
    const std::int32_t handle = semihosting::Open(path, semihosting::kReadBinary);
    if (handle < 0) return FailsToOpen();
    const std::int32_t length = LengthOf(handle);
    const int failed = length < 0 ? FailsAsDebuggerSays() : 0;
    const std::int32_t block[] = {handle};
    Call(semihosting::kClose, block);
    if (failed) return failed;
    std::memset(record, 0, sizeof *record);
    record->st_mode = S_IFREG | 0444;
    record->st_size = length;
    return 0;
}

int _write(int handle, const char *text, int length) {
    if (handle != STDOUT_FILENO && handle != STDERR_FILENO) return Fails(EBADF);
    for (int i = 0; i < length; ++i) CONSOLE_Put(text[i]);
    return length;
}

// The library asks these about its standard streams only.
int _fstat(int, struct stat *record) {
    std::memset(record, 0, sizeof *record);
    record->st_mode = S_IFCHR;
    return 0;
}
int _isatty(int handle) { return handle <= STDERR_FILENO; }
int _lseek(int, int, int) { return Fails(ESPIPE); }
int _getpid() { return 1; }
int _kill(int, int) { return Fails(EINVAL); }
void _exit(int code) { semihosting::Exit(code); }

// Gives the heap out from its start; it never grows beyond its size and never shrinks.
void *_sbrk(std::ptrdiff_t bytes) {
    if (bytes < 0 || static_cast<std::uint32_t>(bytes) > kHeapSize - g_heap_used) {
        errno = ENOMEM;
        return reinterpret_cast<void *>(-1);
    }
    char *const start = g_heap + g_heap_used;
    g_heap_used += static_cast<std::uint32_t>(bytes);
    return start;
}

} // extern "C"
