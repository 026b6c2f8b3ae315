#include "tools/chip_files.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"

#include <CLI/CLI.hpp>

namespace fixture {

namespace {

// The part that a chip file stands for: the one that was named, or the usual one.
template <typename Part>
const Part *PartOf(const ChipFiles &chips, const Part *(*find)(std::string_view), const char *usual) {
    for (const std::string &name : chips.parts)
        if (const Part *named = find(name)) return named;
    return find(usual);
}

template <typename Contents> Contents Load(Contents contents, const std::string &file) {
    if (!file.empty()) LoadChip(contents, file);
    return contents;
}

std::string UnknownPart(const std::string &name) {
    return FindNandPart(name) || FindAt45Part(name) ? "" : name + ": no such chip";
}

} // namespace

void ChipFiles::add_options(CLI::App &command, bool exist) {
    const std::string help = exist ? " chip file" : " chip file; made, or changed in the named slots only";
    CLI::Option *const files[] = {command.add_option("--nand", nand, "NAND" + help),
                                  command.add_option("--dataflash", dataflash, "DataFlash" + help)};
    if (exist)
        for (CLI::Option *file : files) file->check(CLI::ExistingFile);
    command.add_option("--part", parts, "chip that is fitted, where it is not the usual one")->check(UnknownPart);
}

NandContents LoadNand(const ChipFiles &chips) {
    return Load(NandContents(PartOf(chips, FindNandPart, kDefaultNand)), chips.nand);
}

At45Contents LoadDataflash(const ChipFiles &chips) {
    return Load(At45Contents(*PartOf(chips, FindAt45Part, kDefaultAt45)), chips.dataflash);
}

void ForEachChip(const ChipFiles &chips, const std::function<void(const RawFlash &)> &look) {
    if (!chips.nand.empty() || !chips.named()) {
        NandContents contents = LoadNand(chips);
        look(RawFlashOf(contents));
    }
    if (!chips.dataflash.empty() || !chips.named()) {
        At45Contents contents = LoadDataflash(chips);
        look(RawFlashOf(contents));
    }
}

} // namespace fixture
