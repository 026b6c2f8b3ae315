// The images that chips are held against: the builds known here, and what banks carry.
#pragma once

#include "formats/doctor.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// Text out of a file, with what could drive a terminal as "\xNN".
std::string Shown(std::string_view text);

std::vector<ReferenceImage> KnownReferences();

// The bootloader and the rescue image of a bank. Throws Refusal where one that it lists is not good.
std::vector<ReferenceImage> BankReferences(const std::filesystem::path &bank);

} // namespace fixture
