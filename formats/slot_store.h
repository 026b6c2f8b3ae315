// Writes one slot of a chip and nothing else.
//
//   const RawFlash flash = RawFlashOf(chips.nand);
//   StoreInSlot(flash, SlotsOn(flash)[1], manifest);     bootloader 1; slot 0, the rescue image and the record stay
//
// Everything here throws Refusal, with nothing written, if what is asked for does not fit or would be lost.
#pragma once

#include "formats/flash_report.h"

#include <string>

namespace fixture {

void StoreInSlot(const RawFlash &flash, const Slot &slot, const Bytes &image);
void EraseSlot(const RawFlash &flash, const Slot &slot);

// The version of the stored rescue image: 1 to 16 characters. RefuseRecord throws what StoreRecord would, for callers
// that write something else first.
void RefuseRecord(const RawFlash &flash, const std::string &version);
void StoreRecord(const RawFlash &flash, const std::string &version);
void EraseRecord(const RawFlash &flash);

} // namespace fixture
