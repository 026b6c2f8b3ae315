#include "formats/elf_image.h"

#include <algorithm>
#include <fmt/format.h>
#include <gelf.h>
#include <iterator>
#include <libelf.h>
#include <memory>

namespace fixture {
namespace {

// As much as the board has memory. A header may claim 4 GB, and nothing is allocated on its word.
constexpr std::uint64_t kLargestSegment = 64u << 20;

struct ElfEnd {
    void operator()(Elf *elf) const { elf_end(elf); }
};
using ElfHandle = std::unique_ptr<Elf, ElfEnd>;

// A file that cannot be loaded: what was found, and what a loader expects.
class Complaint {
public:
    explicit Complaint(const std::filesystem::path &name) : name_(name) {}
    [[noreturn]] void refuse(std::string_view found) const {
        throw Refusal(name_, found, name_.empty() ? "" : "an ELF executable for the ARM or a flat binary", "bad-elf");
    }

private:
    std::filesystem::path name_;
};

ElfHandle OpenExecutable(std::span<const std::uint8_t> file, const Complaint &complaint) {
    // The library demands to be told once; to be told again does no harm.
    elf_version(EV_CURRENT);
    // The library only reads from the memory it is given here.
    auto *bytes = reinterpret_cast<char *>(const_cast<std::uint8_t *>(file.data()));
    ElfHandle elf(file.empty() ? nullptr : elf_memory(bytes, file.size()));
    GElf_Ehdr header;
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF || !gelf_getehdr(elf.get(), &header))
        complaint.refuse("not an ELF file");
    if (gelf_getclass(elf.get()) != ELFCLASS32 || header.e_ident[EI_DATA] != ELFDATA2LSB)
        complaint.refuse("not a 32-bit little-endian ELF file");
    if (header.e_machine != EM_ARM)
        complaint.refuse(fmt::format("made for machine {}, not {} (ARM)", header.e_machine, EM_ARM));
    // An object or a library has no addresses yet.
    if (header.e_type != ET_EXEC) complaint.refuse("not a linked executable");
    return elf;
}

ElfSegment ReadSegment(std::span<const std::uint8_t> file, const GElf_Phdr &segment, std::size_t number,
                       const Complaint &complaint) {
    if (segment.p_memsz > kLargestSegment || segment.p_filesz > segment.p_memsz)
        complaint.refuse(
            fmt::format("segment {}: {} bytes in memory, {} in the file", number, segment.p_memsz, segment.p_filesz));
    // Written as a subtraction: offset and length together may overflow.
    if (segment.p_offset > file.size() || segment.p_filesz > file.size() - segment.p_offset)
        complaint.refuse(fmt::format("segment {}: offset {} and {} bytes reach past the end of the file", number,
                                     segment.p_offset, segment.p_filesz));
    const auto bytes = file.subspan(segment.p_offset, segment.p_filesz);
    // The load address. Where the program runs may differ, and the loader does not care.
    return {static_cast<std::uint32_t>(segment.p_paddr),
            {bytes.begin(), bytes.end()},
            static_cast<std::uint32_t>(segment.p_memsz)};
}

// Calls `take(name, symbol)` for every symbol of the symbol table.
template <typename Take> void EachSymbol(Elf *elf, Take take) {
    for (Elf_Scn *section = nullptr; (section = elf_nextscn(elf, section));) {
        GElf_Shdr header;
        if (!gelf_getshdr(section, &header) || header.sh_type != SHT_SYMTAB || header.sh_entsize == 0) continue;
        Elf_Data *data = elf_getdata(section, nullptr);
        // A damaged header may claim any number of symbols; a bootloader has about a thousand.
        const auto count = data ? std::min<std::uint64_t>(header.sh_size / header.sh_entsize, 1u << 20) : 0;
        for (int i = 0; i < static_cast<int>(count); ++i) {
            GElf_Sym symbol;
            if (!gelf_getsym(data, i, &symbol)) break;
            const char *name = elf_strptr(elf, header.sh_link, symbol.st_name);
            // "$a", "$t" and "$d" mark instruction sets and data; they would hide the routines that they stand in.
            if (name && *name && *name != '$' && symbol.st_shndx != SHN_UNDEF) take(name, symbol);
        }
    }
}

} // namespace

