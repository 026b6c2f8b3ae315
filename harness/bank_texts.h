// The two texts of a firmware bank, line by line and wrong where a test wants them wrong. (`fixture bank build` makes
// good ones alone.)
#pragma once

#include <cstdint>
#include <string>

namespace fixture {

std::uint32_t SumOf(const std::string &bytes);

// One line of the manifest for a file of this content: 282 bytes for a path of up to 256.
std::string ManifestLine(const std::string &path, const std::string &content);

// One element of the descriptor, with the three that it has below it.
struct DescriptorTexts {
    std::string base = "demo", extension = "bin", version = "1.0";
};
std::string DescriptorElement(const std::string &element, const DescriptorTexts &texts);

} // namespace fixture
