// Sums over bytes in memory, four bytes at a time where the address allows it.
//
// Any address and any length will do; a word-aligned start is the fast one. Nothing is printed.
#pragma once

#include "StoredImage.h"

#include <cstdint>

extern "C" {

// All bytes added up, modulo 2^32.
std::uint32_t Sums_Bytes(const std::uint8_t *bytes, std::uint32_t length);

// Moves the running sums of a stored image's body on over the bytes.
void Sums_Running(RunningSums *sums, const std::uint8_t *bytes, std::uint32_t length);

} // extern "C"
