#include "harness/command.h"

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace fixture {

namespace {

// A standard stream goes to a file without a name, until text() or the end of this object. A file, not a
// pipe: nobody reads while the subcommand runs, and a pipe would fill up.
class CapturedStream {
public:
    explicit CapturedStream(std::FILE *stream) : stream_(stream), file_(std::tmpfile()) {
        if (!file_) throw std::runtime_error("no temporary file for a standard stream");
        // What was printed before still belongs to the old target.
        std::fflush(stream_);
        saved_ = dup(fileno(stream_));
        dup2(fileno(file_), fileno(stream_));
    }
    ~CapturedStream() {
        restore();
        std::fclose(file_);
    }
    CapturedStream(const CapturedStream &) = delete;
    CapturedStream &operator=(const CapturedStream &) = delete;

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
        // Already restored: text() has been called before the destructor.
        if (saved_ < 0) return;
        std::fflush(stream_);
        dup2(saved_, fileno(stream_));
        close(saved_);
        saved_ = -1;
    }

    std::FILE *stream_;
    std::FILE *file_;
    int saved_ = -1;
};

CommandResult Run(std::span<AddCommand *const> commands, const std::vector<std::string> &arguments) {
    CapturedStream output(stdout), error(stderr);
    CommandResult result;
    result.exit_status = RunCall(commands, arguments);
    result.output = output.text();
    result.error = error.text();
    return result;
}

} // namespace

CommandResult RunCommand(AddCommand *add, const std::vector<std::string> &arguments) {
    return Run(std::span(&add, 1), arguments);
}

CommandResult RunFixture(const std::vector<std::string> &arguments) { return Run(AllCommands(), arguments); }

} // namespace fixture
