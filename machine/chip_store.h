// Chips as files: what survives without power, loaded and saved. The layouts are those of formats/chip_file.h; here
// they meet the contents that a board runs on. Faults are not part of a file.
//
//   const ChipFileLayout layout = LoadChip(chips.nand, "nand.bin");
//   // a board runs on them
//   output.write(ChipBytesOf(chips.nand, layout));                     in the file's own shape
//
// Loading throws Refusal for a file that is missing or cannot be such a chip, with the contents as they were.
#pragma once

#include "fixture/board.h"
#include "formats/chip_file.h"

#include <filesystem>

namespace fixture {

ChipShape ShapeOf(const NandContents &chip);
ChipShape ShapeOf(const At45Contents &chip);

ChipFileLayout LoadChip(NandContents &chip, const std::filesystem::path &file);
ChipFileLayout LoadChip(At45Contents &chip, const std::filesystem::path &file);
ChipFileLayout LoadChip(EepromContents &chip, const std::filesystem::path &file);

// The bytes of a file in a layout that was loaded; the default is a new one. Throws Refusal, with the file that is
// meant, where the layout cannot hold what the chip now has: marks of bad blocks in a data-only file, bytes in the part
// of a DataFlash page that pages of a power of two do not have.
Bytes ChipBytesOf(const NandContents &chip, const ChipFileLayout &layout = {},
                  const std::filesystem::path &file = "NAND");
Bytes ChipBytesOf(const At45Contents &chip, const ChipFileLayout &layout = {},
                  const std::filesystem::path &file = "DataFlash");
Bytes ChipBytesOf(const EepromContents &chip, const ChipFileLayout &layout = {},
                  const std::filesystem::path &file = "EEPROM");

// A chip into a file of its own.
template <typename Contents> void SaveChip(const Contents &chip, const std::filesystem::path &file) {
    WriteFile(file, ChipBytesOf(chip));
}

} // namespace fixture
