// What a boot of the build with the fixed record prints around its search for banks, to the last character.
#pragma once

#include "formats/slots.h"

#include <string>

namespace fixture {

// All up to the first bank.
std::string StartText(Medium medium);

inline constexpr const char *kMissingBank = "FileSize failed with errno=2\tFatal Error : read file failed with errno=9"
                                            "error processing project descriptor file\n";
// After the last bank, up to the check of the rescue image; then one of the following two.
inline constexpr const char *kNoBankLaunched = "\tNo valid bank found...\n"
                                               "\tStart rescue app...\n"
                                               "\tFind valid rescue app...\n";
inline constexpr const char *kRescueLaunched = "\tRescue app found...\n"
                                               "\tResetting...\n";
inline constexpr const char *kNothingLaunched =
    "\tFatal Error : No valid application or bootloader in the filesystem\n";

} // namespace fixture
