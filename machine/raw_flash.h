// The data bytes of a board's flash chips, as the formats and the first stage read and write them.
//
//   const RawFlash flash = RawFlashOf(chips.nand);
//   flash.write(0x40000, Bytes(100, 0x55));
//   const FlashReport report = ExamineFlash(flash);     (formats/flash_report.h)
#pragma once

#include "fixture/parts/at45.h"
#include "fixture/parts/nand.h"
#include "formats/flash_report.h"

namespace fixture {

// All of these keep a reference: the contents outlive them.
//
// A NAND read starts at the beginning of the block that holds the address, and skips blocks marked bad. The
// bootloader's driver reads the same way.
FlashReader ReaderOf(const At45Contents &contents);
FlashReader ReaderOf(const NandContents &contents);

RawFlash RawFlashOf(At45Contents &contents);
RawFlash RawFlashOf(NandContents &contents);

} // namespace fixture
