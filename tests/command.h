// One subcommand of `fixture`, called from a test.
#pragma once

#include "files.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>
#include <string>
#include <vector>

struct CommandResult {
    int exit_status = 0;
    std::string output; // standard output
    std::string error;  // the message of a refusal or of a wrong call
};

inline CommandResult RunCommand(void (*add)(CLI::App &, int &), std::vector<std::string> arguments) {
    CLI::App app;
    CommandResult result;
    add(app, result.exit_status);
    std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
    testing::internal::CaptureStdout();
    try {
        app.parse(arguments);
    } catch (const Refusal &refusal) {
        result = {1, "", refusal.what()};
    } catch (const std::exception &error) {
        result = {2, "", error.what()};
    }
    result.output = testing::internal::GetCapturedStdout();
    return result;
}
