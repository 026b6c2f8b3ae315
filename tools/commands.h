// The subcommands of `fixture`, and a call of it as a whole.
//
// Each subcommand adds itself to the command line, with its options and help, and leaves the exit status in
// `exit_status` when it has run. It reports with a CallReport (call_report.h) and throws where it cannot go on: a
// Refusal (formats/refusal.h), whose fault gives the exit status. `app` and `exit_status` outlive the parse.
#pragma once

#include "formats/refusal.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

class Command;

// What a call's exit status says. README.md has the table for users.
enum ExitStatus : int {
    kGood = 0,
    kBad = 1,       // the thing examined is bad, or an input cannot work
    kWrongCall = 2, // options that make no sense, or an input that cannot be read
    kRunEndedBadly = 3,
    kNotWritten = 4,   // a file cannot be written, or another process has it; nothing was changed
    kStreamFailed = 5, // standard output or standard error is closed or full
    kOwnFault = 6,     // a fault of this program
};
int StatusOf(Fault fault);

using AddCommand = void(Command &app, int &exit_status);
AddCommand AddBankCommand, AddBootCommand, AddDescribeCommand, AddDiffCommand, AddDoctorCommand, AddEepromCommand,
    AddExplainCommand, AddFlashCommand, AddImageCommand, AddSplashCommand, AddSweepCommand;
// All of them, in the order of the help.
std::span<AddCommand *const> AllCommands();

// "fixture 1.0, revision 165 of 2026/11/22 12:00:01", and whether its working copy was modified.
std::string VersionText();

// The text between single quotes, as one word for a shell.
std::string Quoted(std::string_view text);
// The text as one word of a command that is printed to be pasted: quoted only where a shell would take it apart, and
// with nothing in it that can drive a terminal.
std::string ShellWord(std::string_view text);

// One call, with the arguments after the program's name. Prints what there is to print, errors as well, in the form
// that the call asks for, and returns the exit status. Nothing is thrown.
int RunCall(std::span<AddCommand *const> commands, const std::vector<std::string> &arguments);

} // namespace fixture
