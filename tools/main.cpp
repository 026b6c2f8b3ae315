// fixture: the virtual fixture and the tools around it, one subcommand each.
#include "tools/commands.h"

#include "formats/file.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <fmt/format.h>

using namespace fixture;

namespace {

constexpr int kRefused = 1;
constexpr int kWrongCall = 2;
constexpr const char *kVersion = "fixture 1.0";

// Parse errors of every kind are a wrong call; help and version are none.
int Parse(CLI::App &app, int argc, const char *const *argv) {
    try {
        app.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrongCall;
    }
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("The virtual fixture: a board to run the bootloader on, and the tools for its images and chips",
                 "fixture");
    app.set_version_flag("--version", kVersion);
    app.set_help_all_flag("--help-all", "Print the help of every subcommand");
    app.require_subcommand(1);
    app.footer("Exit status: 0 good, 1 the thing examined is bad, 2 the call is wrong, 3 a run that ended badly.");

    int exit_status = 0;
    for (const auto add : {AddBootCommand, AddBankCommand, AddDiffCommand, AddDoctorCommand, AddEepromCommand,
                           AddExplainCommand, AddFlashCommand, AddImageCommand, AddSplashCommand, AddSweepCommand})
        add(app, exit_status);
    try {
        const int parsed = Parse(app, argc, argv);
        return parsed == 0 ? exit_status : parsed;
    } catch (const Refusal &refusal) {
        fmt::print(stderr, "fixture: {}\n", refusal.what());
        return kRefused;
    } catch (const std::exception &error) {
        fmt::print(stderr, "fixture: {}\n", error.what());
        return kWrongCall;
    }
}
