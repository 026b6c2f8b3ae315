// The parameter store against the 24LC16's model; what it should hold is told by the chip file tool's own reader.
#include "formats/parameter_store.h"
#include "tests/processors.h"

#include <array>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <numeric>
#include <regex>
#include <twi_device.h>

namespace fixture {

namespace {

using At = SlaveFault::At;
using Data = std::vector<std::uint8_t>;
using Parameters = std::map<unsigned, Data>;

// One sector with an image, the other one with the remains of an older image under a clean header.
EepromContents ChipWith(const Parameters &parameters, int sector = 0) {
    EepromContents chip;
    Data old = MakeStoreImage(1, {{9, {1, 1, 1, 1}}, {77, Data(15, 0x77)}, {78, Data(15, 0x78)}});
    std::fill_n(old.begin(), 6, std::uint8_t{0xFF});
    PlaceStoreImage(chip.bytes, 1 - sector, old);
    std::vector<StoredParameter> list;
    for (const auto &[identifier, data] : parameters) list.push_back({identifier, data});
    PlaceStoreImage(chip.bytes, sector, MakeStoreImage(1, list));
    return chip;
}

class ParameterStore : public testing::TestWithParam<Processor> {
protected:
    Chips chips;
    std::unique_ptr<StartedBoard> started;
    std::uint32_t buffer = 0;
    std::uint32_t count = 0;
    Picoseconds write_time = 50 * kMicrosecond; // of the chip; short, since every poll is simulated

    // A cold boot. Throws std::runtime_error if the power goes on the way to main.
    void boot(const std::optional<PowerCut> &cut = std::nullopt) {
        started.reset();
        started = std::make_unique<StartedBoard>(GetParam(), chips, "", BoardOptions{}, [&](Board &board) {
            board.supply.plan(cut);
            board.eeprom.write_time = write_time;
        });
        buffer = started->scratch(4096);
        count = started->scratch(4);
    }
    void put(const Data &data) { std::copy(data.begin(), data.end(), started->at(buffer)); }
    unsigned get_count() { return started->at(count)[0] + 0x100u * started->at(count)[1]; }

