#include "harness/small_executable.h"

#include <cstddef>

namespace fixture {

SmallExecutable::SmallExecutable() {
    header = {{ELFMAG0, ELFMAG1, ELFMAG2, ELFMAG3, ELFCLASS32, ELFDATA2LSB, EV_CURRENT},
              ET_EXEC,
              EM_ARM,
              EV_CURRENT,
              kBase,
              offsetof(SmallExecutable, segments),
              offsetof(SmallExecutable, sections),
              0,
              sizeof header,
              sizeof(Elf32_Phdr),
              2,
              sizeof(Elf32_Shdr),
              4,
              2};
    // One segment from the file, and one that a loader has to clear.
    segments[0] = {PT_LOAD, offsetof(SmallExecutable, code), kBase, kBase, 8, 16, PF_X, 4};
    segments[1] = {PT_LOAD, 0, kBase + 0x100, kBase + 0x100, 0, 16, PF_W, 4};
    sections[1] = {0, SHT_SYMTAB, 0, 0, offsetof(SmallExecutable, symbols), sizeof symbols, 2, 1, 4, sizeof(Elf32_Sym)};
    sections[2] = {0, SHT_STRTAB, 0, 0, offsetof(SmallExecutable, names), sizeof names, 0, 0, 1, 0};
    sections[3] = {0, SHT_PROGBITS, SHF_ALLOC, kBase, offsetof(SmallExecutable, code), 8, 0, 0, 4, 0};
    // Of each kind that the reader tells apart: routine, object, and a name without a type.
    symbols[1] = {1, kBase + 4, 4, ELF32_ST_INFO(STB_GLOBAL, STT_FUNC), 0, 3};
    symbols[2] = {6, kBase + 0x100, 4, ELF32_ST_INFO(STB_LOCAL, STT_OBJECT), 0, 3};
    symbols[3] = {13, kBase, 0, ELF32_ST_INFO(STB_LOCAL, STT_NOTYPE), 0, 3};
}

} // namespace fixture
