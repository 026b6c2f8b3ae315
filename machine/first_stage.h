// What a first-stage loader does with what the last stage left in memory.
//
// After a processor reset it looks for the launch marker. Where it stands, the image in the load buffer is to be
// started: at its first byte, or after the stored image header where the maker text shows one.
#pragma once

#include "fixture/processors/processor.h"
#include "formats/slots.h"

#include <cstdint>
#include <optional>

namespace fixture {

inline constexpr std::uint32_t kLoadBuffer = 0x23000000;
inline constexpr std::uint32_t kLaunchMarker = 0x23FFFF00;
inline constexpr char kLaunchMarkerText[] = "Launch SDRAM directly...";

struct Handover {
    std::uint32_t entry;
    bool has_header;
};

// Whether the launch marker is in place.
bool MarkerStands(const Memory &memory);
// What to start, if the marker is in place; clears it.
std::optional<Handover> TakeHandover(const Memory &memory);

} // namespace fixture
