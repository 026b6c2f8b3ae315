// A line of text below a picture, for frames of an animation that say what they show.
//
//   const Picture shown = WithCaption(Picture(320, 240), "812.345 ms  Start application");
//
// Printable ASCII, six pixels a character; "?" stands for any other. What does not fit the picture's width is cut off.
#pragma once

#include "formats/picture.h"

#include <string_view>

namespace fixture {

// The picture on top of a strip of 15 rows with the text.
Picture WithCaption(const Picture &picture, std::string_view text);

} // namespace fixture
