// The images that chips are held against: the builds known here, and what banks carry.
#pragma once

#include "formats/doctor.h"

#include <filesystem>
#include <string>
#include <vector>

namespace fixture {

std::vector<ReferenceImage> KnownReferences();

// The bootloader and the rescue image of a bank. Throws Refusal where one that it lists is not good.
std::vector<ReferenceImage> BankReferences(const std::filesystem::path &bank);

} // namespace fixture
