// What the image records of App, Rescue and Boot have in common: their texts.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t kVersionSize = 16; // as the descriptor gives it; 16 characters leave no terminator
inline constexpr std::uint32_t kPathSize = 256;   // bank directory and relative path

// Copies a text into a field and fills the rest with 0. A text that fills its field, or is cut there, has no
// terminator.
template <std::size_t N> void SetText(char (&field)[N], const char *text) {
    std::size_t i = 0;
    for (; i < N && text[i] != '\0'; ++i) field[i] = text[i];
    for (; i < N; ++i) field[i] = '\0';
}
