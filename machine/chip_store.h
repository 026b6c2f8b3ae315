// Chips as files: what survives without power, loaded and saved.
//
// A NAND file holds every page in order, data and then spare bytes. A DataFlash file holds the pages in order, an
// EEPROM file all 2,048 bytes. The flash chips may be short: what is missing at the end is erased, and an erased end is
// left out when a chip is saved. Faults are not part of a file.
//
// Loading gives a blank chip for a missing file. It throws Refusal for a file that is too long for the chip, or that is
// no EEPROM by its length. Saving replaces a file only by a whole one (formats/file.h).
#pragma once

#include "fixture/board.h"

#include <filesystem>

namespace fixture {

void LoadChip(NandContents &chip, const std::filesystem::path &file);
void LoadChip(At45Contents &chip, const std::filesystem::path &file);
void LoadChip(EepromContents &chip, const std::filesystem::path &file);

void SaveChip(const NandContents &chip, const std::filesystem::path &file);
void SaveChip(const At45Contents &chip, const std::filesystem::path &file);
void SaveChip(const EepromContents &chip, const std::filesystem::path &file);

} // namespace fixture
