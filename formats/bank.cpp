#include "formats/bank.h"

#include "formats/slots.h"
#include "formats/stored_image.h"
#include "formats/xml_subset.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <optional>

namespace fixture {

namespace fs = std::filesystem;

namespace {

// A record: nine digits, " | ", nine digits, " | ", 256 characters of path, carriage return and line feed.
constexpr std::size_t kManifestRecordBytes = 282;
constexpr std::size_t kNumberBytes = 9;
constexpr std::size_t kSumOffset = 12;
constexpr std::size_t kPathOffset = 24;
constexpr std::size_t kPathBytes = 256;
static_assert(kPathOffset + kPathBytes + 2 == kManifestRecordBytes);
constexpr std::size_t kLongestExtension = 16;
constexpr std::size_t kLongestVersion = 16;

struct Section {
    FileRole role;
    const char *element;
    bool required;
};
// In this order the bootloader tries what a file is taken for, so the order decides where two would match.
constexpr Section kSections[] = {
    {FileRole::bootloader, "SecondaryBootloader", true},
    {FileRole::rescue, "RescueApplication", false},
    {FileRole::application, "MainApplication", true},
};

std::string BaseName(const BankFile &file) { return file.source.stem().string(); }
// Without its ".".
std::string Extension(const BankFile &file) {
    const std::string extension = file.source.extension().string();
    return extension.empty() ? extension : extension.substr(1);
}

// --- what a bank must not hold

// The first character that the descriptor or the manifest cannot carry as it is.
// No escapes: the bootloader's reader knows no entities and takes "&lt;" for four characters.
std::optional<char> BadCharacter(std::string_view text) {
    const auto bad =
        std::find_if(text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E || c == '<' || c == '>'; });
    return bad == text.end() ? std::nullopt : std::optional<char>(*bad);
}

void CheckText(const fs::path &file, const char *what, std::string_view text) {
    if (const std::optional<char> bad = BadCharacter(text))
        throw Refusal(file, fmt::format("byte 0x{:02X} in its {}", static_cast<unsigned char>(*bad), what),
                      "printable ASCII without \"<\" and \">\"");
    // The manifest pads with blanks, and reading it takes them away again.
    if (text.ends_with(' ')) throw Refusal(file, fmt::format("its {} ends in a blank", what), "another character");
}

void CheckName(const BankFile &file) {
    CheckText(file.source, "name", file.name());
    std::size_t longest = 0;
    // The same bank may be copied to any of the three places, so the longest one counts.
    for (const std::string_view directory : kBankDirectories) longest = std::max(longest, directory.size());
    const std::size_t room = kLongestPath - longest;
    if (file.path().size() > room)
        throw Refusal(file.source, fmt::format("its path in the bank has {} characters", file.path().size()),
                      fmt::format("at most {}", room));
    if (file.role == FileRole::none) return;
    // Role and extension are matched as texts within a path; an empty extension would match every path.
    const std::size_t length = Extension(file).size();
    if (length == 0 || length > kLongestExtension)
        throw Refusal(file.source, fmt::format("an extension of {} characters", length),
                      fmt::format("1 to {} after the \".\"", kLongestExtension));
}

void CheckVersion(const BankFile &file) {
    if (file.role == FileRole::none) return;
    const std::size_t length = file.version.size();
    if (length == 0 || length > kLongestVersion)
        throw Refusal(file.source, fmt::format("version \"{}\" has {} characters", file.version, length),
                      fmt::format("1 to {}", kLongestVersion));
    CheckText(file.source, "version", file.version);
}

void CheckStoredImage(const BankFile &file) {
    const ImageReport image = ExamineImage(file.bytes);
    if (!image.good()) throw Refusal(file.source, "not a good stored image: " + image.problem());
    std::uint32_t largest = 0;
    for (const SlotFit &slot : image.slots)
        // The largest over both media: one bank serves boards of either kind.
        if (std::string_view(slot.slot).starts_with(NameOf(file.role))) largest = std::max(largest, slot.capacity);
    if (image.image.size > largest)
        throw Refusal(file.source, fmt::format("a stored image of {} bytes", image.image.size),
                      fmt::format("at most {}, the largest {} slot", largest, NameOf(file.role)), "too-large");
    if (image.image.has_no_body())
        throw Refusal(file.source, "a stored image without a body",
                      "something to start: a board that stores it is lost", "no-body");
}

void CheckContent(const BankFile &file) {
    const bool application = file.role == FileRole::application;
    // A bootloader and a rescue image are checked in the load buffer; an application shares it with the launch marker.
    // A file without a role is never opened on the board, so the manifest's columns alone limit it.
    const std::uint32_t most = application                   ? kLargestApplication
                               : file.role == FileRole::none ? kLargestNumber
                                                             : kLoadBufferBytes;
    // An application of 0 bytes passes the bootloader's check and is then not launched.
    const std::uint32_t least = file.role == FileRole::none ? 0 : 1;
    if (file.bytes.size() < least || file.bytes.size() > most)
        throw Refusal(file.source, fmt::format("{} bytes", file.bytes.size()), fmt::format("{} to {}", least, most));
    if (const std::uint32_t sum = ByteSum(file.bytes); sum > kLargestNumber)
        throw Refusal(file.source, fmt::format("byte-sum {}", sum),
                      fmt::format("at most {}, what nine digits hold", kLargestNumber));
    if (file.role == FileRole::bootloader || file.role == FileRole::rescue) CheckStoredImage(file);
}

// The bootloader takes a file for what it finds anywhere in its path: a base name must stand in no other path.
void CheckBaseName(const BankFile &file, const std::vector<BankFile> &files) {
    if (file.role == FileRole::none) return;
    const std::string base = BaseName(file);
    const auto refuse_in = [&](const std::string &path) {
        if (path.find(base) == std::string::npos) return;
        throw Refusal(file.source, fmt::format("its base name \"{}\" occurs in \"{}\"", base, path),
                      fmt::format("a name that only the {} has in its path", NameOf(file.role)));
    };
    // A base name such as "app" occurs in the bank's own directory, and so in the path of every file.
    for (const char *directory : kBankDirectories) refuse_in(std::string(directory) + kFileDirectory);
    for (const BankFile &other : files)
        if (&other != &file) refuse_in(other.path());
}

void CheckUnique(const BankFile &file, const std::vector<BankFile> &files) {
    for (const BankFile &other : files)
        if (&other != &file && other.name() == file.name())
            throw Refusal(file.source, fmt::format("the bank has a \"{}\" already", file.path()), "another name");
}

// --- reading texts as the bootloader does

// At most nine characters: blanks, a sign, digits; anything else ends the number.
std::uint32_t ReadNumber(std::span<const std::uint8_t> column) {
    std::size_t i = 0;
    while (i < column.size() && (column[i] == ' ' || (column[i] >= '\t' && column[i] <= '\r'))) ++i;
    const bool negative = i < column.size() && column[i] == '-';
    if (i < column.size() && (column[i] == '-' || column[i] == '+')) ++i;
    // Nine digits always fit; a sign wraps around, and the bootloader compares sizes as 32 bits too.
    std::uint32_t value = 0;
    for (; i < column.size() && column[i] >= '0' && column[i] <= '9'; ++i)
        value = value * 10 + static_cast<std::uint32_t>(column[i] - '0');
    return negative ? 0 - value : value;
}

bool IsLeading(std::uint8_t c) { return c == '/' || c == '\\' || c == '.'; }
bool IsPadding(char c) { return c == '\n' || c == '\r' || c == ' '; }

std::string CleanPath(std::span<const std::uint8_t> column, bool &rejects) {
    const auto start = std::find_if_not(column.begin(), column.end(), IsLeading);
    rejects = start == column.end();
    std::string path(start, column.end());
    // Kept: padding of either kind goes only where the last character is a line break; else blanks alone do.
    const bool ends_in_break = !path.empty() && path.back() != ' ' && IsPadding(path.back());
    while (!path.empty() && (ends_in_break ? IsPadding(path.back()) : path.back() == ' ')) path.pop_back();
    // The bootloader handles it as a C text from here on.
    return path.substr(0, path.find('\0'));
}

// A section's child by its key; sets the entry's problem where it is missing or longer than allowed.
std::string TakeValue(const XmlSubset &document, const Section &section, std::string_view key, std::size_t longest,
                      DescriptorEntry &entry) {
    if (!entry.problem.empty()) return "";
    const XmlSubset::Element *const child = document.find(section.element, key);
    if (!child) {
        entry.problem = fmt::format("no <{}> in <{}>", key, section.element);
        return "";
    }
    // The board's fields are of fixed length. A longer text is not cut off there: it makes the entry invalid.
    if (child->value.size() > longest)
        entry.problem = fmt::format("<{}> in <{}> has {} bytes; expected at most {}", key, section.element,
                                    child->value.size(), longest);
    return std::string(child->value.substr(0, child->value.find('\0')));
}

DescriptorEntry ReadEntry(const XmlSubset &document, const Section &section) {
    DescriptorEntry entry;
    entry.base_name = TakeValue(document, section, "BaseFileName", 256, entry);
    entry.extension = TakeValue(document, section, "BaseFileExtension", kLongestExtension, entry);
    // Both "bin" and ".bin" are meant by people, and both are taken.
    if (!entry.extension.starts_with('.')) entry.extension.insert(0, ".");
    entry.version = TakeValue(document, section, "Version", kLongestVersion, entry);
    return entry;
}

} // namespace

