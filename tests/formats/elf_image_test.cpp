// The ELF reader: a small executable made here, read back, and the same with every part of it damaged.
#include "formats/elf_image.h"
#include "harness/small_executable.h"
#include "machine/firmware.h"

#include <gmock/gmock.h>

#include <array>

namespace fixture {

namespace {

constexpr std::uint32_t kBase = SmallExecutable::kBase;

TEST(ElfImageTest, GivesSegmentsSymbolsAndPlaces) {
    const ElfImage image = ElfImage::read(SmallExecutable().bytes());
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
    EXPECT_THROW(LoadElf(image, Memory{{{kBase, std::span(ram).first(0x108)}}}), Refusal);
}

TEST(ElfImageTest, RefusesWhatIsNoArmExecutable) {
    const struct {
        void (*damage)(SmallExecutable &);
        const char *refusal;
    } cases[] = {
        {[](SmallExecutable &e) { e.header.e_ident[0] = 0; }, "not an ELF file"},
        {[](SmallExecutable &e) { e.header.e_ident[EI_CLASS] = ELFCLASS64; }, "not a 32-bit little-endian ELF file"},
        {[](SmallExecutable &e) { e.header.e_ident[EI_DATA] = ELFDATA2MSB; }, "not a 32-bit little-endian ELF file"},
        {[](SmallExecutable &e) { e.header.e_machine = EM_X86_64; }, "made for machine 62, not 40 (ARM)"},
        {[](SmallExecutable &e) { e.header.e_type = ET_REL; }, "not a linked executable"},
        {[](SmallExecutable &e) { e.header.e_phnum = 0; }, "nothing to load"},
        {[](SmallExecutable &e) { e.segments[0].p_memsz = 4; }, "segment 0: 4 bytes in memory, 8 in the file"},
        {[](SmallExecutable &e) { e.segments[1].p_memsz = 0xFFFFFFFF; },
         "segment 1: 4294967295 bytes in memory, 0 in the file"},
        {[](SmallExecutable &e) { e.segments[0].p_offset = 0xFFFFFFFC; },
         "segment 0: offset 4294967292 and 8 bytes reach past the end of the file"},
    };
    for (const auto &damaged : cases) {
        SmallExecutable executable;
        damaged.damage(executable);
        EXPECT_THAT([&] { ElfImage::read(executable.bytes()); }, testing::ThrowsMessage<Refusal>(damaged.refusal));
    }
    EXPECT_THROW(ElfImage::read({}), Refusal);
}

// Every byte damaged, every length: refused or read, never out of bounds.
TEST(ElfImageTest, SurvivesDamageAnywhere) {
    constexpr std::array<std::uint8_t, 5> kValues = {0x00, 0x01, 0x7F, 0x80, 0xFF};
    std::vector<std::uint8_t> ram(0x200);
    const SmallExecutable whole;
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
            } catch (const Refusal &) {
            }
        }
    EXPECT_NO_THROW(ElfImage::read(whole.bytes()));
}

} // namespace

} // namespace fixture
