// The flash chips of a board as the options of a call name them.
//
//   ChipFiles chips;
//   chips.add_options(*command);
//   ForEachChip(chips, [](const RawFlash &flash) { ExamineFlash(flash); });
#pragma once

#include "fixture/parts/at45.h"
#include "fixture/parts/nand.h"
#include "formats/flash_report.h"

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace fixture {

struct ChipFiles {
    std::string nand; // files; empty: not named
    std::string dataflash;
    std::vector<std::string> parts; // what the files stand for, where it is not the usual

    bool named() const { return !nand.empty() || !dataflash.empty(); }
    // --nand, --dataflash and --part; `exist`: the files have to be there.
    void add_options(CLI::App &command, bool exist = true);
};

// A missing or short file is an erased chip. Throws Refusal for a file that is none of the part.
NandContents LoadNand(const ChipFiles &chips);
At45Contents LoadDataflash(const ChipFiles &chips);

// Calls `look` with each chip that is named; where none is, with a NAND and a DataFlash that are erased.
void ForEachChip(const ChipFiles &chips, const std::function<void(const RawFlash &)> &look);

} // namespace fixture