    std::optional<Data> lookup(unsigned identifier) {
        if (started->call("readEEpromParameter", identifier, buffer, count) != 0) return std::nullopt;
        return Data(started->at(buffer), started->at(buffer) + get_count());
    }
    std::uint32_t update(unsigned identifier, const Data &data) {
        put(data);
        return started->call("WriteEEpromParameter", identifier, buffer, data.size());
    }
    // What the bootloader finds of the given identifiers.
    Parameters found(const Parameters &wanted) {
        Parameters parameters;
        for (const auto &[identifier, data] : wanted)
            if (const std::optional<Data> stored = lookup(identifier)) parameters[identifier] = *stored;
        return parameters;
    }
    void TearDown() override { EXPECT_TRUE(!started || started->board().journal.violations().empty()); }
};

struct Transfer {
    const char *name, *routine;
    unsigned address, bytes, result, counted;
    const char *wire; // without the data bytes; null: not looked at
    std::vector<SlaveFault> device = {};
    std::vector<LineFault> lines = {};
};

constexpr const char *kRead = "ReadEEprom_24LC16";
constexpr const char *kWrite = "WriteEEprom_24LC16";

const Transfer kTransfers[] = {
    {"pages", kWrite, 0x00C, 20, 0, 20, "S A0+ 0C+ *4 P S A0+ 10+ *16 P"},
    {"nothing to write", kWrite, 0x800, 0, 0, 0, ""},
    {"write above the chip", kWrite, 0x801, 0, 1, 0, ""},
    {"write too much", kWrite, 0, 0x801, 1, 0x801, ""},
    {"write over the end", kWrite, 0x7F8, 16, 0, 16, "S A6+ F8+ *8 P S A8+ 00+ *8 P"},
    {"data refused", kWrite, 0x010, 40, 7, 16, nullptr, {{At::data, 20}}},
    {"write stop held", kWrite, 0x010, 2, 4, 0, nullptr, {}, {{LineFault::Line::scl, 37}}},
    // One budget for all pages.
    {"9,999 refusals", kWrite, 0x200, 32, 0, 32, nullptr, {{At::address, 0, 6000}, {At::address, 6001, 3999}}},
    {"10,000 refusals", kWrite, 0x200, 32, 5, 16, nullptr, {{At::address, 0, 6000}, {At::address, 6001, 4000}}},

    {"blocks", kRead, 0x4F0, 32, 0, 32, "S A4+ F0+ Sr A5+ *16 P S A4+ 00+ Sr A5+ *16 P"},
    {"read over the end", kRead, 0x7FF, 2, 1, 2, ""},
    {"read above the chip", kRead, 0x801, 0, 1, 0, ""},
    {"nothing to read", kRead, 0x800, 0, 0, 0, ""},
    // A refusal is followed by no stop.
    {"first piece fails", kRead, 0x0F0, 32, 0, 32, "S A0- Sr A0+ 00+ Sr A1+ *16 P", {{At::address}}},
    {"last piece fails", kRead, 0x0F0, 32, 5, 32, nullptr, {{At::address, 2}}},
    {"no byte comes", kRead, 0x0F0, 32, 2, 0, nullptr, {}, {{LineFault::Line::scl, 29, 150}}},
    {"no byte comes, nor the stop", kRead, 0x0F0, 32, 4, 0, nullptr, {}, {{LineFault::Line::scl, 29}}},
    {"broken off, goes on after", kRead, 0x000, 4, 0, 4, nullptr, {}, {{LineFault::Line::scl, 40, 150}}},
};

// With the data bytes, which are EE, counted: "S A0+ 0C+ *2 P".
std::string Shortened(const std::string &wire) {
    static const std::regex kDataBytes("(EE[+-] )+");
    std::string text = wire + " ";
    for (std::smatch run; std::regex_search(text, run, kDataBytes);)
        text = fmt::format("{}*{} {}", run.prefix().str(), run.length() / 4, run.suffix().str());
    text.pop_back();
    return text;
}

TEST_P(ParameterStore, RawTransfers) {
    write_time = 0;
    boot();
    Board &board = started->board();
    I2cMonitor monitor(board.net('B', 4), board.net('B', 5));
    chips.eeprom.bytes.fill(0xEE);
    put(Data(64, 0xEE));
    for (const Transfer &t : kTransfers) {
        SCOPED_TRACE(t.name);
        board.eeprom.clear_faults();
        board.two_wire_trouble.clear();
        started->call("I2C_Stop");
        monitor.take();
        for (const SlaveFault &fault : t.device) board.eeprom.inject(fault);
        for (const LineFault &fault : t.lines) board.two_wire_trouble.inject(fault);
        std::memcpy(started->at(count), &t.bytes, 2);
        EXPECT_EQ(started->call(t.routine, t.address, buffer, count), t.result);
        EXPECT_EQ(get_count(), t.counted);
        const std::string wire = Shortened(monitor.take());
        EXPECT_EQ(wire, t.wire ? t.wire : wire);
    }
}

struct Choice {
    const char *name;
    int words[2];   // -1: blank
    bool broken[2]; // a data byte is wrong
    unsigned result;
    int chosen, cleaned;
};
const Choice kChoices[] = {
    {"both empty", {-1, -1}, {}, 9, -1, -1},
    {"word 0 is empty too", {0, -1}, {}, 9, -1, -1},
    {"equal", {5, 5}, {}, 0, 0, 1},
    {"sector 0 larger", {6, 5}, {}, 0, 0, 1},
    {"sector 1 larger", {5, 6}, {}, 0, 1, 0},
    {"largest word", {0xFFFE, 0x7FFF}, {}, 0, 0, 1},
    {"equal, sector 0 broken", {5, 5}, {true, false}, 0, 1, 0},
    {"sector 1 first, broken", {5, 6}, {false, true}, 0, 0, 1},
    {"empty word beside broken", {5, 0}, {true, false}, 0, 1, 0},
    {"both broken", {5, 6}, {true, true}, 1, -1, -1},
    {"broken beside empty", {5, -1}, {true, false}, 1, -1, -1},
};

TEST_P(ParameterStore, ChoosesTheSector) {
    write_time = 0;
    boot();
    const auto mark = [](int sector) { return Data{static_cast<std::uint8_t>(0xA0 + sector)}; };
    for (const Choice &choice : kChoices) {
        SCOPED_TRACE(choice.name);
        chips.eeprom = EepromContents{};
        for (int sector = 0; sector < 2; ++sector) {
            if (choice.words[sector] < 0) continue;
            Data image = MakeStoreImage(static_cast<unsigned>(choice.words[sector]), {{10, mark(sector)}, {11, {}}});
            if (choice.broken[sector]) image[8] ^= 0x40;
            PlaceStoreImage(chips.eeprom.bytes, sector, image);
        }
        const StoreReport before = ReadStore(chips.eeprom.bytes);
        EXPECT_EQ(before.current.value_or(-1), choice.chosen) << "the tool: " << before.why;
        EXPECT_EQ(started->call("IdentifyValidSector"), choice.result);
        EXPECT_EQ(lookup(10), choice.chosen < 0 ? std::nullopt : std::optional(mark(choice.chosen)));
        EXPECT_EQ(lookup(11).has_value(), choice.chosen >= 0) << "a parameter without data";
        EXPECT_EQ(lookup(0xFFF), std::nullopt);
        const StoreReport after = ReadStore(chips.eeprom.bytes);
        for (int sector = 0; sector < 2; ++sector)
            EXPECT_EQ(after.sectors[sector].empty(), before.sectors[sector].empty() || choice.cleaned == sector);
    }
}

TEST_P(ParameterStore, RefusesUnsoundImages) {
    boot();
    const auto load = [this](Data image, unsigned length) {
        const auto put16 = [&](std::size_t at, unsigned value) {
            image[at] = static_cast<std::uint8_t>(value >> 8);
            image[at + 1] = static_cast<std::uint8_t>(value);
        };
        put16(2, length);
        put16(4, 0);
        const auto end = image.begin() + std::min<std::ptrdiff_t>(length, std::ssize(image));
        put16(4, 0x10000 - std::accumulate(image.begin(), end, 0u));
        chips.eeprom = EepromContents{};
        PlaceStoreImage(chips.eeprom.bytes, 0, image);
        return started->call("IdentifyValidSector");
    };
    const Data image = MakeStoreImage(3, {{9, {1, 2, 3, 4}}, {0x0FF, {5}}, {10, {6}}});
    // From the header and the end marker, 8 bytes, to 1,000.
    for (const unsigned length : {0u, 7u, 1001u}) EXPECT_EQ(load(image, length), 1u) << length;
    EXPECT_EQ(load(image, static_cast<unsigned>(image.size())), 0u);
    EXPECT_EQ(lookup(9), (Data{1, 2, 3, 4}));
    EXPECT_EQ(lookup(10), std::nullopt) << "identifier 0xFF ends the search";
    // Good checksum, but the image ends inside a record: that one is not there, and the image cannot be changed.
    EXPECT_EQ(load(image, 11), 0u);
    EXPECT_EQ(lookup(9), std::nullopt);
    EXPECT_EQ(update(9, {1}), 1u);
    // It ends after its first record, without an end marker.
    EXPECT_EQ(load(image, 12), 0u);
    EXPECT_EQ(lookup(9), (Data{1, 2, 3, 4}));
    EXPECT_EQ(lookup(11), std::nullopt);
    EXPECT_EQ(update(9, {1}), 1u);
    // A parameter that is there many times has to be changed in every place, and there is no room for that.
    const Data many = MakeStoreImage(3, std::vector<StoredParameter>(100, {9, {}}));
    EXPECT_EQ(load(many, static_cast<unsigned>(many.size())), 0u);
    EXPECT_EQ(update(9, Data(15, 1)), 8u);
}

TEST_P(ParameterStore, UpdatesInMemory) {
    chips.eeprom = ChipWith({{9, {1, 2, 3, 4}}, {10, {5}}, {500, {6, 7}}});
    boot();
    const Parameters updated = {{9, Data(15, 0xEE)}, {10, Data{}}, {500, {6, 7}}, {0xFFE, {8}}};
    for (const unsigned changed : {9u, 10u, 0xFFEu}) EXPECT_EQ(update(changed, updated.at(changed)), 0u) << changed;
    EXPECT_EQ(update(0xFFF, {8}), 1u);
    EXPECT_EQ(update(11, Data(16)), 1u);
    EXPECT_EQ(found(updated), updated);
    EXPECT_EQ(started->call("readNetParameter", 12, buffer, count), 1u);
    EXPECT_EQ(started->call("CommitBuffer"), 0u);
    const StoreReport report = ReadStore(chips.eeprom.bytes);
    ASSERT_EQ(report.current, 1) << report.why;
    EXPECT_EQ(report.sectors[1].length, 6u + 17 + 2 + 4 + 3 + 2) << "old length and the differences";
    EXPECT_EQ(report.sectors[1].word, 1u);

    // Room: length + new length below 1,000 and the result at most 1,000 bytes. Replacing counts in full.
    unsigned identifier = 1000;
    unsigned length = report.sectors[1].length;
    for (; length + 17 <= 972; length += 17) ASSERT_EQ(update(identifier++, Data(15, 1)), 0u);
    for (; length < 986; length += 2) ASSERT_EQ(update(identifier++, {}), 0u) << length;
    EXPECT_EQ(update(identifier, Data(1000 - length)), 8u);
    EXPECT_EQ(update(1000, Data(1000 - length)), 8u) << "also in place of a longer one";
    EXPECT_EQ(update(identifier, Data(999 - length)), 8u) << "the tag does not fit";
    EXPECT_EQ(update(identifier, Data(16)), 8u) << "room is looked for first";
    EXPECT_EQ(update(identifier, Data(998 - length, 2)), 0u);
    EXPECT_EQ(lookup(identifier), Data(998 - length, 2));
    EXPECT_EQ(lookup(9), Data(15, 0xEE));
}

TEST_P(ParameterStore, BoardStartUpReadsTheNetwork) {
    chips.eeprom = ChipWith({{9, {10, 0, 0, 2}}, {10, {255, 0, 0, 0}}, {11, {10, 0, 0, 1}}, {12, {9, 9}}}, 1);
    boot();
    std::array<std::uint32_t, 4> network;
    std::memcpy(&network, started->object("NetDevs"), sizeof network);
    EXPECT_EQ(network, (std::array{0x0A000002u, 0xFF000000u, 0x0A000001u, 0u})) << "the last one: not four bytes";
}

struct Request {
    const char *name;
    std::uint32_t code, address, sub_address, sub_length;
    Data data;
    unsigned count;
    std::int32_t status;
    Data answer = {};
    std::optional<SlaveFault> fault = {};
};
const Request kRequests[] = {
    {"generic read at a sub-address", 1, 0xD0, 0, 1, {}, 2, 0, {0, 1}}, // the header: word 1
    {"generic read, no sub-address", 1, 0x50, 0, 0, {}, 2, 0, {0, 14}}, // goes on from there: length 14
    {"generic read, sub-address too long", 1, 0x50, 0, 4, {}, 2, 1},
    {"generic read of nobody", 1, 0x11, 0, 2, {}, 2, 5},
    {"raw read, no 16-bit address", 2, 0x10000, 0, 0, {}, 4, 1},
    {"generic write", 4, 0x57, 0xF0, 1, {1, 2, 3}, 3, 0},
    {"generic write, sub-address too long", 4, 0x57, 0xF0, 5, {1, 2, 3}, 3, 1},
    {"raw write", 5, 0x7F8, 0, 0, {7, 8}, 2, 0},
    {"both are there", 2, 0x7F8, 0, 0, {}, 2, 0, {7, 8}},
    {"parameter write", 6, 13, 0, 0, {4, 5}, 2, 0},
    {"its result", 3, 13, 0, 0, {}, 0, 0, {4, 5}},
    {"query drops what is not committed", 7, 0, 0, 0, {}, 0, 0},
    {"dropped", 3, 13, 0, 0, {}, 0, 1},
    {"commit", 8, 0, 0, 0, {}, 0, 0},
    {"query without an answer", 7, 0, 0, 0, {}, 0, 5, {}, SlaveFault{At::address}},
    {"nothing has changed", 3, 9, 0, 0, {}, 0, 0, {10, 0, 0, 2}},
    {"query that finds a header and no more", 7, 0, 0, 0, {}, 0, 1, {}, SlaveFault{At::address, 4}},
    {"nothing is left", 3, 9, 0, 0, {}, 0, 1},
    {"commit of nothing", 8, 0, 0, 0, {}, 0, 1},
    {"query again", 7, 0, 0, 0, {}, 0, 0},
    {"commit that the chip refuses", 8, 0, 0, 0, {}, 0, 7, {}, SlaveFault{At::data}},
    {"still there", 3, 9, 0, 0, {}, 0, 0, {10, 0, 0, 2}},
    {"no such request", 9, 0, 0, 0, {}, 0, 1},
};

TEST_P(ParameterStore, DeviceRequests) {
    chips.eeprom = ChipWith({{9, {10, 0, 0, 2}}});
    write_time = 0; // reading does not wait for the chip
    boot();
    // The record as each processor lays it out: the data pointer is its last member.
    static_assert(offsetof(TwiRequest, status) == 16 && offsetof(TwiRequest, count) == 24);
    const std::size_t data_at = GetParam() == Processor::arm ? 28 : offsetof(TwiRequest, data);
    const std::uint32_t record = started->scratch(sizeof(TwiRequest));
    const auto word = [&](std::size_t at) {
        std::int32_t value;
        std::memcpy(&value, started->at(record) + at, sizeof value);
        return value;
    };
    bool in_progress = true;
    started->board().net('B', 5).watch([&](bool) { in_progress = in_progress && word(16) == kTwiInProgress; });
    for (const Request &request : kRequests) {
        SCOPED_TRACE(request.name);
        std::memset(started->at(record), 0, sizeof(TwiRequest));
        std::memcpy(started->at(record), &request.code, 16);
        started->at(record)[24] = static_cast<std::uint8_t>(request.count);
        std::memcpy(started->at(record) + data_at, &buffer, sizeof buffer);
        put(request.data);
        if (request.fault) started->board().eeprom.inject(*request.fault);
        started->call("dev_at91sam926x_twi_request", record);
        EXPECT_EQ(word(16), request.status);
        EXPECT_EQ(word(20), 1) << "notified once";
        EXPECT_TRUE(in_progress);
        if (request.answer.empty()) continue;
        EXPECT_EQ(Data(started->at(buffer), started->at(buffer) + started->at(record)[24]), request.answer);
    }
    EXPECT_EQ(Data(&chips.eeprom.bytes[0x7F0], &chips.eeprom.bytes[0x7F3]), (Data{1, 2, 3}));
}

// A commit cut short at every byte of every page it writes, cleaning included, from either sector; then the recovery's
// own cleaning cut as well. Afterwards all parameters are the old ones or all are the new ones.
TEST_P(ParameterStore, CutCommitsLeaveOldOrNewNeverNeither) {
    const Parameters before = {{9, {10, 0, 0, 2}}, {10, {1, 2}}, {40, Data(15, 0x40)}, {41, Data(15, 0x41)}};
    const Parameters after = {
        {9, {10, 0, 0, 2}}, {10, {3, 4, 5, 6, 7}}, {40, Data(15, 0x40)}, {41, {0x14}}, {42, Data(9, 0x42)}};
    const bool arm = GetParam() == Processor::arm;
    constexpr std::uint64_t kOperations = 5; // four pages and the cleaning; the last turn is not cut
    unsigned olds = 0, news = 0;
    write_time = 0;
    for (const int sector : {0, 1})
        for (std::uint64_t operation = 0; operation <= kOperations; ++operation)
            for (unsigned tear = arm ? 3u : 0u; tear <= (arm ? 3u : Eeprom24lc16::kPageSize + 8); ++tear) {
                SCOPED_TRACE(fmt::format("from sector {}, operation {}, tear {}", sector, operation, tear));
                chips.eeprom = ChipWith(before, sector);
                boot();
                for (const auto &[identifier, data] : after) update(identifier, data);
                // The last eight: any of the bytes, as the seed decides.
                if (tear <= Eeprom24lc16::kPageSize) started->board().eeprom.torn_bytes = tear;
                started->board().supply.plan(PowerCut{operation, CutMoment::torn, tear});
                std::uint32_t result = 0;
                const StageResult end = started->try_call("CommitBuffer", {}, result);
                const bool cut = operation < kOperations;
                ASSERT_EQ(end.end, cut ? StageEnd::power_lost : StageEnd::stopped_at);
                const EepromContents left = chips.eeprom;
                boot();
                const Parameters survived = found(after);
                ASSERT_TRUE(survived == after || (cut && survived == before)) << testing::PrintToString(survived);
                if (cut) ++(survived == before ? olds : news);
                if (arm || started->board().supply.operations() == 0) continue;
                chips.eeprom = left;
                EXPECT_THROW(boot(PowerCut{0, CutMoment::torn, tear}), std::runtime_error);
                boot();
                EXPECT_EQ(found(after), survived);
                ASSERT_EQ(started->call("CommitBuffer"), 0u);
                boot();
                EXPECT_EQ(found(after), survived);
            }
    EXPECT_GT(olds, 0u);
    EXPECT_GT(news, 0u);
}

BOTH_PROCESSORS(ParameterStore);

} // namespace

} // namespace fixture
