// The serial DataFlash's model, from the datasheets' facts alone.
#include "fixture/parts/at45.h"
#include "machine/chip_store.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace fixture {

namespace {

using Bytes = std::vector<std::uint8_t>;

// A chip on the wire: commands go out byte by byte, each under a selection of its own.
struct Wire {
    explicit Wire(At45Contents &contents) : chip(clock, journal, supply, contents), part(contents.part()) {}

    // Sends a command and returns what comes back for `read` bytes behind it.
    Bytes talk(const Bytes &sent, std::size_t read = 0) {
        chip.select();
        for (const std::uint8_t byte : sent) chip.exchange(byte);
        Bytes received;
        for (std::size_t n = 0; n < read; n++) received.push_back(chip.exchange(0));
        chip.deselect();
        return received;
    }
    // The same with a place behind the opcode, and `data` behind that.
    Bytes talk_to(std::uint8_t opcode, std::uint32_t page, std::uint32_t offset, const Bytes &data,
                  std::size_t read = 0) {
        const std::uint32_t address = page << part.offset_bits | offset;
        Bytes bytes{opcode};
        for (unsigned n = part.address_bytes; n-- > 0;) bytes.push_back(static_cast<std::uint8_t>(address >> 8 * n));
        bytes.insert(bytes.end(), data.begin(), data.end());
        return talk(bytes, read);
    }
    void page_command(std::uint8_t opcode, std::uint32_t page, Picoseconds wait = 50 * kMillisecond) {
        talk_to(opcode, page, 0, {});
        clock.advance(wait);
    }
    Bytes array(std::uint32_t page, std::uint32_t offset, std::size_t length) {
        return talk_to(0xE8, page, offset, Bytes(7 - part.address_bytes), length);
    }
    std::uint8_t status() { return talk({0xD7}, 1)[0]; }
    std::size_t violations() const { return journal.violations().size(); }

