// A call of `fixture` from its arguments to its exit status.
#include "tools/commands.h"

#include "tools/call_report.h"
#include "tools/option_checks.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <iostream>
#include <memory>
#include <utility>

namespace fixture {

namespace {

// In the order of the help: boot first, which a newcomer wants; the rest by the alphabet.
constexpr std::array kCommands = {AddBootCommand,   AddBankCommand,   AddDescribeCommand, AddDiffCommand,
                                  AddDoctorCommand, AddEepromCommand, AddExplainCommand,  AddFlashCommand,
                                  AddImageCommand,  AddSplashCommand, AddSweepCommand};

// The subcommands that the arguments name, for an error that comes before they are parsed.
std::string CommandOf(const CLI::App &app, const std::vector<std::string> &arguments) {
    std::string names;
    const CLI::App *at = &app;
    for (const std::string &argument : arguments) {
        const auto subcommands = at->get_subcommands([&](const CLI::App *one) { return one->get_name() == argument; });
        // Stops at the first word that is no subcommand: an option's value after it may look like one.
        if (subcommands.empty()) break;
        at = subcommands.front();
        names += (names.empty() ? "" : " ") + argument;
    }
    return names;
}

// How many letters have to be put in, left out, changed or swapped with their neighbour to make one of the other.
std::size_t Distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<std::size_t>> steps(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const std::size_t changed = steps[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, changed});
            // Two letters in the wrong order are one slip; as two changes they would be too far from a short name.
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
        }
    return steps.back().back();
}

// What may stand at this place of a call: subcommands, or options with their dashes.
std::vector<std::string> Expected(const CLI::App &at, bool option) {
    std::vector<std::string> names;
    for (const CLI::App *sub : at.get_subcommands([](const CLI::App *) { return true; })) {
        if (!option && !sub->get_name().empty()) names.push_back(sub->get_name());
        // A group of options is a nameless subcommand to the parser. Its options stand beside the others to a user.
        if (option && sub->get_name().empty())
            for (std::string &name : Expected(*sub, true)) names.push_back(std::move(name));
    }
    if (option)
        for (const CLI::Option *each : at.get_options())
            for (const std::string &name : each->get_lnames()) names.push_back("--" + name);
    return names;
}

// "did you mean ...?" for the first word that nothing here is called and something is nearly called; else nothing.
std::string Suggestion(const CLI::App &app, const std::vector<std::string> &arguments) {
    const CLI::App *at = &app;
    for (const std::string &argument : arguments) {
        // "--strap=none": the value would count as wrong letters.
        const std::string word = argument.substr(0, argument.find('='));
        const std::vector<std::string> names = Expected(*at, word.starts_with("--"));
        if (std::find(names.begin(), names.end(), word) != names.end()) {
            if (!word.starts_with('-')) at = at->get_subcommand(word);
            continue;
        }
        const auto nearest = std::min_element(names.begin(), names.end(), [&](const auto &a, const auto &b) {
            return Distance(a, word) < Distance(b, word);
        });
        // A third of the letters may be wrong. Beyond that the nearest word is only a guess and would mislead.
        const std::size_t most = std::max<std::size_t>(1, word.size() / 3);
        if (nearest != names.end() && Distance(*nearest, word) <= most)
            return fmt::format("; did you mean \"{}\"?", *nearest);
    }
    return "";
}

bool WantsJson(const std::vector<std::string> &arguments) {
    // Looked for by hand: a call that cannot be parsed has to be answered in JSON as well.
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    return std::find(arguments.begin(), end, "--json") != end;
}

// The help in plain words: values a person can type in place of the parser's types, defaults in brackets.
// The parser's own help shows its types ("UINT:1 to 256") where a person wants the values alone.
class HelpFormat : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option *option) const override {
        std::string text;
        // A flag takes no value, and so has nothing to show here.
        if (option->get_items_expected_max() > 0) {
            std::string value = option->get_type_name(); // "TEXT", or "TEXT:" and what a check expects
            value.erase(0, value.find(':') == std::string::npos ? 0 : value.find(':') + 1);
            // A positional's own name says what it is.
            if (!(option->get_positional() && value == "TEXT")) text = " " + value;
            if (option->get_expected_max() > 1) text += " ...";
            if (!option->get_default_str().empty()) text += " [" + option->get_default_str() + "]";
        }
        for (const CLI::Option *const other : option->get_needs()) text += ", with " + other->get_name();
        for (const CLI::Option *const other : option->get_excludes()) text += ", not with " + other->get_name();
        return text;
    }
};

// "fixture boot", or the program alone where no subcommand was given.
std::string Named(const std::string &command) { return command.empty() ? "fixture" : "fixture " + command; }

// A problem of the call itself begins with the command as it is typed, any other one with this program's name.
std::string LineOf(const Problem &problem, const std::string &command) {
    if (problem.where == Named(command)) return problem.text();
    const bool of_command = !command.empty() && problem.where == command;
    return (of_command ? "fixture " : "fixture: ") + problem.text();
}

