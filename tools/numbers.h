// Numbers in the options of a call, checked in plain words before the parser converts them.
//
//   command->add_option("--jobs", jobs, "worker processes")->check(WholeNumber(1, 256));
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <fmt/format.h>
#include <limits>
#include <string>

namespace fixture {

// Decimal digits alone, from `least` to `most`.
inline CLI::Validator WholeNumber(std::uint64_t least, std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) {
    return CLI::Validator(
        [=](std::string &text) {
            std::uint64_t value = 0;
            const char *const end = text.data() + text.size();
            const auto [stopped, error] = std::from_chars(text.data(), end, value);
            if (!text.empty() && error == std::errc() && stopped == end && value >= least && value <= most)
                return std::string();
            return fmt::format("\"{}\"; expected a whole number from {} to {}", text, least, most);
        },
        fmt::format("{}..{}", least, most));
}

// A decimal number, from `least` to `most`; never "nan" or "inf".
inline CLI::Validator Number(double least, double most) {
    return CLI::Validator(
        [=](std::string &text) {
            double value = 0;
            const char *const end = text.data() + text.size();
            const auto [stopped, error] = std::from_chars(text.data(), end, value);
            if (!text.empty() && error == std::errc() && stopped == end && std::isfinite(value) && value >= least &&
                value <= most)
                return std::string();
            return fmt::format("\"{}\"; expected a number from {} to {}", text, least, most);
        },
        fmt::format("{}..{}", least, most));
}

} // namespace fixture
