// Pictures in read-only memory, in the compressed form that LCD_InsertImage decodes.
//
// Images.cpp is made from the picture in assets/ by `fixture splash encode`; change the picture, not the array.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kBootImageSize = 12732;

extern "C" {

// The full-screen start-up picture. Its rows 219 to 239 are black: the separator line and the progress bar go there.
// What the stream does not need of the array is zero.
extern const std::uint8_t BootImageBitmap[kBootImageSize];

} // extern "C"