const char *NameOf(FileRole role) {
    switch (role) {
    case FileRole::bootloader: return "bootloader";
    case FileRole::rescue: return "rescue";
    case FileRole::application: return "application";
    case FileRole::none: break;
    }
    return "other";
}

std::uint32_t ByteSum(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0});
}

void CheckBankFiles(const std::vector<BankFile> &files) {
    for (const BankFile &file : files) {
        // Names before base names: two files of one name would be reported as a base name in the other's path. The
        // content comes last, since only it takes long.
        CheckName(file);
        CheckVersion(file);
        CheckUnique(file, files);
        CheckBaseName(file, files);
        CheckContent(file);
    }
}

std::string MakeDescriptor(const std::vector<BankFile> &files) {
    // Sections stand in the caller's order. The reader looks them up by name, so theirs means nothing to it.
    std::string text = "<?xml version=\"1.0\" encoding=\"US-ASCII\"?>\n<ProjectDescriptor>\n";
    for (const BankFile &file : files)
        for (const Section &section : kSections)
            if (section.role == file.role)
                text += fmt::format("  <{0}>\n    <BaseFileName>{1}</BaseFileName>\n"
                                    "    <BaseFileExtension>{2}</BaseFileExtension>\n"
                                    "    <Version>{3}</Version>\n  </{0}>\n",
                                    section.element, BaseName(file), Extension(file), file.version);
    return text + "</ProjectDescriptor>\n";
}

