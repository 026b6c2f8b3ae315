#include "tools/chip_files.h"

#include "machine/raw_flash.h"
#include "tools/option_checks.h"

#include <fmt/format.h>

namespace fixture {

namespace {

template <typename Contents> Contents Load(Contents contents, const std::string &file) {
    if (!file.empty()) LoadChip(contents, file);
    return contents;
}

template <typename Parts> ValueCheck OnePart(const Parts &parts, bool none_too) {
    std::vector<std::string> names;
    if (none_too) names.emplace_back("none");
    for (const auto &part : parts) names.emplace_back(part.name);
    return OneOf(std::move(names));
}

} // namespace

void ChipFiles::add_options(Command &command, const std::string &help, bool none_too) {
    command.add_option("--nand", nand, "NAND " + help)->type_name("FILE");
    command.add_option("--dataflash", dataflash, "DataFlash " + help)->type_name("FILE");
    add_part_options(command, none_too);
}

void ChipFiles::add_part_options(Command &command, bool none_too) {
    command
        .add_option("--nand-part", nand_part, "NAND on the board")
        // From the table of models, so that a part added there is offered here.
        ->check(OnePart(NandParts(), none_too))
        ->capture_default_str();
    command.add_option("--dataflash-part", dataflash_part, "DataFlash on the board")
        ->check(OnePart(At45Parts(), none_too))
        ->capture_default_str();
}

const std::map<std::string, Straps> &StrapsByName() {
    static const std::map<std::string, Straps> straps = {
        {"none", {}}, {"12-13", {true, false}}, {"14-18", {false, true}}, {"both", {true, true}}};
    return straps;
}

void RequireDistinct(const std::vector<std::string> &files) {
    for (std::size_t i = 0; i < files.size(); ++i)
        for (std::size_t j = i + 1; j < files.size(); ++j) {
            if (files[i].empty() || files[j].empty()) continue;
            // By name for files that are not there yet, by the file itself for links and mounts.
            std::error_code error;
            if (std::filesystem::weakly_canonical(files[i], error) ==
                    std::filesystem::weakly_canonical(files[j], error) ||
                std::filesystem::equivalent(files[i], files[j], error))
                throw Refusal(Fault::call, {"same-file", files[j], "is named twice", "a file of its own for each"});
        }
}

NandContents LoadNand(const ChipFiles &chips) { return Load(NandContents(FindNandPart(chips.nand_part)), chips.nand); }

At45Contents LoadDataflash(const ChipFiles &chips) {
    return Load(At45Contents(*FindAt45Part(chips.dataflash_part)), chips.dataflash);
}

void ForEachChip(const ChipFiles &chips, const std::function<void(const RawFlash &)> &look) {
    RequireDistinct({chips.nand, chips.dataflash});
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
