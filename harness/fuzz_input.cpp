#include "harness/fuzz_input.h"

#include "formats/parameter_store.h"
#include "formats/stored_image.h"
#include "harness/command.h"

#include <algorithm>
#include <cassert>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>

namespace fixture {

void Require(bool holds, std::string_view what) {
    if (!holds) throw std::logic_error(std::string(what));
}

std::uint32_t Shape::below(std::uint32_t limit) {
    assert(limit > 0 && "there is no number below 0");
    std::uint32_t value = 0;
    // Only as many bytes as the limit needs, so that a mutation of one byte changes one decision. Without bytes left it
    // is 0: a short input is a simple one.
    for (std::uint32_t range = 1; range < limit && !rest_.empty(); range *= 256, rest_ = rest_.subspan(1))
        value = value * 256 + rest_.front();
    return value % limit;
}

std::uint32_t Shape::word() { return below(65536) << 16 | below(65536); }

// Bounds are where mistakes are: half of the numbers lie at a power of two or below 256.
std::uint32_t Shape::number() {
    switch (below(4)) {
    case 0: return below(256);
    case 1: return (1u << below(32)) + below(8) - 4;
    case 2: return below(65536);
    default: return word();
    }
}

Bytes Shape::bytes(std::size_t most) {
    const std::size_t wanted = below(static_cast<std::uint32_t>(most) + 1);
    const std::span<const std::uint8_t> taken = rest_.first(std::min(wanted, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return {taken.begin(), taken.end()};
}

std::string Shape::text(std::size_t most) { return AsText(bytes(most)); }

std::optional<Bytes> Shape::whole_in(std::uint32_t times) {
    if (!one_in(times)) return std::nullopt;
    return Bytes(rest_.begin(), rest_.end());
}

void Append(Bytes &bytes, std::span<const std::uint8_t> more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

void Put32(Bytes &bytes, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) bytes.at(at + i) = static_cast<std::uint8_t>(value >> 8 * i);
}

Bytes MakeImage(Shape &shape) {
    // The fuzzer's own bytes now and then: the mutations below never leave the shape of an image far behind.
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return *whole;
    Bytes body(shape.pick({5u, 0u, 1u, 7u, 8u, 9u, 2048u - 32, 2048u - 31, 4096u, 9000u}), 0x5A);
    const Bytes start = shape.bytes(64);
    std::copy_n(start.begin(), std::min(start.size(), body.size()), body.begin());
    Bytes image = Wrap(body);
    const auto size = static_cast<std::uint32_t>(image.size());
    if (shape.one_in(4)) image[shape.below(20)] ^= static_cast<std::uint8_t>(1 + shape.below(255));
    if (shape.one_in(4)) Put32(image, 20, shape.pick({size - 1, size + 1, size + 32, 0u, 31u, 32u, shape.number()}));
    if (shape.one_in(4)) image[24 + shape.below(8)] ^= static_cast<std::uint8_t>(1 + shape.below(255));
    if (shape.one_in(8)) image.resize(shape.below(size + 1));
    return image;
}

namespace {

void Put16(Bytes &bytes, std::size_t at, std::uint32_t value) {
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
}

// A sector's image: records, some of them cut short or without end, and a header that fits them or does not.
Bytes MakeSector(Shape &shape) {
    Bytes image(6);
    for (unsigned records = shape.pick({1u, 0u, 2u, 3u, 4u, 6u, 20u, 60u}); records > 0; --records) {
        const Bytes data = shape.bytes(15);
        const unsigned identifier = shape.one_in(8) ? shape.below(4096) : kSomeIdentifiers[shape.below(8)];
        const auto length = static_cast<unsigned>(shape.one_in(16) ? shape.below(16) : data.size());
        image.resize(image.size() + 2);
        Put16(image, image.size() - 2, identifier << 4 | length);
        Append(image, data);
    }
    if (!shape.one_in(8)) image.insert(image.end(), {0xFF, 0xFF});
    if (shape.one_in(8)) Append(image, shape.bytes(8));
    const auto used = static_cast<std::uint32_t>(image.size());
    const std::uint32_t length =
        shape.one_in(6)
            ? shape.pick({0u, 7u, 8u, 9u, 255u, 256u, 257u, 999u, 1000u, 1001u, used - 1, used + 1, shape.below(65536)})
            : used;
    Put16(image, 0, shape.pick({1u, 2u, 0u, 0xFFFEu, 0xFFFFu, shape.below(65536)}));
    Put16(image, 2, length);
    std::uint32_t sum = std::accumulate(image.begin(), image.begin() + std::min(length, used), 0u);
    if (length > image.size()) sum += (length - used) * 0xFF;
    Put16(image, 4, shape.one_in(8) ? shape.below(65536) : 0x10000 - (sum & 0xFFFF));
    return image;
}

} // namespace

EepromContents MakeEeprom(Shape &shape) {
    EepromContents chip;
    if (const std::optional<Bytes> whole = shape.whole_in(16)) {
        std::copy_n(whole->begin(), std::min(whole->size(), chip.bytes.size()), chip.bytes.begin());
        return chip;
    }
    for (const int sector : {0, 1})
        if (!shape.one_in(4)) PlaceStoreImage(chip.bytes, sector, MakeSector(shape));
    return chip;
}

ModuleBoard::ModuleBoard(Chips chips)
    : chips_(std::move(chips)), started_(Processor::host, chips_, volume(), {}, [](Board &board) {
          board.eeprom.write_time = 50 * kMicrosecond; // every poll is simulated
      }) {}

// Throws where the run itself did not: a violation is a finding, but must not hide the one that came first.
ModuleBoard::~ModuleBoard() noexcept(false) {
    const std::vector<JournalEntry> &violations = started_.board().journal.violations();
    if (!violations.empty() && std::uncaught_exceptions() == 0)
        Require(false, violations.front().where + ": " + violations.front().what);
}

bool ModuleBoard::resets(const char *routine, const std::vector<std::uint32_t> &arguments) {
    std::uint32_t result = 0;
    const StageResult end = started_.try_call(routine, arguments, result);
    Require(end.end == StageEnd::stopped_at || end.end == StageEnd::reset,
            std::string(routine) + " ended at " + end.place);
    return end.end == StageEnd::reset;
}

const char *ModuleBoard::text(const char *routine) {
    return reinterpret_cast<const char *>(std::uintptr_t{started_.call(routine)});
}

std::optional<Bytes> ModuleBoard::parameter(unsigned identifier) {
    const std::uint32_t data = started_.scratch(16), length = started_.scratch(4);
    if (call("readEEpromParameter", identifier, data, length) != 0) return std::nullopt;
    return Bytes(started_.at(data), started_.at(data) + *started_.at(length));
}

// One for the whole process: a fuzzer makes a board for every input.
const std::filesystem::path &ModuleBoard::volume() {
    static const TemporaryDirectory directory;
    return directory.path();
}

std::filesystem::path ScratchFile(const char *name, std::span<const std::uint8_t> content) {
    std::filesystem::path file = ModuleBoard::volume() / name;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    return file;
}

void RunOnFiles(AddCommand *add, const std::vector<std::string> &arguments) {
    const CommandResult result = RunCommand(add, arguments);
    Require(result.exit_status >= 0 && result.exit_status <= 2, "exit status");
    const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    Require(!json || result.exit_status == 2 || nlohmann::json::accept(result.output), "no JSON: " + result.output);
    // A user with many files has to see which one is meant.
    Require(result.error.empty() || result.error.find(ModuleBoard::volume().string()) != std::string::npos,
            "a message that names no file: " + result.error);
}

} // namespace fixture
