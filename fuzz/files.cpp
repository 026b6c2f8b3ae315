// Files that only the `fixture` command reads: chip files, ELF executables, and texts.
#include "fixture/parts/nand.h"
#include "formats/elf_image.h"
#include "fuzz/targets.h"
#include "harness/command.h"
#include "harness/small_executable.h"
#include "machine/chip_store.h"
#include "machine/firmware.h"
#include "machine/vcd.h"
#include "sweep/case.h"
#include "tools/commands.h"

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

// An executable with some of its words changed, headers and tables among them; then longer or shorter.
Bytes MakeElf(Shape &shape) {
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return *whole;
    const SmallExecutable executable;
    Bytes file(executable.bytes().begin(), executable.bytes().end());
    const auto length = static_cast<std::uint32_t>(file.size());
    for (unsigned words = shape.below(4); words > 0; --words) {
        const std::uint32_t at = 4 * shape.below(length / 4);
        Put32(file, at, shape.pick({shape.number(), file[at] - 1u, file[at] + 1u, length - file[at]}));
    }
    file.resize(shape.one_in(8) ? shape.below(length + 1) : length + shape.below(64));
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
