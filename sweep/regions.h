// What the regions of a board's medium hold, as letters: bootloader slot 0, slot 1, the rescue slot, the version
// record; then, for each of them, whether a block has been marked bad since `world` began.
//
//   RegionLetters(chips, world) == "oeoo0000"
//
// is a board with the old image in slot 0, nothing in slot 1, and the old rescue image with its version.
//
//   e  erased
//   z  zeros, as a retired header leaves them
//   x  neither, and no maker's text
//   h  a maker's text before what is no whole image
//   o  the old image
//   n  the one that the bank carries
//   f  another whole image
//
// The protocol's model (proof/update.pml) has the same letters for the same things.
#pragma once

#include "sweep/world.h"

#include <string>

namespace fixture {

std::string RegionLetters(const Chips &chips, const World &world);

} // namespace fixture
