#include "machine/first_stage.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace fixture {

bool MarkerStands(const Memory &memory) {
    const std::span<std::uint8_t> marker = memory.at(kLaunchMarker, sizeof kLaunchMarkerText);
    return !marker.empty() && std::memcmp(marker.data(), kLaunchMarkerText, marker.size()) == 0;
}

std::optional<Handover> TakeHandover(const Memory &memory) {
    if (!MarkerStands(memory)) return std::nullopt;
    const std::span<std::uint8_t> marker = memory.at(kLaunchMarker, sizeof kLaunchMarkerText);
    // Taken away, so that the next reset is a start and not a second launch.
    std::fill(marker.begin(), marker.end(), std::uint8_t{0});
    const std::span<std::uint8_t> begin = memory.at(kLoadBuffer, sizeof kMakerText);
    assert(!begin.empty() && "the marker stands at the end of the load buffer");
    // A stored image is entered after its header, anything else at its first byte.
    const bool has_header = std::memcmp(begin.data(), kMakerText, sizeof kMakerText) == 0;
    return Handover{kLoadBuffer + (has_header ? kImageHeaderBytes : 0), has_header};
}

} // namespace fixture