bool IsElf(std::span<const std::uint8_t> file) {
    constexpr std::uint8_t kMagic[] = {0x7F, 'E', 'L', 'F'};
    return file.size() >= sizeof kMagic && std::equal(std::begin(kMagic), std::end(kMagic), file.begin());
}

ElfImage ElfImage::read(std::span<const std::uint8_t> file, const std::filesystem::path &name) {
    const Complaint complaint(name);
    const ElfHandle elf = OpenExecutable(file, complaint);
    ElfImage image;
    // Kept for flat(), which may still have to refuse the file.
    image.name_ = name;
    GElf_Ehdr header;
    gelf_getehdr(elf.get(), &header);
    image.entry_ = static_cast<std::uint32_t>(header.e_entry);
    std::size_t count = 0;
    if (elf_getphdrnum(elf.get(), &count) != 0) complaint.refuse("program headers cannot be read");
    for (std::size_t number = 0; number < count; ++number) {
        GElf_Phdr segment;
        if (!gelf_getphdr(elf.get(), static_cast<int>(number), &segment))
            complaint.refuse(fmt::format("program header {} lies outside the file", number));
        if (segment.p_type == PT_LOAD && segment.p_memsz > 0)
            image.segments_.push_back(ReadSegment(file, segment, number, complaint));
    }
    if (image.segments_.empty()) complaint.refuse("nothing to load");
    EachSymbol(elf.get(), [&](const char *symbol_name, const GElf_Sym &symbol) {
        const auto value = static_cast<std::uint32_t>(symbol.st_value);
        const bool global = GELF_ST_BIND(symbol.st_info) != STB_LOCAL;
        // Of two names alike the global one is meant; locals of several sources may share theirs.
        if (global)
            image.symbols_[symbol_name] = value;
        else
            image.symbols_.emplace(symbol_name, value);
        if (GELF_ST_TYPE(symbol.st_info) == STT_FUNC) image.routines_.emplace(value & ~1u, symbol_name);
    });
    return image;
}

std::optional<std::uint32_t> ElfImage::symbol(const std::string &name) const {
    const auto found = symbols_.find(name);
    if (found == symbols_.end()) return std::nullopt;
    return found->second;
}

std::string ElfImage::place(std::uint32_t address) const {
    const auto after = routines_.upper_bound(address);
    // The last routine has no end in the table, so an address far beyond it must not get its name.
    const bool loaded = std::any_of(segments_.begin(), segments_.end(),
                                    [&](const ElfSegment &s) { return address - s.address < s.bytes.size(); });
    if (after == routines_.begin() || !loaded) return fmt::format("0x{:08X}", address);
    const auto &[start, name] = *std::prev(after);
    return fmt::format("{}+0x{:X}", name, address - start);
}

std::vector<std::uint8_t> ElfImage::flat() const {
    std::uint32_t base = 0xFFFFFFFF;
    for (const ElfSegment &segment : segments_)
        if (!segment.bytes.empty()) base = std::min(base, segment.address);
    std::vector<std::uint8_t> all;
    for (const ElfSegment &segment : segments_) {
        if (segment.bytes.empty()) continue;
        const std::uint64_t offset = segment.address - base;
        // Two small parts at both ends of the address space would make a file of 4 GB.
        if (offset + segment.bytes.size() > kLargestSegment) Complaint(name_).refuse("segments lie too far apart");
        if (all.size() < offset + segment.bytes.size()) all.resize(offset + segment.bytes.size());
        std::copy(segment.bytes.begin(), segment.bytes.end(), all.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    return all;
}

} // namespace fixture
