// The subcommands of `fixture`. Each adds itself to the command line, with its options and help, and leaves the exit
// status in `exit_status` when it has run:
//
//   0  good        1  the thing examined is bad        2  the call is wrong        3  the run ended badly (boot)
//
// A command throws std::runtime_error, with the file and what is wrong, where the call cannot be carried out; `fixture`
// prints it and ends with 2. `app` and `exit_status` outlive the parse.
#pragma once

namespace CLI {
class App;
}

void AddBankCommand(CLI::App &app, int &exit_status);
void AddBootCommand(CLI::App &app, int &exit_status);
void AddImageCommand(CLI::App &app, int &exit_status);
