// Whole boots of the shipped image: their virtual time beside what is dictated of it, and what it went to.
#pragma once

#include "harness/speed.h"

namespace fixture {

struct MeasuredBoot {
    SpeedRow row;
    Picoseconds run;      // the machine's own count
    double rest;          // the share without a cause
    std::string timeline; // as `fixture boot --timeline` prints it
};

// An update on NAND that stores a rescue image too, the launch of an application of 8 MiB, the launch of a rescue image
// of 1 MiB; an update and a rescue launch on a DataFlash. Throws std::runtime_error where one does not end in a launch.
std::vector<MeasuredBoot> BootSpeed();

} // namespace fixture
