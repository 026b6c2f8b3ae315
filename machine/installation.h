// Where this program finds what belongs to it, from wherever it is started and by whatever name.
//
// In this order: the directory that the environment names as FIXTURE_DATA; in a build tree <build>/arm beside
// <build>/host; where it is installed <prefix>/share/fixture beside <prefix>/bin.
#pragma once

#include <filesystem>

namespace fixture {

// The directory of the builds for the board: bootloader.elf and others. Where none of the places has them, the first
// one, so that a message can name it.
std::filesystem::path FirmwareDirectory();

// The same. Throws Refusal, with the places that were looked at, where there is none.
std::filesystem::path NeededFirmwareDirectory();

// fixture-preview: beside this program, or in <prefix>/libexec/fixture. It may be missing.
std::filesystem::path PreviewProgram();

} // namespace fixture
