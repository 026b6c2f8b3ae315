#include "harness/command.h"

#include "formats/file.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <unistd.h>

namespace fixture {

namespace {

// Standard output goes to a file without a name, until text() or the end of this object. A file, not a pipe: nobody
// reads while the subcommand runs, and a pipe would fill up.
class CapturedOutput {
public:
    CapturedOutput() : file_(std::tmpfile()) {
        if (!file_) throw std::runtime_error("no temporary file for standard output");
        std::fflush(stdout); // what was printed before is not the subcommand's
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~CapturedOutput() {
        restore();
        std::fclose(file_);
    }
    CapturedOutput(const CapturedOutput &) = delete;
    CapturedOutput &operator=(const CapturedOutput &) = delete;

    std::string text() {
        restore();
        std::rewind(file_);
        std::string all;
        char part[4096];
        for (std::size_t count; (count = std::fread(part, 1, sizeof part, file_)) > 0;) all.append(part, count);
        return all;
    }

private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }

    std::FILE *file_;
    int saved_ = -1;
};

} // namespace

CommandResult RunCommand(void (*add)(CLI::App &, int &), std::vector<std::string> arguments) {
    CLI::App app;
    CommandResult result;
    add(app, result.exit_status);
    std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
    CapturedOutput output;
    try {
        app.parse(arguments);
        // As tools/main.cpp tells a bad input from a wrong call.
    } catch (const Refusal &refusal) {
        result = {1, "", refusal.what()};
    } catch (const std::exception &error) {
        result = {2, "", error.what()};
    }
    result.output = output.text();
    return result;
}

} // namespace fixture
