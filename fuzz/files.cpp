// Files that only the `fixture` command reads: chip files, ELF executables, and texts.
#include "fixture/parts/nand.h"
#include "formats/elf_image.h"
#include "fuzz/targets.h"
#include "harness/command.h"
#include "machine/chip_store.h"
#include "machine/firmware.h"
#include "machine/vcd.h"
#include "sweep/case.h"
#include "tools/commands.h"

#include <elf.h>
#include <stdexcept>

namespace fixture {

namespace {

// A chip file: some bytes, then a run of others, of a length near a page's end or the chip's.
std::filesystem::path ChipFile(Shape &shape, const char *name, std::uint32_t page, std::uint64_t chip) {
    Bytes bytes = shape.bytes(512);
    const std::uint64_t length = shape.pick<std::uint64_t>(
        {bytes.size(), 0, page - 1, page, page + 1, shape.below(8) * page, chip / 64, chip + 1});
    bytes.resize(std::min<std::uint64_t>(length, 1 << 20), shape.pick<std::uint8_t>({0xFF, 0x00}));
    std::filesystem::path file = ScratchFile(name, bytes);
    std::filesystem::resize_file(file, length);
    return file;
}

template <typename Record> void PutRecord(Bytes &file, const Record &record) {
    Append(file, {reinterpret_cast<const std::uint8_t *>(&record), sizeof record});
}

// Headers first, then what they point at: symbols, their names, segments.
Bytes MakeElf(Shape &shape) {
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return *whole;
    const auto wrong = [&](std::uint32_t usual) { return shape.one_in(24) ? shape.number() : usual; };
    const auto half = [&](std::uint32_t usual) { return static_cast<std::uint16_t>(wrong(usual)); };
    const std::uint16_t segments = shape.pick<std::uint16_t>({1, 0, 2, 3});
    const std::uint16_t sections = shape.pick<std::uint16_t>({3, 0, 1, 2});
    const std::uint32_t symbols = shape.below(5);
    const std::string names = std::string("\0main\0$a\0", 9) + shape.text(12);
    Elf32_Ehdr header{};
    constexpr std::uint8_t kIdent[] = {0x7F, 'E', 'L', 'F', ELFCLASS32, ELFDATA2LSB, EV_CURRENT};
    std::copy(std::begin(kIdent), std::end(kIdent), header.e_ident);
    if (shape.one_in(24)) header.e_ident[4 + shape.below(3)] = static_cast<std::uint8_t>(shape.below(4));
    header.e_type = half(ET_EXEC);
    header.e_machine = half(EM_ARM);
    header.e_version = wrong(EV_CURRENT);
    header.e_entry = shape.pick({0x20010000u, 0x20010000u, 0x20010001u, shape.word()});
    header.e_phoff = wrong(sizeof header);
    header.e_shoff = wrong(static_cast<std::uint32_t>(sizeof header + segments * sizeof(Elf32_Phdr)));
    header.e_ehsize = half(sizeof header);
    header.e_phentsize = half(sizeof(Elf32_Phdr));
    header.e_phnum = half(segments);
    header.e_shentsize = half(sizeof(Elf32_Shdr));
    header.e_shnum = half(sections);
    header.e_shstrndx = half(sections ? sections - 1u : 0u);
    const std::uint32_t symbols_at = header.e_shoff + sections * static_cast<std::uint32_t>(sizeof(Elf32_Shdr));
    const auto names_at = static_cast<std::uint32_t>(symbols_at + symbols * sizeof(Elf32_Sym));
    const auto content_at = static_cast<std::uint32_t>(names_at + names.size());
    Bytes file;
    PutRecord(file, header);
    for (unsigned i = 0; i < segments; ++i) {
        const std::uint32_t address =
            i == 0 ? 0x20010000 : shape.pick({0x20010010u, 0x20000000u, 0x24000000u, shape.number()});
        const std::uint32_t bytes = wrong(16);
        PutRecord(file, Elf32_Phdr{wrong(PT_LOAD), wrong(content_at), address, address, bytes,
                                   shape.pick({bytes, bytes + 64, bytes - 1, shape.number()}), 5, 4});
    }
    const auto table = static_cast<std::uint32_t>(symbols * sizeof(Elf32_Sym));
    const Elf32_Shdr tables[] = {
        {},
        {1, wrong(SHT_SYMTAB), 0, 0, wrong(symbols_at), wrong(table), wrong(2), 0, wrong(4), wrong(sizeof(Elf32_Sym))},
        {1, wrong(SHT_STRTAB), 0, 0, wrong(names_at), wrong(static_cast<std::uint32_t>(names.size())), 0, 0, 1, 0},
    };
    for (unsigned i = 0; i < sections; ++i) PutRecord(file, tables[i]);
    for (unsigned i = 0; i < symbols; ++i)
        PutRecord(file, Elf32_Sym{wrong(1), 0x20010000 + 4 * i, 4,
                                  static_cast<unsigned char>(shape.pick({0x12u, 0x02u, 0x11u, shape.below(256)})), 0,
                                  half(1)});
    Append(file, AsBytes(names));
    Append(file, shape.bytes(32));
    file.resize(shape.one_in(8) ? shape.below(static_cast<std::uint32_t>(file.size()) + 1) : file.size() + 16);
    return file;
}

} // namespace

void FuzzChipFiles(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const unsigned which = shape.below(3);
    if (which == 0)
        RunOnFiles(AddFlashCommand,
                   {"flash", "info", "--json", "--nand",
                    ChipFile(shape, "nand", kNandRawPageBytes, std::uint64_t{kNandRows} * kNandRawPageBytes)});
    if (which == 1)
        RunOnFiles(AddFlashCommand,
                   {"flash", "info", "--json", "--dataflash-part", shape.pick({"AT45DB642", "AT45DB161"}),
                    "--dataflash", ChipFile(shape, "dataflash", 1056, 8192 * 1056)});
    if (which == 2) {
        const std::filesystem::path file = ChipFile(shape, "eeprom", 2048, 2048);
        RunOnFiles(AddEepromCommand, {"eeprom", "show", "--json", file});
        RunOnFiles(AddEepromCommand, {"eeprom", "set", file, "9=C0A80001", "0x123="});
    }
}

void FuzzElf(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const Bytes bytes = MakeElf(shape);
    const std::filesystem::path file = ScratchFile("program.elf", bytes);
    RunOnFiles(AddImageCommand, {"image", "wrap", "--json", file, ModuleBoard::volume() / "wrapped"});
    try {
        ReadFirmware(file);
    } catch (const std::runtime_error &error) {
        Require(std::string(error.what()).starts_with(file.string()), error.what());
    }
    try {
        const ElfImage elf = ElfImage::read(bytes);
        elf.place(elf.entry());
        LoadElf(elf, BoardMemory().memory());
    } catch (const Refusal &) { // says what is wrong
    }
}

// What a call or a file has as text: the picture's source, a sweep's case, a list of signals, settings.
void FuzzTexts(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const unsigned which = shape.below(4);
    const Bytes bytes = *shape.whole_in(1);
    const std::string text = AsText(bytes);
    if (which == 0)
        RunOnFiles(AddSplashCommand,
                   {"splash", "decode", ScratchFile("source.cpp", bytes), ModuleBoard::volume() / "decoded.png"});
    if (which == 1)
        if (const std::optional<CaseId> id = ParseCase(text))
            Require(ParseCase(NameOf(*id)).has_value(), "a case's own name is none");
    if (which == 2) try {
            VcdSignals(text);
        } catch (const Refusal &) { // names the signals there are
        }
    if (which == 3) {
        const std::filesystem::path file = ScratchFile("eeprom", Bytes(2048, 0xFF));
        RunCommand(AddEepromCommand, {"eeprom", "set", file, "--", text.substr(0, text.find('\0'))});
    }
}

} // namespace fixture
