// fixture describe: manual pages and shell completion, from the one description of the command line that parses calls;
// and the schema of what --json prints.
#include "tools/commands.h"

#include "formats/file.h"
#include "tools/call_report.h"
#include "tools/option_checks.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <functional>
#include <memory>

namespace fixture {

extern const char *const kReportSchema; // docs/report.schema.json, as the build found it

namespace fs = std::filesystem;

namespace {

using Texts = std::vector<std::string>;

// One option or file of a command, as help shows it.
// One tree for all forms, taken from the parser itself: an option that is added appears in every one of them.
struct Word {
    Texts names; // "--straps", "-h"; a single one without dashes: what stands in its place
    std::string help;
    std::string initial; // the default; may be empty
    Texts values;        // where only these make sense
    bool takes_value;
    bool is_option() const { return names.front().starts_with('-'); }
};

// One command: "fixture bank build" and what it takes.
struct Node {
    std::string path;
    std::string help;
    std::vector<Word> words;
    std::vector<Node> nodes;

    std::string name() const { return path.substr(path.rfind(' ') + 1); }
    Texts options() const {
        Texts all;
        for (const Word &word : words)
            if (word.is_option()) all.insert(all.end(), word.names.begin(), word.names.end());
        return all;
    }
};

// The parser writes a choice into the type's name, as in "TEXT:{both,none}".
Texts ValuesOf(const std::string &type) {
    // OneOf() writes them so (option_checks.cpp). Anything else has no fixed set of values.
    const std::size_t begin = type.find('{'), end = type.find('}', begin);
    if (begin == std::string::npos || end == std::string::npos) return {};
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

Word WordOf(const CLI::Option &option) {
    Word word{{},
              option.get_description(),
              option.get_default_str(),
              ValuesOf(option.get_type_name()),
              option.get_items_expected_max() > 0};
    for (const std::string &name : option.get_lnames()) word.names.push_back("--" + name);
    for (const std::string &name : option.get_snames()) word.names.push_back("-" + name);
    // A positional has neither dashes nor letters.
    if (word.names.empty()) word.names.push_back(option.get_single_name());
    return word;
}

Node NodeOf(const CLI::App &app, const std::string &above) {
    Node node{above.empty() ? app.get_name() : above + " " + app.get_name(), app.get_description(), {}, {}};
    const std::function<void(const CLI::App &)> take = [&](const CLI::App &part) {
        for (const CLI::Option *option : part.get_options())
            // No group means hidden: such an option is left out of the help, too.
            if (!option->get_group().empty()) node.words.push_back(WordOf(*option));
        for (const CLI::App *sub : part.get_subcommands([](const CLI::App *) { return true; })) {
            if (sub->get_name().empty())
                take(*sub); // a group of options, no command
            else
                node.nodes.push_back(NodeOf(*sub, node.path));
        }
    };
    take(app);
    return node;
}

void ForEach(const Node &node, const std::function<void(const Node &)> &look) {
    look(node);
    for (const Node &sub : node.nodes) ForEach(sub, look);
}

std::string Replaced(std::string text, std::string_view what, std::string_view with) {
    // Continues after what was put in, which may contain `what` again.
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

// --- manual pages

std::string Roff(std::string text) {
    // Backslashes first, or those put before dashes would be doubled. A bare "-" would come out as a hyphen, which
    // nobody can paste into a shell.
    text = Replaced(Replaced(std::move(text), "\\", "\\e"), "-", "\\-");
    // roff would take such a line for a request, and its text would vanish.
    if (text.starts_with('.') || text.starts_with('\'')) text.insert(0, "\\&");
    return Replaced(text, "\n", "\n.br\n");
}

std::string PageName(const Node &node) { return Replaced(node.path, " ", "-"); }

std::string Synopsis(const Node &node) {
    std::string text = node.path + (node.nodes.empty() ? "" : " COMMAND");
    if (!node.options().empty()) text += " [OPTION...]";
    for (const Word &word : node.words)
        if (!word.is_option()) text += " " + word.names.front();
    return text;
}

std::string Page(const Node &node, const std::string &footer) {
    const std::string name = PageName(node);
    // No date in the heading: the same revision always makes the same page.
    std::string page =
        fmt::format(".TH {} 1 \"\" \"{}\" \"virtual fixture\"\n.SH NAME\n{} \\- {}\n.SH SYNOPSIS\n.B {}\n", Roff(name),
                    VersionText(), Roff(name), Roff(node.help), Roff(Synopsis(node)));
    if (!node.nodes.empty()) page += ".SH COMMANDS\n";
    for (const Node &sub : node.nodes)
        page += fmt::format(".TP\n.BR {} (1)\n{}\n", Roff(PageName(sub)), Roff(sub.help));
    if (!node.words.empty()) page += ".SH OPTIONS\n";
    for (const Word &word : node.words) {
        page += fmt::format(".TP\n.B {}\n{}\n", Roff(fmt::format("{}", fmt::join(word.names, ", "))), Roff(word.help));
        if (!word.values.empty()) page += Roff(fmt::format("One of {}.", fmt::join(word.values, ", "))) + "\n";
        if (!word.initial.empty()) page += Roff(fmt::format("Default: {}.", word.initial)) + "\n";
    }
    return page + ".SH EXIT STATUS\n" + Roff(footer) + "\n";
}

// --- completion

// What a shell script compares with: the words of a command, and an option after it.
std::string BashCompletion(const Node &top) {
    std::string paths, values, words;
    ForEach(top, [&](const Node &node) {
        if (node.path != top.path) paths += fmt::format("{}\"{}\"", paths.empty() ? "" : " | ", node.path);
        Texts all = node.options();
        for (const Node &sub : node.nodes) all.push_back(sub.name());
        words += fmt::format("    \"{}\") words=\"{}\" ;;\n", node.path, fmt::join(all, " "));
        for (const Word &word : node.words)
            if (word.is_option() && word.takes_value)
                for (const std::string &name : word.names)
                    values += fmt::format("    \"{} {}\") COMPREPLY=($(compgen -W \"{}\" -- \"$word\")); return ;;\n",
                                          node.path, name, fmt::join(word.values, " "));
    });
    // Without a match the shell completes file names.
    return "# bash completion for fixture\n_fixture() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} path=fixture words= i\n"
           "    for ((i = 1; i < COMP_CWORD; ++i)); do\n        case \"$path ${COMP_WORDS[i]}\" in\n        " +
           paths + ") path=\"$path ${COMP_WORDS[i]}\" ;;\n        esac\n    done\n    case \"$path $before\" in\n" +
           values + "    esac\n    case \"$path\" in\n" + words +
           "    esac\n    COMPREPLY=($(compgen -W \"$words\" -- \"$word\"))\n}\ncomplete -o default -F _fixture "
           "fixture\n";
}

std::string ZshCompletion(const Node &top) {
    std::string paths, values, words;
    ForEach(top, [&](const Node &node) {
        if (node.path != top.path) paths += fmt::format("{}\"{}\"", paths.empty() ? "" : " | ", node.path);
        std::string options, commands;
        for (const Word &word : node.words) {
            if (!word.is_option()) continue;
            for (const std::string &name : word.names) {
                // A colon ends the name in zsh's lists.
                options += " " + Quoted(name + ":" + Replaced(word.help, ":", "\\:"));
                if (!word.takes_value) continue;
                values += fmt::format("\"{} {}\") ", node.path, name);
                values += word.values.empty() ? "_files; return ;;\n"
                                              : fmt::format("compadd -- {}; return ;;\n", fmt::join(word.values, " "));
            }
        }
        for (const Node &sub : node.nodes) commands += " " + Quoted(sub.name() + ":" + Replaced(sub.help, ":", "\\:"));
        words += fmt::format("\"{}\") options=({}) commands=({}) ;;\n", node.path, options, commands);
    });
    return "#compdef fixture\nlocal at=fixture i\nlocal -a options commands\n"
           "for ((i = 2; i < CURRENT; ++i)); do\ncase \"$at ${words[i]}\" in\n" +
           paths + ") at=\"$at ${words[i]}\" ;;\nesac\ndone\ncase \"$at ${words[CURRENT-1]}\" in\n" + values +
           "esac\ncase \"$at\" in\n" + words +
           "esac\n(( $#commands )) && _describe command commands\n"
           "[[ $PREFIX == -* ]] && _describe option options -o\n(( $#commands )) || _files\n";
}

std::string FishCompletion(const Node &top) {
    std::string paths, lines;
    ForEach(top, [&](const Node &node) {
        const std::string at = fmt::format("complete -c fixture -n '__fixture_at \"{}\"'", node.path);
        if (node.path != top.path) paths += " '" + node.path + "'";
        for (const Node &sub : node.nodes)
            lines += fmt::format("{} -f -a {} -d {}\n", at, sub.name(), Quoted(Replaced(sub.help, "\\", "\\\\")));
        for (const Word &word : node.words) {
            if (!word.is_option()) continue;
            std::string line = at;
            for (const std::string &name : word.names)
                // fish has long and short names, and no others.
                line += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
            if (!word.values.empty())
                // -x: no file names beside the words. -r: a value must follow, and may be a file.
                line += fmt::format(" -x -a '{}'", fmt::join(word.values, " "));
            else if (word.takes_value)
                line += " -r";
            lines += line + " -d " + Quoted(Replaced(word.help, "\\", "\\\\")) + "\n";
        }
    });
    return "# fish completion for fixture\nfunction __fixture_at\n    set -l at fixture\n"
           "    for word in (commandline -opc)[2..-1]\n        if contains -- \"$at $word\"" +
           paths + "\n            set at \"$at $word\"\n        end\n    end\n    test \"$at\" = \"$argv[1]\"\nend\n" +
           lines;
}

// --- the command

struct DescribeCall {
    std::string form;
    std::string into;
    bool json = false;
};

const Texts kForms = {"bash", "zsh", "fish", "man", "schema"};

// A page for each command, all of them or none.
void WritePages(const Node &top, const std::string &footer, const fs::path &directory) {
    OutputFiles outputs;
    // Proven writable one after another before the first is put in place.
    ForEach(top, [&](const Node &node) {
        outputs.add(directory / (PageName(node) + ".1")).write(std::string_view(Page(node, footer)));
    });
    outputs.commit();
}

int Describe(const CLI::App &app, const DescribeCall &call) {
    RequireInCall(call.into.empty() || call.form == "man", "--into", "has no effect on " + call.form, "man");
    const Node top = NodeOf(app, "");
    CallReport outcome("describe", call.json);
    std::string text;
    if (call.form == "bash") text = BashCompletion(top);
    if (call.form == "zsh") text = ZshCompletion(top);
    if (call.form == "fish") text = FishCompletion(top);
    if (call.form == "schema") text = kReportSchema;
    if (call.form == "man") text = Page(top, app.get_footer());
    if (call.form == "man" && !call.into.empty())
        WritePages(top, app.get_footer(), call.into);
    else if (call.json)
        outcome.part["description"] = text;
    else
        fmt::print("{}", text);
    return outcome.finish(kGood);
}

} // namespace

void AddDescribeCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<DescribeCall>();
    Command *command = app.add_subcommand("describe", "Print shell completion, manual pages, or the schema of --json");
    command->add_option("FORM", call->form, "what to print")->required()->check(OneOf(kForms));
    command
        ->add_option("--into", call->into, "for man, directory to write one page per command to [print the first page]")
        ->type_name("DIR");
    command->add_flag("--json", call->json, "report as one JSON object");
    command->callback([call, &app, &exit_status] { exit_status = Describe(app.parser(), *call); });
}

} // namespace fixture
