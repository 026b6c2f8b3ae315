// The options of the subcommands.
//
//   Command *list = command->add_subcommand("list", "Name the scenarios");
//   list->add_flag("--json", json, "as one JSON object");
//   list->callback([] { fmt::print("{}\n", json); });
//
// A call is parsed by a library of headers alone, which every source that includes it compiles anew, for seconds. The
// subcommands say here what they take, and options.cpp says it to the parser. Names, and what they mean, are the
// parser's. A name with dashes is an option, one without them a word at its place. Variables get their values before
// a callback runs and outlive the parse, like what a callback captures; commands and options live as long as the
// command they were added to. A call that cannot be meant throws the parser's own exceptions.
#pragma once

#include "formats/refusal.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class ParseError;
} // namespace CLI

namespace fixture {

// What is wrong with a value, in words; empty for a good one. `range` is what the help says of good ones.
struct ValueCheck {
    std::function<std::string(const std::string &)> wrong;
    std::string range;
};

class Option {
public:
    explicit Option(CLI::Option &parsed) : parsed_(parsed) {}

    Option *required();
    Option *check(const ValueCheck &check);
    Option *capture_default_str();                // the help shows the variable's value
    Option *default_str(const std::string &text); // or this
    Option *type_name(const std::string &name);   // of its values, in the help
    Option *expected(int least, int most);        // values after the name
    Option *group(const std::string &heading);    // in the help
    Option *needs(const Option *other);           // has no effect alone
    Option *excludes(const Option *other);
    Option *excludes(std::initializer_list<const char *> names);

private:
    CLI::Option &parsed_;
};

class Command {
public:
    explicit Command(CLI::App &parser) : parser_(parser) {}
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    Command *add_subcommand(const std::string &name, const std::string &help);
    Command *add_option_group(const std::string &heading, const std::string &help);
    Option *add_flag(const std::string &name, bool &given, const std::string &help);
    Option *add_option(const std::string &name, std::string &value, const std::string &help);
    Option *add_option(const std::string &name, std::vector<std::string> &values, const std::string &help);
    Option *add_option(const std::string &name, unsigned &value, const std::string &help);
    Option *add_option(const std::string &name, std::uint64_t &value, const std::string &help);
    Option *add_option(const std::string &name, double &value, const std::string &help);
    Option *add_option(const std::string &name, std::optional<std::uint16_t> &value, const std::string &help);
    Option *add_option(const std::string &name, std::optional<unsigned> &value, const std::string &help);
    Option *add_option(const std::string &name, std::optional<double> &value, const std::string &help);
    void require_subcommand(std::size_t least = 1, std::size_t most = 1); // how many of its subcommands a call has
    void footer(const std::string &text);                                 // of the help
    void callback(std::function<void()> run); // after the parse of a call that has this command
    bool any_option_given() const;            // in the call that was parsed
    bool any_subcommand_given() const;
    CLI::App &parser() const { return parser_; }

private:
    template <typename Value> Option *add(const std::string &name, Value &value, const std::string &help);

    CLI::App &parser_;
    std::deque<Option> options_;
    std::deque<Command> commands_;
};

// What the parser found wrong with a call of `command` ("fixture boot"), in this program's words.
Problem ProblemOf(const CLI::ParseError &error, const CLI::App &app, const std::string &command);

} // namespace fixture
