#include "tools/call_report.h"

#include "tools/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::string_view kWarningIds[] = {
    "beyond-the-chip", "fits-no-slot",     "foreign-maker",   "image-runs-on",    "launch-marker-overlap",
    "many-bad-blocks", "no-body",          "only-one-slot",   "record-block-bad", "replaced-in-place",
    "rescue-lost",     "rescue-rewritten", "resets-for-ever", "shared-page",      "slot-loses-room",
    "store-warning",   "trailing-bytes",   "unknown-build",
};

std::string UnknownId(const std::string &id) {
    if (std::find(WarningIds().begin(), WarningIds().end(), id) != WarningIds().end()) return "";
    std::string known;
    for (const std::string_view each : WarningIds()) known += fmt::format(" {}", each);
    return fmt::format("no warning \"{}\"; there are:{}", Printable(id), known);
}

} // namespace

std::span<const std::string_view> WarningIds() { return kWarningIds; }

void WarningOptions::add_options(CLI::App &command) {
    command.add_flag("--strict", strict, "fail the call, with exit status 1, where there is a warning");
    command.add_option("--allow", allowed, "warnings to leave out, by identifier")->check(UnknownId);
}

nlohmann::ordered_json TextJson(std::string_view text) { return Escaped(text); }

nlohmann::ordered_json SlotJson(std::string_view name) {
    nlohmann::ordered_json json{{"slot", nullptr}, {"name", name}};
    if (name.starts_with("bootloader")) json["slot"] = name.back() - '0';
    if (name == "rescue") json["slot"] = 2;
    return json;
}

nlohmann::ordered_json ToJson(const Problem &problem) {
    return {{"id", problem.id},
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
    problems.insert(problems.end(), warnings.begin(), warnings.end());
    return status == kGood ? kBad : status;
}

int CallReport::finish(int status) const {
    if (!json_) {
        std::fflush(stdout);
        for (const Problem &warning : warnings) fmt::print(stderr, "warning: {} ({})\n", warning.text(), warning.id);
        return status;
    }
    nlohmann::ordered_json json{{"schema", kJsonSchema},        {"command", command_},
                                {"ok", status == kGood},        {"exit_status", status},
                                {"problems", ToJson(problems)}, {"warnings", ToJson(warnings)}};
    // After the envelope, whose names a subcommand's part never uses.
    for (const auto &[name, value] : part.items()) json[name] = value;
    fmt::print("{}\n", json.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace));
    return status;
}

} // namespace fixture