    Clock clock;
    Journal journal{clock};
    PowerSupply supply;
    At45 chip;
    At45Part part;
};

TEST(At45Model, ProgramsPagesThroughBuffersOnEveryPart) {
    for (const At45Part &part : At45Parts()) {
        At45Contents contents(part);
        Wire wire(contents);
        const std::uint32_t last = part.page_bytes - 1;
        wire.talk_to(0x84, 0, 0, Bytes(part.page_bytes, 0xF0));
        wire.talk_to(0x84, 0, last, {0x11, 0x22}); // wraps to the buffer's start
        wire.page_command(0x83, part.pages - 1);
        wire.talk_to(0x87, 0, 0, Bytes(part.page_bytes, 0x3C));
        wire.page_command(0x89, 0);
        // Continuous read: into the last page, and over the chip's end to its first byte.
        EXPECT_EQ(wire.array(part.pages - 1, 0, 2), (Bytes{0x22, 0xF0})) << part.name;
        EXPECT_EQ(wire.array(part.pages - 1, last, 2), (Bytes{0x11, 0x3C}));
        wire.page_command(0x55, part.pages - 1);
        EXPECT_EQ(wire.talk_to(0xD6, 0, last, {0}, 2), (Bytes{0x11, 0x22}));
        wire.page_command(0x81, part.pages - 1);
        EXPECT_TRUE(contents.erased(part.pages - 1));
        EXPECT_EQ(wire.violations(), 0u);
    }
}

TEST(At45Model, OperationsTakeTheirTimeAndPollsJumpToItsEnd) {
    const std::pair<std::uint8_t, Picoseconds> rows[] = {
        {0x53, 200 * kMicrosecond}, {0x83, 17 * kMillisecond}, {0x88, 3 * kMillisecond}, {0x81, 15 * kMillisecond}};
    for (const auto &[opcode, time] : rows) {
        At45Contents contents(*FindAt45Part("AT45DB321"));
        Wire wire(contents);
        wire.page_command(opcode, 7, 0);
        for (int poll = 0; poll < 2; poll++) EXPECT_EQ(wire.status(), 0x34);
        EXPECT_EQ(wire.clock.now(), 0u);
        EXPECT_EQ(wire.status(), 0xB4);
        EXPECT_EQ(wire.clock.now(), time);
    }
}

TEST(At45Model, WhatTheDatasheetForbidsIsRecordedAndIgnored) {
    const struct {
        const char *what;
        Bytes first; // sent before, without a wait
        Bytes then;
        std::size_t violations;
        std::uint8_t left = 0x4F; // in page 2
    } rows[] = {
        {"unknown opcode", {}, {0x99}, 1},
        {"command cut short", {}, {0x81, 0, 8}, 1},
        {"byte beyond the page", {}, {0x84, 0, 2, 0x10, 0}, 1},
        {"erase while busy", {0x81, 0, 4, 0}, {0x81, 0, 8, 0}, 1},
        {"read while busy", {0x81, 0, 4, 0}, {0xE8, 0, 0, 0, 0, 0, 0, 0}, 1},
        {"the buffer in use", {0x83, 0, 4, 0}, {0x84, 0, 0, 0, 1}, 1},
        {"the other buffer", {0x83, 0, 4, 0}, {0x87, 0, 0, 0, 1}, 0},
        {"status while busy", {0x83, 0, 4, 0}, {0xD7, 0}, 0},
        {"program without erase only clears bits", {0x84, 0, 0, 0, 0x35}, {0x88, 0, 8, 0}, 1, 0x05},
    };
    for (const auto &row : rows) {
        At45Contents contents(*FindAt45Part("AT45DB321"));
        contents.write(2 * 528, Bytes{0x4F});
        Wire wire(contents);
        if (!row.first.empty()) wire.talk(row.first);
        wire.talk(row.then);
        EXPECT_EQ(wire.violations(), row.violations) << row.what;
        EXPECT_EQ(contents.page(2)[0], row.left) << row.what;
    }
}

TEST(At45Model, FaultsStrikeByPlaceAndCount) {
    At45Contents contents(*FindAt45Part("AT45DB642"));
    Wire wire(contents);
    contents.faults = {{.kind = At45Fault::lose_program, .page = 3, .skip = 1},
                       {.kind = At45Fault::wrong_bits, .page = 4, .offset = 1, .mask = 0x81},
                       {.kind = At45Fault::stay_busy, .page = 5}};
    const auto program = [&](std::uint32_t page, std::uint8_t value) {
        wire.talk_to(0x84, 0, 0, Bytes(1056, value));
        wire.page_command(0x83, page);
        return wire.array(page, 0, 2);
    };
    EXPECT_EQ(program(3, 0x10), (Bytes{0x10, 0x10}));
    EXPECT_EQ(program(3, 0x20), (Bytes{0x10, 0x10})) << "the second program is lost";
    EXPECT_EQ(program(3, 0x30), (Bytes{0x30, 0x30}));
    EXPECT_EQ(program(4, 0x40), (Bytes{0x40, 0xC1}));
    EXPECT_EQ(program(5, 0x50), (Bytes{0xFF, 0xFF})) << "busy for good: no answer";
    EXPECT_EQ(wire.status(), 0x3C);
    EXPECT_EQ(wire.violations(), 0u) << "a driver that gives up waiting does nothing wrong";
}

// After a cut the page is old, new or something between; the chip neither answers nor changes any more.
TEST(At45Model, APowerCutTearsThePage) {
    int mixed = 0;
    for (const std::uint8_t opcode : Bytes{0x81, 0x83, 0x88})
        for (const CutMoment moment : {CutMoment::before, CutMoment::torn, CutMoment::after})
            for (std::uint64_t seed = 0; seed < 8; seed++) {
                At45Contents contents(*FindAt45Part("AT45DB321"));
                const Bytes before(528, opcode == 0x88 ? 0xFF : 0x66), after(528, opcode == 0x81 ? 0xFF : 0x5A);
                contents.set_page(9, before);
                const At45Contents snapshot = contents;
                Wire wire(contents);
                wire.talk_to(0x84, 0, 0, after);
                wire.supply.plan(PowerCut{0, moment, seed});
                wire.page_command(opcode, 9);
                EXPECT_TRUE(wire.supply.fired());
                EXPECT_EQ(snapshot.page(9), before) << "a snapshot keeps its bytes";
                EXPECT_TRUE(moment != CutMoment::before || contents == snapshot);
                EXPECT_TRUE(moment != CutMoment::after || contents.page(9) == after);
                mixed += moment == CutMoment::torn && contents.page(9) != before && contents.page(9) != after;
                EXPECT_EQ(wire.status(), 0xFF);
            }
    EXPECT_GT(mixed, 20);
}

TEST(At45Model, ContentsSurviveInFiles) {
    const std::filesystem::path file = std::filesystem::temp_directory_path() / ("at45-" + std::to_string(std::rand()));
    At45Contents contents(*FindAt45Part("AT45DB161")), loaded = contents;
    contents.write(528 * 2 - 1, Bytes{1, 2});
    EXPECT_EQ(contents.read(528 * 2 - 2, 4), (Bytes{0xFF, 1, 2, 0xFF}));
    SaveChip(contents, file);
    EXPECT_EQ(std::filesystem::file_size(file), 528u * 3);
    loaded.write(100000, Bytes{7}); // replaced by what the file holds
    LoadChip(loaded, file);
    EXPECT_EQ(loaded, contents);
    std::filesystem::resize_file(file, 528 * 2 + 1);
    LoadChip(loaded, file);
    EXPECT_EQ(loaded, contents) << "a short file is erased to its end";
    std::filesystem::resize_file(file, contents.bytes() + 1);
    EXPECT_THROW(LoadChip(loaded, file), std::runtime_error);
    std::filesystem::remove(file);
    EXPECT_THROW(contents.write(contents.bytes(), Bytes{1}), std::out_of_range);
}

} // namespace

} // namespace fixture
