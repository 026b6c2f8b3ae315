// Checks of the values in a call, in plain words and before the parser converts them.
//
//   unsigned jobs = 1;
//   command->add_option("--jobs", jobs, "worker processes")->check(WholeNumber(1, 256));
#pragma once

#include "tools/options.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace fixture {

// Decimal digits alone, from `least` to `most`.
ValueCheck WholeNumber(std::uint64_t least, std::uint64_t most = std::numeric_limits<std::uint64_t>::max());
// A decimal number, from `least` to `most`; never "nan" or "inf".
ValueCheck Number(double least, double most);
// One of some words. The help lists them.
ValueCheck OneOf(std::vector<std::string> words);
template <typename Table> ValueCheck OneOfKeys(const Table &table) {
    std::vector<std::string> words;
    for (const auto &[word, meaning] : table) words.push_back(word);
    return OneOf(std::move(words));
}

// "a", "a or b", "a, b or c".
std::string Either(const std::vector<std::string> &words);

// An option that would do nothing in this call, or one that the call lacks. Throws Refusal unless `holds`.
void RequireInCall(bool holds, const std::string &option, const std::string &found, const std::string &expected = "");
// A directory to read from. Throws Refusal where there is none; an empty name is an option left out.
void RequireDirectory(const std::string &directory);

} // namespace fixture