int Report(const std::string &command, bool json, int status, const Problem &problem) {
    // What was printed before the failure stands before the message, also where both streams go to one file.
    std::fflush(stdout);
    if (!json) {
        fmt::print(stderr, "{}\n", LineOf(problem, command));
        return status;
    }
    CallReport outcome(command, json);
    outcome.problems.push_back(problem);
    return outcome.finish(status);
}

int ParseAndRun(CLI::App &app, const int &exit_status, const std::vector<std::string> &arguments) {
    // Both found by hand: messages need them even if the parser gives up before it gets that far.
    const std::string command = CommandOf(app, arguments);
    const bool json = WantsJson(arguments);
    const auto report = [&](int status, const Problem &problem) { return Report(command, json, status, problem); };
    try {
        std::vector<std::string> words(arguments.rbegin(), arguments.rend()); // the parser takes them from the end
        app.parse(words);
        return exit_status;
        // --help and --version come as exceptions, and print themselves.
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        Problem problem = ProblemOf(error, app, Named(command));
        if (const std::string meant = Suggestion(app, arguments); !meant.empty()) {
            problem.found += meant; // which says better what is expected
            problem.expected.clear();
        } else if (problem.expected.empty()) {
            // Where nothing better can be said, the way to the help; never beside a list of what was expected.
            problem.found += fmt::format("; see {} --help", Named(command));
        }
        return report(kWrongCall, problem);
    } catch (const Refusal &refusal) {
        return report(StatusOf(refusal.fault()), refusal.problem());
        // Mostly a directory that cannot be listed. Files are refused where they are read, in better words.
    } catch (const std::filesystem::filesystem_error &error) {
        return report(kWrongCall, {"unreadable", error.path1().string(), error.code().message(), ""});
    } catch (const std::system_error &) {
        throw; // of the streams, which nothing can be printed to
    } catch (const std::bad_alloc &) {
        return report(kOwnFault, {"out-of-memory", "", "out of memory", ""});
    } catch (const std::exception &error) {
        // Nothing that a call or a file can bring about comes here: those are refused above.
        return report(kOwnFault, {"own-fault", "", fmt::format("a fault of this program: {}", error.what()), ""});
    }
}

// Nothing is said to be done before the streams have taken all of it.
bool StreamsTookAll() {
    // Both layers: a trace goes to the stream, everything else to the C file below it.
    std::cout.flush();
    const bool out = std::fflush(stdout) == 0 && !std::ferror(stdout) && std::cout.good();
    const bool error = std::fflush(stderr) == 0 && !std::ferror(stderr);
    if (!out && error) std::fputs("fixture: standard output: cannot be written\n", stderr);
    return out && error;
}

} // namespace

int StatusOf(Fault fault) {
    switch (fault) {
    case Fault::content: return kBad;
    case Fault::output: return kNotWritten;
    // An unreadable file counts as a wrong call, so that scripts can tell it from one that was read and is bad.
    case Fault::call:
    case Fault::unreadable: break;
    }
    return kWrongCall;
}

std::span<AddCommand *const> AllCommands() { return kCommands; }

std::string Quoted(std::string_view text) {
    std::string quoted = "'";
    // The quote itself cannot stand between quotes: they are closed before it and opened again after it.
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string ShellWord(std::string_view text) {
    if (Printable(text) != text) {
        // What cannot be printed can still be pasted: between $' and ' a shell reads \xNN as that byte.
        std::string word = "$'";
        for (const char c : Escaped(text)) word += c == '\'' ? "\\'" : std::string(1, c);
        return word + "'";
    }
    // The usual name stays readable.
    const bool plain = text.find_first_of(" '\"$&;|<>*?()[]{}#~!`\\") == std::string_view::npos && !text.empty();
    return plain ? std::string(text) : Quoted(text);
}

int RunCall(std::span<AddCommand *const> commands, const std::vector<std::string> &arguments) {
    CLI::App app("The virtual fixture: a board to run the bootloader on, and the tools for its images and chips",
                 "fixture");
    // All of this before the subcommands are added: each takes over formatter, footer and help options when it is made.
    app.set_help_flag("-h,--help", "Print this help and exit");
    const auto format = std::make_shared<HelpFormat>();
    format->label("Positionals", "Arguments");
    app.formatter(format);
    app.set_version_flag("--version", VersionText(), "Print the version and exit");
    app.set_help_all_flag("--help-all", "Print the help of every subcommand and exit");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 good, 1 the thing examined is bad, 2 the call is wrong, 3 a run ended badly,\n"
        "4 a file cannot be written, 5 standard output or error cannot be written, 6 a fault of fixture itself.");
    int exit_status = kGood;
    Command top(app);
    for (AddCommand *const add : commands) add(top, exit_status);
    // Holds unless the call below returns: what escapes it comes from printing, so a stream has failed.
    int status = kStreamFailed;
    try {
        status = ParseAndRun(app, exit_status, arguments);
    } catch (const std::exception &) { // from printing
    }
    return StreamsTookAll() ? status : kStreamFailed;
}

} // namespace fixture
