#include "tools/option_checks.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <regex>

namespace fixture {

namespace {

// The whole text as a number; false where it is none, or is followed by anything.
template <typename T> bool Read(const std::string &text, T &value) {
    const char *const end = text.data() + text.size();
    // The parser's own conversion takes "0x10" and "010" as well, the second one as eight.
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && stopped == end;
}

// "a", "a or b", "a, b or c"
std::string Either(const std::vector<std::string> &words) {
    std::string text;
    for (std::size_t n = 0; n < words.size(); ++n)
        text += (n == 0 ? "" : n + 1 == words.size() ? " or " : ", ") + words[n];
    return text;
}

// The parser tells what is wrong in a sentence, not in parts. Its sentences are known here and nowhere else; a test
// holds every kind of them, so a parser that words one otherwise is noticed.
struct Sentence {
    const char *of_parser;
    const char *where; // "{}": the command; else the capture of that number
    const char *found;
    const char *expected;
};
constexpr Sentence kSentences[] = {
    {"(.+) is required", "{0}", "{1} is missing", ""},
    {"(.+): \\d+ required .* missing", "{1}", "no value after it", ""},
    {"(.+): At Most \\d+ required but received \\d+", "{1}", "given more than once", "once"},
    {"(.+): At least \\d+ required but received \\d+", "{1}", "no value after it", ""},
    {"(.+) requires (.+)", "{1}", "has no effect alone", "{2} as well"},
    {"(.+) excludes (.+)", "{1}", "cannot be combined with {2}", ""},
    {"Could not convert: ([^ ]+) = (.*)", "{1}", "\"{2}\" is no value for it", ""},
    {"The value (.*) is not an allowed value for (.+)", "{2}", "\"{1}\"", "none: it is a flag"},
    {"(.+) was given a disallowed flag override", "{1}", "was given a value", "none: it is a flag"},
    {"(.+): Should be true/false or a number", "{1}", "was given a value", "none: it is a flag"},
    {"(.+): too many inputs for a flag", "{1}", "was given a value", "none: it is a flag"},
};

std::string Filled(const char *form, const std::string &command, const std::smatch &parts) {
    const std::string first = parts.size() > 1 ? parts[1].str() : "", second = parts.size() > 2 ? parts[2].str() : "";
    return fmt::format(fmt::runtime(form), command, first, second);
}

std::vector<std::string> SubcommandsOf(const CLI::App &app) {
    const CLI::App *at = &app;
    // Without a filter these are the subcommands that were met in the call, so the last one is where it went wrong.
    while (!at->get_subcommands().empty()) at = at->get_subcommands().front();
    std::vector<std::string> names;
    for (const CLI::App *const one : at->get_subcommands([](const CLI::App *) { return true; }))
        if (!one->get_name().empty()) names.push_back(one->get_name());
    return names;
}

} // namespace

CLI::Validator WholeNumber(std::uint64_t least, std::uint64_t most) {
    // "0 to 18446744073709551615" says nothing to anybody.
    const bool open = most == std::numeric_limits<std::uint64_t>::max();
    const std::string range = open ? fmt::format("{} or more", least) : fmt::format("{} to {}", least, most);
    return CLI::Validator(
        [=](std::string &text) {
            std::uint64_t value = 0;
            return Read(text, value) && value >= least && value <= most
                       ? std::string()
                       : fmt::format("\"{}\"; expected a whole number, {}", text, range);
        },
        range);
}

CLI::Validator Number(double least, double most) {
    const std::string range = fmt::format("{} to {}", least, most);
    // std::from_chars takes no blanks and no locale, so "1,5" and " 1" are refused everywhere alike.
    return CLI::Validator(
        [=](std::string &text) {
            double value = 0;
            return Read(text, value) && std::isfinite(value) && value >= least && value <= most
                       ? std::string()
                       : fmt::format("\"{}\"; expected a number, {}", text, range);
        },
        range);
}

CLI::Validator OneOf(std::vector<std::string> words) {
    const std::string all = Either(words), choice = fmt::format("{{{}}}", fmt::join(words, ","));
    return CLI::Validator(
        [words = std::move(words), all](std::string &text) {
            return std::find(words.begin(), words.end(), text) != words.end()
                       ? std::string()
                       : fmt::format("\"{}\"; expected {}", text, all);
        },
        choice); // the form that `describe` finds the words in
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

Problem ProblemOf(const CLI::ParseError &error, const CLI::App &app, const std::string &command) {
    const std::string text = error.what();
    const auto wrong = [](std::string where, std::string found, std::string expected) {
        return Problem{"wrong-call", std::move(where), std::move(found), std::move(expected)};
    };
    // A mistyped word is also a missing one: what stands there says more than what does not.
    // Only where the parser itself stumbled over a word: elsewhere words may be left over that nobody has looked at
    // yet.
    const auto code = static_cast<CLI::ExitCodes>(error.get_exit_code());
    const std::vector<std::string> strange = app.remaining(true);
    const std::string words = text == "A subcommand is required" ? Either(SubcommandsOf(app)) : "";
    if (!strange.empty() && (code == CLI::ExitCodes::ExtrasError || code == CLI::ExitCodes::RequiredError))
        return wrong(command, fmt::format("\"{}\" means nothing here", strange.front()), words);
    if (!words.empty()) return wrong(command, "no subcommand", words);
    // A check's own words stand after the option's name.
    if (const std::size_t colon = text.find(": "); error.get_name() == "ValidationError" && colon != std::string::npos)
        return wrong(text.substr(0, colon), text.substr(colon + 2), "");
    for (const Sentence &sentence : kSentences) {
        std::smatch parts;
        // Made anew for each: a call goes wrong once, and the table stays constant.
        if (!std::regex_match(text, parts, std::regex(sentence.of_parser))) continue;
        return wrong(Filled(sentence.where, command, parts), Filled(sentence.found, command, parts),
                     Filled(sentence.expected, command, parts));
    }
    return wrong(command, "this call cannot be understood", "");
}

} // namespace fixture
