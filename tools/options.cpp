#include "tools/options.h"

#include "tools/option_checks.h"

#include <CLI/CLI.hpp>
#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <optional>
#include <regex.h>

namespace fixture {

namespace {

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
    {"(.+): [0-9]+ required .* missing", "{1}", "no value after it", ""},
    {"(.+): At Most [0-9]+ required but received [0-9]+", "{1}", "given more than once", "once"},
    {"(.+): At least [0-9]+ required but received [0-9]+", "{1}", "no value after it", ""},
    {"(.+) requires (.+)", "{1}", "has no effect alone", "{2} as well"},
    {"(.+) excludes (.+)", "{1}", "cannot be combined with {2}", ""},
    {"Could not convert: ([^ ]+) = (.*)", "{1}", "\"{2}\" is no value for it", ""},
    {"The value (.*) is not an allowed value for (.+)", "{2}", "\"{1}\"", "none: it is a flag"},
    {"(.+) was given a disallowed flag override", "{1}", "was given a value", "none: it is a flag"},
    {"(.+): Should be true/false or a number", "{1}", "was given a value", "none: it is a flag"},
    {"(.+): too many inputs for a flag", "{1}", "was given a value", "none: it is a flag"},
};

using Parts = std::array<std::string, 3>;

// The whole text and its groups, as many as a sentence has at most; nothing where the text is no such sentence. The
// system's expressions: those of the language take four seconds to compile.
std::optional<Parts> PartsOf(const std::string &text, const Sentence &sentence) {
    regex_t expression;
    if (regcomp(&expression, fmt::format("^{}$", sentence.of_parser).c_str(), REG_EXTENDED) != 0) std::abort();
    regmatch_t found[3];
    const bool matches = regexec(&expression, text.c_str(), std::size(found), found, 0) == 0;
    regfree(&expression);
    if (!matches) return std::nullopt;
    Parts parts;
    for (std::size_t n = 0; n < parts.size(); ++n)
        if (found[n].rm_so >= 0) parts[n].assign(text.c_str() + found[n].rm_so, text.c_str() + found[n].rm_eo);
    return parts;
}

std::string Filled(const char *form, const std::string &command, const Parts &parts) {
    return fmt::format(fmt::runtime(form), command, parts[1], parts[2]);
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

Option *Option::required() {
    parsed_.required();
    return this;
}

Option *Option::check(const ValueCheck &check) {
    parsed_.check(CLI::Validator([wrong = check.wrong](std::string &text) { return wrong(text); }, check.range));
    return this;
}

Option *Option::capture_default_str() {
    parsed_.capture_default_str();
    return this;
}

Option *Option::default_str(const std::string &text) {
    parsed_.default_str(text);
    return this;
}

Option *Option::type_name(const std::string &name) {
    parsed_.type_name(name);
    return this;
}

Option *Option::expected(int least, int most) {
    parsed_.expected(least, most);
    return this;
}

Option *Option::group(const std::string &heading) {
    parsed_.group(heading);
    return this;
}

Option *Option::needs(const Option *other) {
    parsed_.needs(&other->parsed_);
    return this;
}

Option *Option::excludes(const Option *other) {
    parsed_.excludes(&other->parsed_);
    return this;
}

Option *Option::excludes(std::initializer_list<const char *> names) {
    for (const char *const name : names) parsed_.excludes<CLI::App>(name);
    return this;
}

template <typename Value> Option *Command::add(const std::string &name, Value &value, const std::string &help) {
    return &options_.emplace_back(*parser_.add_option(name, value, help));
}

Command *Command::add_subcommand(const std::string &name, const std::string &help) {
    return &commands_.emplace_back(*parser_.add_subcommand(name, help));
}

Command *Command::add_option_group(const std::string &heading, const std::string &help) {
    return &commands_.emplace_back(*parser_.add_option_group(heading, help));
}

Option *Command::add_flag(const std::string &name, bool &given, const std::string &help) {
    return &options_.emplace_back(*parser_.add_flag(name, given, help));
}

Option *Command::add_option(const std::string &name, std::string &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, std::vector<std::string> &values, const std::string &help) {
    return add(name, values, help);
}

Option *Command::add_option(const std::string &name, unsigned &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, std::uint64_t &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, double &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, std::optional<std::uint16_t> &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, std::optional<unsigned> &value, const std::string &help) {
    return add(name, value, help);
}

Option *Command::add_option(const std::string &name, std::optional<double> &value, const std::string &help) {
    return add(name, value, help);
}

void Command::require_subcommand(std::size_t least, std::size_t most) { parser_.require_subcommand(least, most); }

void Command::footer(const std::string &text) { parser_.footer(text); }

bool Command::any_option_given() const {
    return !parser_.get_options([](const CLI::Option *option) { return option->count() > 0; }).empty();
}

bool Command::any_subcommand_given() const { return !parser_.get_subcommands().empty(); }

void Command::callback(std::function<void()> run) { parser_.callback(std::move(run)); }

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
        const std::optional<Parts> parts = PartsOf(text, sentence);
        if (!parts) continue;
        return wrong(Filled(sentence.where, command, *parts), Filled(sentence.found, command, *parts),
                     Filled(sentence.expected, command, *parts));
    }
    return wrong(command, "this call cannot be understood", "");
}

} // namespace fixture
