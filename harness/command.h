// One subcommand of `fixture`, called in this process.
#pragma once

#include "tools/commands.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fixture {

struct CommandResult {
    int exit_status = 0;
    std::string output; // standard output
    std::string error;  // standard error
    nlohmann::json json() const { return nlohmann::json::parse(output); }
};

// `add` adds the subcommand (tools/commands.h); `arguments` begin with its name.
CommandResult RunCommand(AddCommand *add, const std::vector<std::string> &arguments);
// Any of them.
CommandResult RunFixture(const std::vector<std::string> &arguments);

} // namespace fixture
