#include "PrjDsc.h"

#include "PJFS.h"
#include "XmlElement.h"
#include "XmlExtractor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <kernel.h>

namespace {

constexpr int kEntryCount = 3;
constexpr int kOpenReadWrite = 2;
constexpr std::size_t kPathCapacity = 256;

struct Entry {
    char base_name[257];
    char extension[18]; // always begins with "."
    char version[17];
    std::int32_t valid;
};

struct State {
    Entry entries[kEntryCount];
    char path[kPathCapacity]; // without terminator where it is filled
    XmlElement root;
};

constinit State g_state{};

struct Section {
    int type;
    const char *element;
};

// In the order in which the entries are filled.
constexpr Section kSections[] = {
    {kPrjDscApplication, "MainApplication"},
    {kPrjDscRescue, "RescueApplication"},
    {kPrjDscBootloader, "SecondaryBootloader"},
};

// The descriptor's file in memory.
struct FileText {
    char *buffer;
    std::int32_t length;
};

std::int32_t TextLength(const char *text) { return static_cast<std::int32_t>(std::strlen(text)); }

const XmlElement *Find(const char *element, const char *key) {
    return XmlElement_FindChildElement(&g_state.root, element, TextLength(element), key, TextLength(key));
}

std::size_t ValueLength(const XmlElement *element) {
    return element->value != nullptr ? static_cast<std::size_t>(element->value_length) : 0;
}

// Takes over the value of a section's child, which must exist and fit with its terminator.
template <std::size_t Capacity> bool TakeText(char (&field)[Capacity], const XmlElement *child) {
    if (child == nullptr || ValueLength(child) > Capacity - 1) return false;
    if (ValueLength(child) > 0) std::memcpy(field, child->value, ValueLength(child));
    field[ValueLength(child)] = '\0';
    return true;
}

// The same with a leading "." for a value that has none; the "." takes a place of its own in either case.
bool TakeExtension(char (&field)[18], const XmlElement *child) {
    char text[17];
    if (!TakeText(text, child)) return false;
    const std::size_t length = ValueLength(child);
    const std::size_t dot = length > 0 && text[0] == '.' ? 0 : 1;
    field[0] = '.';
    std::memcpy(field + dot, text, length + 1);
    return true;
}

// Ends at the first part that is missing or too long; the entry is then not valid, and what came before stays.
void FillEntry(Entry *entry, const char *element) {
    if (!TakeText(entry->base_name, Find(element, "BaseFileName"))) return;
    if (!TakeExtension(entry->extension, Find(element, "BaseFileExtension"))) return;
    if (!TakeText(entry->version, Find(element, "Version"))) return;
    entry->valid = 1;
}

// Reads the file into its buffer. What a short read leaves out is zeros.
ssize_t ReadText(int file, FileText text) {
    if (text.buffer == nullptr && text.length > 0) {
        errno = ENOMEM;
        return -1;
    }
    const auto length = static_cast<std::size_t>(text.length);
    const ssize_t count = read(file, text.buffer, length);
    const auto filled = static_cast<std::size_t>(count);
    if (count >= 0 && filled < length) std::memset(text.buffer + filled, 0, length - filled);
    return count;
}

// Reads the descriptor. Neither the size query nor the open is checked: the read fails after them, and says why.
bool ReadFile(FileText *text) {
    char path[kPathCapacity + 1] = {};
    std::memcpy(path, g_state.path, kPathCapacity);
    const std::int32_t size = PJFS_FileSize(path);
    text->length = size > 0 ? size : 0;
    const int file = open(path, kOpenReadWrite);
    if (size > 0) text->buffer = static_cast<char *>(std::malloc(static_cast<std::size_t>(size)));
    const bool good = ReadText(file, *text) >= 0;
    if (!good) std::printf("\tFatal Error : read file failed with errno=%i", errno);
    if (file >= 0) close(file);
    if (!good) std::free(text->buffer);
    return good;
}

} // namespace

void PrjDsc_SetPathFilename(const char *path) {
    const void *end = std::memchr(path, '\0', kPathCapacity);
    const std::size_t length = end != nullptr ? std::strlen(path) : kPathCapacity;
    std::memset(g_state.path, 0, kPathCapacity);
    std::memcpy(g_state.path, path, length);
}

int PrjDsc_Parse(void) {
    std::memset(g_state.entries, 0, sizeof g_state.entries);
    XmlElement *root = XmlElement_SetupRoot(&g_state.root, "Root", 4);
    FileText text{};
    if (!ReadFile(&text)) return -1;
    root->value = text.buffer;
    root->value_length = text.length; // Kept: the size asked for, not the count read.
    // Kept: a text without an element stays allocated.
    if (XmlExtractor_Parse(root) == 0) return -1;
    for (const Section &section : kSections) FillEntry(&g_state.entries[section.type], section.element);
    XmlElement_Clean(root);
    const bool complete = g_state.entries[kPrjDscBootloader].valid && g_state.entries[kPrjDscApplication].valid;
    return complete ? 0 : -1;
}

int PrjDsc_GetFileType(const char *path) {
    for (int type = 0; type < kEntryCount; ++type) {
        const Entry &entry = g_state.entries[type];
        if (entry.valid && std::strstr(path, entry.extension) != nullptr &&
            std::strstr(path, entry.base_name) != nullptr)
            return type;
    }
    return kPrjDscNone;
}

const char *PrjDsc_GetVersion(int type) { return g_state.entries[type].version; }
