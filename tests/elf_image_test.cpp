// The ELF reader: a small executable made here, read back, and the same with every part of it damaged.
#include "formats/elf_image.h"
#include "machine/firmware.h"

#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <elf.h>

namespace fixture {

namespace {

constexpr std::uint32_t kBase = 0x20100000;

// Two segments (one only zeros), a routine, an object, and a mapping symbol that is no name.
struct Executable {
    Elf32_Ehdr header{};
    std::array<Elf32_Phdr, 2> segments{};
    std::array<Elf32_Shdr, 4> sections{};
    std::array<Elf32_Sym, 4> symbols{};
    char names[24] = "\0main\0object\0$a";
    std::array<std::uint8_t, 8> code{1, 2, 3, 4, 5, 6, 7, 8};

    Executable() {
        header = {{ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, ELFCLASS32, ELFDATA2LSB, EV_CURRENT},
                  ET_EXEC,
                  EM_ARM,
                  EV_CURRENT,
                  kBase,
                  offsetof(Executable, segments),
                  offsetof(Executable, sections),
                  0,
                  sizeof header,
                  sizeof(Elf32_Phdr),
                  2,
                  sizeof(Elf32_Shdr),
                  4,
                  2};
        segments[0] = {PT_LOAD, offsetof(Executable, code), kBase, kBase, 8, 16, PF_X, 4};
        segments[1] = {PT_LOAD, 0, kBase + 0x100, kBase + 0x100, 0, 16, PF_W, 4};
        sections[1] = {0, SHT_SYMTAB, 0, 0, offsetof(Executable, symbols), sizeof symbols, 2, 1, 4, sizeof(Elf32_Sym)};
        sections[2] = {0, SHT_STRTAB, 0, 0, offsetof(Executable, names), sizeof names, 0, 0, 1, 0};
        sections[3] = {0, SHT_PROGBITS, SHF_ALLOC, kBase, offsetof(Executable, code), 8, 0, 0, 4, 0};
        symbols[1] = {1, kBase + 4, 4, ELF32_ST_INFO(STB_GLOBAL, STT_FUNC), 0, 3};
        symbols[2] = {6, kBase + 0x100, 4, ELF32_ST_INFO(STB_LOCAL, STT_OBJECT), 0, 3};
        symbols[3] = {13, kBase, 0, ELF32_ST_INFO(STB_LOCAL, STT_NOTYPE), 0, 3};
    }
    std::span<const std::uint8_t> bytes() const { return {reinterpret_cast<const std::uint8_t *>(this), sizeof *this}; }
};

TEST(ElfImageTest, GivesSegmentsSymbolsAndPlaces) {
    const ElfImage image = ElfImage::read(Executable().bytes());
    EXPECT_EQ(image.entry(), kBase);
    EXPECT_EQ(image.symbol("main"), kBase + 4);
    EXPECT_EQ(image.symbol("object"), kBase + 0x100);
    EXPECT_FALSE(image.symbol("$a") || image.symbol("other"));
    EXPECT_EQ(image.place(kBase + 6), "main+0x2");
    EXPECT_EQ(image.place(kBase), "0x20100000");
    EXPECT_EQ(image.place(0x30000000), "0x30000000");
    EXPECT_EQ(image.flat(), (std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));

    std::vector<std::uint8_t> ram(0x200, 0xEE);
    LoadElf(image, Memory{{{kBase, ram}}});
    EXPECT_EQ(ram[7], 8);
    EXPECT_EQ(ram[8] + ram[15] + ram[0x10F], 0);
    EXPECT_EQ(ram[16], 0xEE);
    EXPECT_THROW(LoadElf(image, Memory{{{kBase, std::span(ram).first(0x108)}}}), ElfError);
}

TEST(ElfImageTest, RefusesWhatIsNoArmExecutable) {
    const struct {
        void (*damage)(Executable &);
        const char *refusal;
    } cases[] = {
        {[](Executable &e) { e.header.e_ident[0] = 0; }, "not an ELF file"},
        {[](Executable &e) { e.header.e_ident[EI_CLASS] = ELFCLASS64; }, "not a 32-bit little-endian ELF file"},
        {[](Executable &e) { e.header.e_ident[EI_DATA] = ELFDATA2MSB; }, "not a 32-bit little-endian ELF file"},
        {[](Executable &e) { e.header.e_machine = EM_X86_64; }, "made for machine 62, expected 40 (ARM)"},
        {[](Executable &e) { e.header.e_type = ET_REL; }, "not a linked executable"},
        {[](Executable &e) { e.header.e_phnum = 0; }, "nothing to load"},
        {[](Executable &e) { e.segments[0].p_memsz = 4; }, "segment 0: 4 bytes in memory, 8 in the file"},
        {[](Executable &e) { e.segments[1].p_memsz = 0xFFFFFFFF; },
         "segment 1: 4294967295 bytes in memory, 0 in the file"},
        {[](Executable &e) { e.segments[0].p_offset = 0xFFFFFFFC; },
         "segment 0: offset 4294967292 and 8 bytes reach past the end of the file"},
    };
    for (const auto &damaged : cases) {
        Executable executable;
        damaged.damage(executable);
        EXPECT_THAT([&] { ElfImage::read(executable.bytes()); }, testing::ThrowsMessage<ElfError>(damaged.refusal));
    }
    EXPECT_THROW(ElfImage::read({}), ElfError);
    EXPECT_THROW(ElfImage::read_file("no such file"), ElfError);
}

// Every byte damaged, every length: refused or read, never out of bounds.
TEST(ElfImageTest, SurvivesDamageAnywhere) {
    constexpr std::array<std::uint8_t, 5> kValues = {0x00, 0x01, 0x7F, 0x80, 0xFF};
    std::vector<std::uint8_t> ram(0x200);
    const Executable whole;
    for (std::size_t i = 0; i < sizeof whole; ++i)
        for (std::size_t kind = 0; kind <= kValues.size(); ++kind) {
            std::vector<std::uint8_t> file(whole.bytes().begin(), whole.bytes().end());
            if (kind < kValues.size())
                file[i] = kValues[kind];
            else
                file.resize(i);
            try {
                const ElfImage image = ElfImage::read(file);
                image.flat();
                LoadElf(image, Memory{{{kBase, ram}}});
            } catch (const ElfError &) {
            }
        }
    EXPECT_NO_THROW(ElfImage::read(whole.bytes()));
}

} // namespace

} // namespace fixture
