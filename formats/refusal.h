// What is wrong with something, in parts that a program can use and in one line that a person can read; and the one
// exception that carries it.
//
//   throw Refusal(file, "2,047 bytes", "2,048", "wrong-length");
//   throw Refusal(Fault::unreadable, {"missing", file.string(), "no such file", ""});
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

struct Problem {
    std::string id;       // stable and short, like "bad-sums": what --allow and programs go by
    std::string where;    // a file, "FILE: offset 20", a slot, a bank
    std::string found;    // what is there
    std::string expected; // what should be; may be empty

    // "WHERE: FOUND; expected EXPECTED". Nothing in it can drive a terminal.
    std::string text() const;
    friend bool operator==(const Problem &, const Problem &) = default;
};
using Problems = std::vector<Problem>;

// Text from a file or a call as it may be printed: control characters, bytes that are no UTF-8 and characters that turn
// the direction of writing become "\xNN".
std::string Printable(std::string_view text);
// The same for a value out of a file. A backslash is doubled, so every byte can be told from the result.
std::string Escaped(std::string_view text);

// Whose fault it is; the exit status of `fixture` follows from it (README.md).
enum class Fault {
    content,    // an input was read and cannot work
    call,       // the call asks for something that makes no sense
    unreadable, // an input is not there, is no regular file or cannot be read
    output,     // a file cannot be written, or another process has it
};

class Refusal : public std::runtime_error {
public:
    explicit Refusal(Fault fault, Problem problem);
    // An input that cannot work.
    Refusal(const std::filesystem::path &file, std::string_view found, std::string_view expected = "",
            std::string_view id = "bad-content");

    Fault fault() const { return fault_; }
    const Problem &problem() const { return problem_; }

private:
    Fault fault_;
    Problem problem_;
};

} // namespace fixture
