// What an independent logic analyser makes of a value change dump: sigrok-cli, whose decoders know nothing of us.
#pragma once

#include <filesystem>
#include <string>

namespace fixture {

// What it prints of the signals SCL and SDA. `more` follows the two-wire decoder: others that stand on it, and options.
// Throws std::runtime_error where it cannot be run.
std::string DecodeTwoWire(const std::filesystem::path &file, const std::string &more);

// What was written to (W) and read from (R) the device at this address, with the address left out: "W 01 FF R 00 ".
std::string TwoWireTraffic(const std::filesystem::path &file, unsigned address);

} // namespace fixture
