// What a call comes to, for people and for programs (docs/json.md).
//
//   CallReport outcome("image info", json);
//   outcome.part["size"] = judged.size;
//   outcome.problems.push_back({"bad-sums", "bootloader.bin", "sum1 0x12345678", "0x87654321"});
//   const int exit_status = outcome.finish(judged.verdict() == ImageVerdict::good ? kGood : kBad);
//
// With --json standard output carries one object and nothing else. Otherwise warnings go to standard error, a line
// each.
#pragma once

#include "formats/refusal.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

class Command;

inline constexpr const char *kJsonSchema = "fixture/1";

// --strict and --allow: which warnings fail a call.
struct WarningOptions {
    bool strict = false;
    std::vector<std::string> allowed;
    void add_options(Command &command);
};

class CallReport {
public:
    CallReport(std::string command, bool json) : json_(json), command_(std::move(command)) {}

    bool json() const { return json_; }
    Problems problems;
    Problems warnings;
    nlohmann::ordered_json part = nlohmann::ordered_json::object(); // the subcommand's own, beside the envelope's names

    // Leaves out what the call allows; with --strict a warning that is left makes a good status a bad one.
    int judged(int status, const WarningOptions &options);
    // Prints the object, or the warnings, and returns the status.
    int finish(int status) const;

private:
    bool json_;
    std::string command_;
};

nlohmann::ordered_json ToJson(const Problem &problem);
nlohmann::ordered_json ToJson(const Problems &problems);
// "slot" and "name" of a slot: 0 and 1 are the bootloaders, 2 is the rescue image; the version record has no number.
nlohmann::ordered_json SlotJson(std::string_view name);
// Text that came from a file or a call: every byte can be told from the result.
nlohmann::ordered_json TextJson(std::string_view text);

} // namespace fixture
