// Bytes as text, and text as bytes.
#pragma once

#include "formats/file.h"

#include <string>
#include <string_view>

namespace fixture {

inline std::string AsText(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }
inline Bytes AsBytes(std::string_view text) { return {text.begin(), text.end()}; }

} // namespace fixture
