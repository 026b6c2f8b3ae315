// One subcommand of `fixture`, called in this process.
#pragma once

#include "tools/commands.h"

#include <string>
#include <vector>

namespace fixture {

struct CommandResult {
    int exit_status = 0;
    std::string output; // standard output
    std::string error;  // standard error
};

// `add` adds the subcommand (tools/commands.h); `arguments` begin with its name.
CommandResult RunCommand(AddCommand *add, const std::vector<std::string> &arguments);
// Any of several.
CommandResult RunCommand(std::span<AddCommand *const> commands, const std::vector<std::string> &arguments);

} // namespace fixture
