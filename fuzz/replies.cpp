// The user-interface controller's side of the wire: it may refuse, garble, stretch and hold what it likes.
#include "fuzz/targets.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <sstream>

namespace fixture {

namespace {

constexpr std::size_t kBuffer = 64;
constexpr std::size_t kReplyAt = 24; // guards before and after it
constexpr Picoseconds kLongest = kSecond;

struct Exchange {
    bool reads;
    std::uint32_t command, length;
};

void MakeTrouble(Shape &shape, Board &board) {
    using At = SlaveFault::At;
    for (unsigned faults = shape.below(6); faults > 0; --faults)
        board.ui.inject({shape.pick({At::reply, At::reply, At::reply, At::data, At::address}), shape.below(20),
                         1 + shape.below(3), static_cast<std::uint8_t>(shape.below(256))});
    for (unsigned holds = shape.pick({0u, 0u, 1u, 2u}); holds > 0; --holds)
        board.two_wire_trouble.inject({shape.pick({LineFault::Line::scl, LineFault::Line::sda}), shape.below(256),
                                       shape.pick({LineFault::kForever, std::uint64_t{1 + shape.below(300)}})});
}

// The bytes of the last conversation, after its address: what the controller said, or what a held line made of it.
Bytes Said(const std::string &wire) {
    Bytes bytes;
    const std::size_t begin = wire.rfind('S');
    std::istringstream words(begin == std::string::npos ? "" : wire.substr(begin));
    std::string start, address;
    words >> start >> address;
    for (std::string word; words >> word && word.size() == 3 && word[0] != '(';)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    return bytes;
}

void CheckExchange(ModuleBoard &board, const Exchange &x, I2cMonitor &monitor) {
    StartedBoard &started = board.started();
    const std::uint32_t buffer = started.scratch(kBuffer), length = started.scratch(2);
    std::uint8_t *const bytes = started.at(buffer);
    std::fill_n(bytes, kBuffer, std::uint8_t{0xA5});
    started.at(length)[0] = static_cast<std::uint8_t>(x.length);
    started.at(length)[1] = 0;
    Bytes expected(bytes, bytes + kBuffer);
    monitor.take();
    const Picoseconds before = started.board().clock.now();
    const int result = board.call(x.reads ? "uiReadCmd" : "uiWriteCmd", x.command, buffer + kReplyAt, length);
    const std::string wire = monitor.take();
    Require(result >= 0 && result <= 7, "a result that no caller knows");
    Require(started.board().clock.now() - before < kLongest, "the controller holds the boot up");
    if (x.reads && result == 0) {
        Bytes said = Said(wire);
        Require(said.size() > x.length, fmt::format("{} bytes were taken: {}", x.length, wire));
        said.resize(x.length + 1); // the clocks that recover the bus may look like more
        Require(std::accumulate(said.begin(), said.end(), 0u) % 256 == 0, "a bad checksum was taken: " + wire);
        std::copy_n(said.begin(), x.length, expected.begin() + kReplyAt);
    }
    Require(std::equal(expected.begin(), expected.end(), bytes), "other bytes than were said: " + wire);
}

} // namespace

void FuzzReplies(std::span<const std::uint8_t> input) {
    Shape shape(input);
    ModuleBoard board;
    Board &wired = board.started().board();
    wired.ui.starting_time = shape.pick({Picoseconds{0}, 300 * kMillisecond});
    wired.ui.state = {shape.one_in(2), shape.one_in(2), shape.below(101)};
    I2cMonitor monitor(wired.net('B', 4), wired.net('B', 5));
    for (unsigned exchanges = shape.below(4); exchanges > 0; --exchanges) {
        MakeTrouble(shape, wired);
        const bool reads = !shape.one_in(3);
        CheckExchange(board,
                      {reads, shape.pick({0x63u, 0x01u, 0x05u, 0x60u, 0x62u, shape.below(256)}), shape.below(20)},
                      monitor);
    }
    wired.two_wire_trouble.clear();
    wired.ui.clear_faults();
    for (int i = 0; i < 9; ++i) board.call("I2C_SendNack"); // what was cut off ends
    for (int i = 0; i < 2; ++i) board.call("I2C_Stop");
    wired.clock.advance(kSecond);
    // The start of the board goes by replies. Whatever they say, a controller that is awake gets its level.
    wired.ui.state.awake = true;
    for (unsigned skip = 0; skip < 6; ++skip)
        if (shape.one_in(2))
            wired.ui.inject({SlaveFault::At::reply, 0, 1, static_cast<std::uint8_t>(shape.below(256))});
    wired.ui.log.clear();
    const std::uint32_t level = shape.pick({100u, 0u, 1u, 101u, shape.below(65536)});
    board.call("LCD_SetBackLiteIntensity", level);
    Require(wired.ui.log.size() <= 5, "more frames than the link has");
    for (const std::string &frame : wired.ui.log) Require(!frame.starts_with("bad"), frame);
    Require(wired.ui.state.level == std::min(level, 100u), "another level than was asked for");
}

} // namespace fixture
