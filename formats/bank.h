// A bank: a directory with one firmware set, as the bootloader expects it.
//
//   ProjectDescriptorFile.xml   which base name, extension and version each firmware file has (ReadDescriptor)
//   BankContent.txt             records of 282 bytes: two headings, then one per file (ReadManifest)
//   bin/                        the files
//
//   record   0  9  size, decimal            12  9  byte-sum, decimal         280  2  carriage return, line feed
//            9  3  separator                21  3  separator
//                                           24 256 path in the bank, padded with blanks
//
// Texts are read here exactly as the bootloader reads them, by separate code: with one reader for both, no test would
// see its mistakes.
#pragma once

#include "formats/file.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// The numbers that the descriptor's entries have in the bootloader.
enum class FileRole : std::uint8_t { bootloader = 0, rescue = 1, application = 2, none = 4 };
const char *NameOf(FileRole role);

inline constexpr const char *kDescriptorName = "ProjectDescriptorFile.xml";
inline constexpr const char *kManifestName = "BankContent.txt";
inline constexpr const char *kFileDirectory = "bin/";

// Where the bootloader looks for banks, in its order.
inline constexpr const char *kBankDirectories[] = {"i:/vol0/data/app/", "i:/vol0/data/oldapp/", "i:/vol0/data/newapp/"};
inline constexpr std::size_t kLongestPath = 255; // bank directory and path, in the bootloader's buffer

inline constexpr std::uint32_t kLoadBufferBytes = 16u << 20;
inline constexpr std::uint32_t kLargestApplication = 0xFFFF00; // after it the launch marker is written
inline constexpr std::uint32_t kLargestNumber = 999999999;     // nine digits

std::uint32_t ByteSum(std::span<const std::uint8_t> bytes);

// --- making a bank

struct BankFile {
    FileRole role;
    std::filesystem::path source; // for messages; its file name is the name in the bank
    std::string version;          // empty for a file without a role
    Bytes bytes;                  // as they go into the bank

    std::string name() const { return source.filename().string(); }
    std::string path() const { return kFileDirectory + name(); }
};

// Throws Refusal for what the formats cannot hold or the bootloader could not launch, store or tell apart.
void CheckBankFiles(const std::vector<BankFile> &files);

std::string MakeDescriptor(const std::vector<BankFile> &files);
std::string MakeManifest(const std::vector<BankFile> &files);

// --- reading one

struct DescriptorEntry {
    std::string base_name;
    std::string extension; // with its leading "."
    std::string version;
    std::string problem; // why the entry is not valid; empty where it is
};

struct Descriptor {
    std::array<DescriptorEntry, 3> entries; // by FileRole
    std::string problem;                    // why the bootloader rejects the bank; empty where it does not

    // What the bootloader takes a file for, by its full path.
    FileRole role_of(std::string_view path) const;
};
Descriptor ReadDescriptor(std::span<const std::uint8_t> file);

struct ManifestRecord {
    std::size_t offset; // in the file
    std::uint32_t size;
    std::uint32_t sum;
    std::string path; // cleaned; empty for a blank field
    bool rejects;     // the field holds nothing but "/", "\" and ".": the bootloader rejects the bank here
    bool line_end;    // closed by carriage return and line feed
};

struct Manifest {
    bool has_headings;                   // both, whole
    std::vector<ManifestRecord> records; // whole ones after the headings
    std::size_t left_over;               // bytes after the last whole record; the bootloader drops them
};
Manifest ReadManifest(std::span<const std::uint8_t> file);

} // namespace fixture
