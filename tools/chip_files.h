// The chips of a board as the options of a call name them: the same options in every subcommand.
//
//   ChipFiles files;
//   files.add_options(*command);
//   ForEachChip(files, [](const RawFlash &flash) { ExamineFlash(flash); });
//
// A call that changes chips opens them, and stores what has changed with its other outputs:
//
//   OutputFiles outputs;
//   OpenChip<NandContents> nand(chips.nand, files.nand, ChipUse::change, outputs);
//   // the work
//   nand.store();
//   outputs.commit();
#pragma once

#include "fixture/board.h"
#include "formats/flash_report.h"
#include "machine/chip_store.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace fixture {

class Command;

struct ChipFiles {
    std::string nand; // files; empty: not named
    std::string dataflash;
    std::string nand_part = kDefaultNand;
    std::string dataflash_part = kDefaultAt45;

    bool named() const { return !nand.empty() || !dataflash.empty(); }
    // --nand, --nand-part, --dataflash and --dataflash-part. `none_too`: "none" is a part as well.
    void add_options(Command &command, const std::string &help = "chip file", bool none_too = false);
    // --nand-part and --dataflash-part alone.
    void add_part_options(Command &command, bool none_too = false);
};

// The straps that --straps names: none, 12-13, 14-18 or both.
const std::map<std::string, Straps> &StrapsByName();

// Throws Refusal where two of the names lead to one file.
void RequireDistinct(const std::vector<std::string> &files);

// The contents of the chip that is named, or blank ones. They throw Refusal for a file that is none of the part.
NandContents LoadNand(const ChipFiles &chips);
At45Contents LoadDataflash(const ChipFiles &chips);

// Calls `look` with each chip that is named; where none is, with a NAND and a DataFlash that are erased.
void ForEachChip(const ChipFiles &chips, const std::function<void(const RawFlash &)> &look);

enum class ChipUse {
    look,   // the file stays as it is
    change, // and must be there
    create, // and may be made
};

// A chip whose contents are in a file, held against other processes while it may change.
template <typename Contents> class OpenChip {
public:
    // Loads the contents. Throws Refusal for a missing or wrong file, for one that another process changes, and where
    // it could not be written.
    OpenChip(Contents &contents, std::string file, ChipUse use, OutputFiles &outputs)
        : contents_(contents), file_(std::move(file)), outputs_(outputs) {
        if (use != ChipUse::look) lock_.emplace(file_);
        std::error_code error;
        fresh_ = use == ChipUse::create && !std::filesystem::exists(std::filesystem::symlink_status(file_, error));
        if (use == ChipUse::change && !std::filesystem::exists(file_, error))
            throw Refusal(Fault::unreadable,
                          {"missing", file_, "no such file", "a chip file, or --create to make one"});
        if (!fresh_) layout_ = LoadChip(contents_, file_);
        if (use != ChipUse::look) output_ = &outputs_.add(file_);
        before_.emplace(contents_);
    }
    // Writes a chip that has changed, or that had no file, among the outputs.
    void store() {
        if (!output_) return;
        if (!fresh_ && contents_ == *before_)
            outputs_.drop(*output_);
        else
            output_->write(ChipBytesOf(contents_, layout_, file_));
    }
    const ChipFileLayout &layout() const { return layout_; }

private:
    Contents &contents_;
    std::string file_;
    OutputFiles &outputs_;
    std::optional<FileLock> lock_;
    bool fresh_ = false;
    ChipFileLayout layout_;
    std::optional<Contents> before_;
    OutputFile *output_ = nullptr;
};

} // namespace fixture