// The two heading records are read over by their length alone; their words are for people.
std::string MakeManifest(const std::vector<BankFile> &files) {
    // Numbers stand to the right: their reader skips leading blanks. Paths stand to the left: theirs strips trailing
    // ones.
    constexpr const char *kLine = "{:>9} | {:>9} | {:<256}\r\n";
    std::string text = fmt::format("{:<9} | {:<9} | {:<256}\r\n", "size", "byte-sum", "path");
    text += fmt::format("{:-<9}-|-{:-<9}-|-{:-<256}\r\n", "", "", "");
    for (const BankFile &file : files) text += fmt::format(kLine, file.bytes.size(), ByteSum(file.bytes), file.path());
    return text;
}

FileRole Descriptor::role_of(std::string_view path) const {
    for (const Section &section : kSections) {
        const DescriptorEntry &entry = entries[static_cast<std::size_t>(section.role)];
        // Kept: a match anywhere in the path counts, not at its end.
        if (entry.problem.empty() && path.find(entry.extension) != path.npos && path.find(entry.base_name) != path.npos)
            return section.role;
    }
    return FileRole::none;
}

Descriptor ReadDescriptor(std::span<const std::uint8_t> file) {
    const std::string text(file.begin(), file.end());
    const XmlSubset document(text);
    Descriptor descriptor;
    if (document.empty()) descriptor.problem = "no whole XML element";
    // Checked before any entry is: the board gives up while it builds its tree, whatever the tree holds.
    if (document.exhausts_heap()) descriptor.problem = "elements nest beyond what the bootloader's heap holds";
    for (const Section &section : kSections) {
        DescriptorEntry &entry = descriptor.entries[static_cast<std::size_t>(section.role)];
        entry = ReadEntry(document, section);
        // A rescue section may be missing or wrong: the bank is then one without a rescue image.
        if (section.required && descriptor.problem.empty()) descriptor.problem = entry.problem;
    }
    return descriptor;
}

Manifest ReadManifest(std::span<const std::uint8_t> file) {
    Manifest manifest{file.size() >= 2 * kManifestRecordBytes, {}, file.size() % kManifestRecordBytes};
    for (std::size_t offset = 2 * kManifestRecordBytes; offset + kManifestRecordBytes <= file.size();
         offset += kManifestRecordBytes) {
        const std::span<const std::uint8_t> bytes = file.subspan(offset, kManifestRecordBytes);
        ManifestRecord record{};
        record.offset = offset;
        record.size = ReadNumber(bytes.first(kNumberBytes));
        record.sum = ReadNumber(bytes.subspan(kSumOffset, kNumberBytes));
        record.path = CleanPath(bytes.subspan(kPathOffset, kPathBytes), record.rejects);
        record.line_end = bytes[kManifestRecordBytes - 2] == '\r' && bytes[kManifestRecordBytes - 1] == '\n';
        manifest.records.push_back(record);
    }
    return manifest;
}

} // namespace fixture
