#include "tools/call_report.h"

#include "formats/warning_ids.h"
#include "tools/commands.h"
#include "tools/options.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

namespace fixture {

namespace {

std::string UnknownId(const std::string &id) {
    if (std::find(std::begin(kWarningIds), std::end(kWarningIds), id) != std::end(kWarningIds)) return "";
    std::string known;
    // The help has no room for the list; whoever gets here is looking for it.
    for (const std::string_view each : kWarningIds) known += fmt::format(" {}", each);
    return fmt::format("no such warning as \"{}\"; there are:{}", Printable(id), known);
}

} // namespace

void WarningOptions::add_options(Command &command) {
    command.add_flag("--strict", strict, "treat warnings as failures, with exit status 1");
    command.add_option("--allow", allowed, "warnings to ignore, by identifier")
        ->type_name("ID")
        ->check({UnknownId, ""});
}

nlohmann::ordered_json TextJson(std::string_view text) { return Escaped(text); }

nlohmann::ordered_json SlotJson(std::string_view name) {
    nlohmann::ordered_json json{{"slot", nullptr}, {"name", name}};
    // The record lies outside the numbered slots: null says so, a missing key would not.
    if (name.starts_with("bootloader")) json["slot"] = name.back() - '0';
    if (name == "rescue") json["slot"] = 2;
    return json;
}

nlohmann::ordered_json ToJson(const Problem &problem) {
    return {{"id", problem.id},
            // Both the parts and the line: a program that goes by the parts still has what a person would have read.
            {"where", Printable(problem.where)},
            {"found", Printable(problem.found)},
            {"expected", Printable(problem.expected)},
            {"text", problem.text()}};
}

nlohmann::ordered_json ToJson(const Problems &problems) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const Problem &problem : problems) json.push_back(ToJson(problem));
    return json;
}

int CallReport::judged(int status, const WarningOptions &options) {
    std::erase_if(warnings, [&](const Problem &warning) {
        return std::find(options.allowed.begin(), options.allowed.end(), warning.id) != options.allowed.end();
    });
    // Only now: a warning that was allowed must not fail a strict call.
    if (!options.strict || warnings.empty()) return status;
    // They stay among the warnings as well: --strict changes the verdict, not what is known.
    problems.insert(problems.end(), warnings.begin(), warnings.end());
    // A call that had already failed keeps its own status, which says more.
    return status == kGood ? kBad : status;
}

int CallReport::finish(int status) const {
    if (!json_) {
        // Report first, warnings after it, also where both streams go to one file.
        std::fflush(stdout);
        for (const Problem &warning : warnings) fmt::print(stderr, "warning: {} ({})\n", warning.text(), warning.id);
        return status;
    }
    nlohmann::ordered_json json{{"schema", kJsonSchema},        {"command", command_},
                                {"ok", status == kGood},        {"exit_status", status},
                                {"problems", ToJson(problems)}, {"warnings", ToJson(warnings)}};
    // After the envelope, whose names a subcommand's part never uses.
    for (const auto &[name, value] : part.items()) json[name] = value;
    // Escaped to ASCII, and bytes that are no UTF-8 replaced: an odd file name must not end the report in an exception.
    fmt::print("{}\n", json.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace));
    return status;
}

} // namespace fixture
