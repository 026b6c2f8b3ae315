#include "tools/option_checks.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace fixture {

namespace {

// The whole text as a number; false where it is none, or is followed by anything.
template <typename T> bool Read(const std::string &text, T &value) {
    const char *const end = text.data() + text.size();
    // The parser's own conversion takes "0x10" and "010" as well, the second one as eight.
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && stopped == end;
}

} // namespace

ValueCheck WholeNumber(std::uint64_t least, std::uint64_t most) {
    // "0 to 18446744073709551615" says nothing to anybody.
    const bool open = most == std::numeric_limits<std::uint64_t>::max();
    const std::string range = open ? fmt::format("{} or more", least) : fmt::format("{} to {}", least, most);
    return ValueCheck{[=](const std::string &text) {
                          std::uint64_t value = 0;
                          return Read(text, value) && value >= least && value <= most
                                     ? std::string()
                                     : fmt::format("\"{}\"; expected a whole number, {}", text, range);
                      },
                      range};
}

ValueCheck Number(double least, double most) {
    const std::string range = fmt::format("{} to {}", least, most);
    // std::from_chars takes no blanks and no locale, so "1,5" and " 1" are refused everywhere alike.
    return ValueCheck{[=](const std::string &text) {
                          double value = 0;
                          return Read(text, value) && std::isfinite(value) && value >= least && value <= most
                                     ? std::string()
                                     : fmt::format("\"{}\"; expected a number, {}", text, range);
                      },
                      range};
}

ValueCheck OneOf(std::vector<std::string> words) {
    const std::string all = Either(words), choice = fmt::format("{{{}}}", fmt::join(words, ","));
    return ValueCheck{[words = std::move(words), all](const std::string &text) {
                          return std::find(words.begin(), words.end(), text) != words.end()
                                     ? std::string()
                                     : fmt::format("\"{}\"; expected {}", text, all);
                      },
                      choice}; // the form that `describe` finds the words in
}

std::string Either(const std::vector<std::string> &words) {
    std::string text;
    for (std::size_t n = 0; n < words.size(); ++n)
        text += (n == 0 ? "" : n + 1 == words.size() ? " or " : ", ") + words[n];
    return text;
}

void RequireInCall(bool holds, const std::string &option, const std::string &found, const std::string &expected) {
    if (!holds) throw Refusal(Fault::call, {"wrong-call", option, found, expected});
}

void RequireDirectory(const std::string &directory) {
    if (directory.empty()) return;
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(directory, error);
    if (!std::filesystem::exists(status))
        throw Refusal(Fault::unreadable, {"missing", directory, "no such directory", ""});
    // Apart from "no such directory": a file there is mostly a slip of one level.
    if (!std::filesystem::is_directory(status))
        throw Refusal(Fault::unreadable, {"not-a-directory", directory, "not a directory", "a directory"});
}

} // namespace fixture
