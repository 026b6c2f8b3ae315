// Bytes without a pattern, the same in every run.
#pragma once

#include "formats/file.h"

#include <cstdint>

namespace fixture {

inline Bytes Noise(std::size_t length, std::uint32_t seed = 0) {
    Bytes bytes(length);
    std::uint32_t state = seed + 1;
    for (std::uint8_t &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

} // namespace fixture
