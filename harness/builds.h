// The builds with the fixed build record, as sweeps take them, read once for all tests.
#pragma once

#include "sweep/world.h"

namespace fixture {

inline const SweepFirmware &FixedBuilds() {
    static const SweepFirmware builds(FirmwareDirectory() / "fixed");
    return builds;
}

} // namespace fixture
