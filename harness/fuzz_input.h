// What fuzz targets stand on: choices from an input, what they build of them, and a board to try it on.
//
// An input is read as choices, which say what parts the file or the chip has and which of them are wrong; each target
// takes the bytes as they are for some inputs. Wherever two readers of the same bytes exist, the bootloader's and a
// tool's, they agree. Findings are what the sanitizers report, every exception that leaves a target, and time-outs.
#pragma once

#include "formats/file.h"
#include "harness/started_board.h"
#include "harness/texts.h"
#include "tools/commands.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fixture {

// Throws what a finding is called, with its details.
void Require(bool holds, std::string_view what);

// Choices from an input. An input that has ended chooses 0 and empty texts for all the rest.
class Shape {
public:
    explicit Shape(std::span<const std::uint8_t> input) : rest_(input) {}
    std::uint32_t below(std::uint32_t limit); // 0 to limit - 1
    bool one_in(std::uint32_t times) { return below(times) == times - 1; }
    std::uint32_t word();
    std::uint32_t number(); // 0, a power of two or another, and what lies around it
    Bytes bytes(std::size_t most);
    std::string text(std::size_t most);
    // All that is left, in about one input out of `times`; otherwise nothing.
    std::optional<Bytes> whole_in(std::uint32_t times);
    template <typename Value> Value pick(std::initializer_list<Value> values) {
        return values.begin()[below(static_cast<std::uint32_t>(values.size()))];
    }
    // One of the first `count`; of all where that is 0.
    template <typename Values> const auto &one_of(const Values &values, std::size_t count = 0) {
        return values[below(static_cast<std::uint32_t>(count ? count : values.size()))];
    }

private:
    std::span<const std::uint8_t> rest_;
};

void Append(Bytes &bytes, std::span<const std::uint8_t> more);
void Put32(Bytes &bytes, std::size_t at, std::uint32_t value); // little-endian

// A stored image, right or wrong in some part, with a short body.
Bytes MakeImage(Shape &shape);

// A parameter EEPROM, right or wrong in some part of its sectors, with some of these parameters and others.
inline constexpr unsigned kSomeIdentifiers[] = {9, 10, 11, 12, 0, 77, 0x123, 0xFFE};
EepromContents MakeEeprom(Shape &shape);

// A board whose modules have just started, natively: with fresh data and an empty heap.
class ModuleBoard {
public:
    explicit ModuleBoard(Chips chips = {});
    ~ModuleBoard() noexcept(false);                                                     // has seen no violation
    void start_driver(bool nand) { call(nand ? "NandFlash_if_Init" : "SDFlash_Init"); } // of raw flash

    // The result of a routine that returns.
    template <typename... Arguments> int call(const char *routine, Arguments... arguments) {
        return static_cast<int>(started_.call(routine, arguments...));
    }
    // Whether a routine that may come back has reset the processor instead.
    bool resets(const char *routine, const std::vector<std::uint32_t> &arguments);
    const char *text(const char *routine);               // what a routine without arguments returns
    std::optional<Bytes> parameter(unsigned identifier); // as the bootloader looks it up
    StartedBoard &started() { return started_; }
    Chips &chips() { return chips_; }

    // One directory for all boards of the process.
    static const std::filesystem::path &volume();

private:
    Chips chips_;
    StartedBoard started_;
};

// One file of the process's own directory.
std::filesystem::path ScratchFile(const char *name, std::span<const std::uint8_t> content);

// Calls a subcommand of `fixture` on files of that directory. It ends with 0 or 1, or with a message that names one.
void RunOnFiles(AddCommand *add, const std::vector<std::string> &arguments);

} // namespace fixture
