// One subcommand of `fixture`, called in this process.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace fixture {

struct CommandResult {
    int exit_status = 0;
    std::string output; // standard output
    std::string error;  // the message of a refusal or of a wrong call
};

// `add` adds the subcommand (tools/commands.h); `arguments` begin with its name.
CommandResult RunCommand(void (*add)(CLI::App &, int &), std::vector<std::string> arguments);

} // namespace fixture
