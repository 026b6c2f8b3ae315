// What the C library asks of a platform: files out of the image in memory, standard output on the console, a heap.
#include "port.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/stat.h>

#undef errno
extern "C" int errno; // the library copies it to where the caller looks

namespace {

// One file of the image; the table ends with a null name. pack.sh makes it.
struct PackedFile {
    const char *name;
    const char *begin;
    const char *end;
};
extern "C" const PackedFile port_files[];
extern "C" char __heap_begin[], __heap_end[];

constexpr int kFirstHandle = 3; // after the standard streams

struct OpenFile {
    const PackedFile *file;
    std::size_t at;
};
constinit std::array<OpenFile, 8> g_open = {};
constinit char *g_heap = __heap_begin;

int Fails(int reason) {
    errno = reason;
    return -1;
}

const PackedFile *Find(const char *name) {
    for (const PackedFile *file = port_files; file->name; ++file)
        if (std::strcmp(file->name, name) == 0) return file;
    return nullptr;
}

OpenFile *Of(int handle) {
    const auto index = static_cast<std::size_t>(handle - kFirstHandle);
    return handle >= kFirstHandle && index < g_open.size() && g_open[index].file ? &g_open[index] : nullptr;
}

} // namespace

extern "C" {

int _open(const char *name, int, int) {
    const PackedFile *const file = Find(name);
    if (!file) return Fails(ENOENT);
    for (std::size_t i = 0; i < g_open.size(); ++i) {
        if (g_open[i].file) continue;
        g_open[i] = {file, 0};
        return kFirstHandle + static_cast<int>(i);
    }
    return Fails(EMFILE);
}

int _read(int handle, char *buffer, int length) {
    OpenFile *const open = Of(handle);
    if (!open || length < 0) return Fails(EBADF);
    const auto left = static_cast<std::size_t>(open->file->end - open->file->begin) - open->at;
    const std::size_t count = static_cast<std::size_t>(length) < left ? static_cast<std::size_t>(length) : left;
    std::memcpy(buffer, open->file->begin + open->at, count);
    open->at += count;
    return static_cast<int>(count);
}

int _close(int handle) {
    OpenFile *const open = Of(handle);
    if (!open) return Fails(EBADF);
    open->file = nullptr;
    return 0;
}

int _stat(const char *name, struct stat *record) {
    const PackedFile *const file = Find(name);
    if (!file) return Fails(ENOENT);
    *record = {};
    record->st_mode = S_IFREG;
    record->st_size = file->end - file->begin;
    return 0;
}

int _write(int, const char *text, int length) {
    for (int i = 0; i < length; ++i) PORT_Put(text[i]);
    return length;
}

int _fstat(int, struct stat *record) {
    *record = {};
    record->st_mode = S_IFCHR;
    return 0;
}
int _isatty(int handle) { return handle < kFirstHandle; }
int _lseek(int, int, int) { return Fails(ESPIPE); }

void *_sbrk(std::ptrdiff_t bytes) {
    if (bytes < 0 || bytes > __heap_end - g_heap) {
        errno = ENOMEM;
        return reinterpret_cast<void *>(-1);
    }
    char *const begin = g_heap;
    g_heap += bytes;
    return begin;
}

} // extern "C"
