// The subcommands of `fixture`. Each adds itself to the command line, with its options and help, and leaves the exit
// status in `exit_status` when it has run:
//
//   0  good        1  the thing examined is bad        2  the call is wrong        3  the run ended badly (boot)
//
// A command throws where it cannot go on, with the file and what is wrong: a Refusal (files.h) for an input that cannot
// work, any other std::exception for a wrong call. `fixture` prints the text and ends with 1 or 2. `app` and
// `exit_status` outlive the parse.
#pragma once

namespace CLI {
class App;
}

namespace fixture {

void AddBankCommand(CLI::App &app, int &exit_status);
void AddBootCommand(CLI::App &app, int &exit_status);
void AddDiffCommand(CLI::App &app, int &exit_status);
void AddDoctorCommand(CLI::App &app, int &exit_status);
void AddEepromCommand(CLI::App &app, int &exit_status);
void AddExplainCommand(CLI::App &app, int &exit_status);
void AddFlashCommand(CLI::App &app, int &exit_status);
void AddImageCommand(CLI::App &app, int &exit_status);
void AddSplashCommand(CLI::App &app, int &exit_status);
void AddSweepCommand(CLI::App &app, int &exit_status);

} // namespace fixture
