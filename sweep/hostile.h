// Hostile boards: random chips, files and faults, made from a seed, in shapes that differ from seed to
// seed. One thing is sound on all of them, the bootloader in one slot.
//
//   const World world = MakeHostileWorld(17, firmware);
//
// What such a board does is not foretold. It ends every boot, breaks no rule of its chips, still has a bootloader where
// its chips are sound, and does the same on both processors.
#pragma once

#include "sweep/world.h"

namespace fixture {

World MakeHostileWorld(std::uint64_t seed, const SweepFirmware &firmware);

} // namespace fixture
