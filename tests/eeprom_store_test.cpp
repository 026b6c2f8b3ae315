// The parameter store against the 24LC16's model; what it should hold is told by the chip file tool's own reader.
#include "bench.h"
#include "eeprom_store.h"

#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <map>
#include <random>
#include <twi_device.h>

using namespace fixture;

namespace {

using Data = std::vector<std::uint8_t>;
using Parameters = std::map<unsigned, Data>;

std::vector<StoredParameter> ListOf(const Parameters &parameters) {
    std::vector<StoredParameter> list;
    for (const auto &[identifier, data] : parameters) list.push_back({identifier, data});
    return list;
}

Parameters ParametersOf(const StoreSector &sector) {
    Parameters parameters;
    for (const StoredParameter &parameter : sector.parameters) parameters[parameter.identifier] = parameter.data;
    return parameters;
}

// One sector with an image, the other one with the remains of an older image under a clean header.
EepromContents ChipWith(const Parameters &parameters, int sector = 0) {
    EepromContents chip;
    std::vector<std::uint8_t> old = MakeStoreImage(1, {{9, {1, 1, 1, 1}}, {77, Data(15, 0x77)}, {78, Data(15, 0x78)}});
    std::fill_n(old.begin(), 6, std::uint8_t{0xFF});
    PlaceStoreImage(chip, 1 - sector, old);
    PlaceStoreImage(chip, sector, MakeStoreImage(1, ListOf(parameters)));
    return chip;
}

class ParameterStore : public testing::TestWithParam<Processor> {
protected:
    Chips chips;
    std::unique_ptr<Bench> bench;
    std::uint32_t buffer = 0;
    std::uint32_t count = 0;
    Picoseconds write_time = 50 * kMicrosecond; // of the chip; short, since every poll is simulated

    // A cold boot; false if the power went on the way to main.
    bool boot(const std::optional<PowerCut> &cut = std::nullopt) {
        bench.reset();
        try {
            bench = std::make_unique<Bench>(GetParam(), chips, "", BoardOptions{}, [&](Board &board) {
                board.supply.plan(cut);
                board.eeprom.write_time = write_time;
            });
        } catch (const std::runtime_error &) {
            return false;
        }
        buffer = bench->scratch(4096);
        count = bench->scratch(4);
        return true;
    }
    Eeprom24lc16 &eeprom() { return bench->board().eeprom; }
    void put(const Data &data) { std::copy(data.begin(), data.end(), bench->at(buffer)); }
    void set_count(std::size_t value) {
        bench->at(count)[0] = static_cast<std::uint8_t>(value);
        bench->at(count)[1] = static_cast<std::uint8_t>(value >> 8);
    }
    unsigned get_count() { return bench->at(count)[0] + 0x100u * bench->at(count)[1]; }

    std::uint32_t transfer(const char *routine, unsigned address, std::size_t bytes) {
        set_count(bytes);
        return bench->call(routine, address, buffer, count);
    }
    std::optional<Data> lookup(unsigned identifier) {
        if (bench->call("readEEpromParameter", identifier, buffer, count) != 0) return std::nullopt;
        return Data(bench->at(buffer), bench->at(buffer) + get_count());
    }
    std::uint32_t update(unsigned identifier, const Data &data) {
        put(data);
        return bench->call("WriteEEpromParameter", identifier, buffer, data.size());
    }
    // What the bootloader finds of the given identifiers.
    Parameters found(const Parameters &wanted) {
        Parameters parameters;
        for (const auto &[identifier, data] : wanted)
            if (const std::optional<Data> stored = lookup(identifier)) parameters[identifier] = *stored;
        return parameters;
    }
    void TearDown() override {
        if (!bench) return;
        EXPECT_TRUE(bench->board().journal.violations().empty());
    }
};

struct Transfer {
    const char *name;
    const char *routine;
    unsigned address;
    unsigned bytes;
    unsigned result;
    unsigned counted;
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
    {"odd block written", kWrite, 0x1FF, 1, 0, 1, "S A0+ FF+ *1 P"},
    {"data refused", kWrite, 0x010, 40, 7, 16, nullptr, {{SlaveFault::At::data, 20}}},
    {"write stop held", kWrite, 0x010, 2, 4, 0, nullptr, {}, {{LineFault::Line::scl, 37}}},

    {"read", kRead, 0x123, 3, 0, 3, "S A0+ 23+ Sr A1+ *3 P"},
    {"blocks", kRead, 0x4F0, 32, 0, 32, "S A4+ F0+ Sr A5+ *16 P S A4+ 00+ Sr A5+ *16 P"},
    {"last byte", kRead, 0x7FF, 1, 0, 1, "S A6+ FF+ Sr A7+ *1 P"},
    {"read over the end", kRead, 0x7FF, 2, 1, 2, ""},
    {"read above the chip", kRead, 0x801, 0, 1, 0, ""},
    {"read far above the chip", kRead, 0xFFFF, 0xFFFF, 1, 0xFFFF, ""},
    {"nothing to read", kRead, 0x800, 0, 0, 0, ""},
    {"first piece fails", kRead, 0x0F0, 32, 0, 32, "S A0- S A0+ 00+ Sr A1+ *16 P", {{SlaveFault::At::address}}},
    {"last piece fails", kRead, 0x0F0, 32, 5, 32, nullptr, {{SlaveFault::At::address, 2}}},
    {"no byte comes", kRead, 0x0F0, 32, 2, 0, nullptr, {}, {{LineFault::Line::scl, 29, 150}}},
    {"broken off, goes on behind", kRead, 0x000, 4, 0, 4, nullptr, {}, {{LineFault::Line::scl, 40, 150}}},
};

// "S A0+ 0C+ 11+ 12- P" with the data bytes counted: "S A0+ 0C+ *2 P". `heads` bytes of each start are no data.
std::string Shortened(const std::string &wire) {
    std::string text;
    unsigned heads = 0;
    unsigned data = 0;
    std::istringstream words(wire);
    for (std::string word; words >> word;) {
        const bool start = word == "S" || word == "Sr";
        if (data != 0 && (start || word == "P")) text += fmt::format("*{} ", std::exchange(data, 0));
        if (word == "Sr" && text.ends_with("- ")) word = "S"; // a refusal is followed by no stop
        if (start) heads = word == "S" ? 2 : 1;
        if (start || word == "P" || heads > 0)
            text += word + " ";
        else
            ++data;
        if (!start && heads > 0) --heads;
    }
    if (!text.empty()) text.pop_back();
    return text;
}

TEST_P(ParameterStore, RawTransfers) {
    write_time = 0;
    boot();
    Board &board = bench->board();
    I2cMonitor monitor(board.net('B', 4), board.net('B', 5));
    for (const Transfer &t : kTransfers) {
        SCOPED_TRACE(t.name);
        eeprom().clear_faults();
        board.two_wire_trouble.clear();
        bench->call("I2C_Stop");
        monitor.take();
        for (const SlaveFault &fault : t.device) eeprom().inject(fault);
        for (const LineFault &fault : t.lines) board.two_wire_trouble.inject(fault);
        EXPECT_EQ(transfer(t.routine, t.address, t.bytes), t.result);
        EXPECT_EQ(get_count(), t.counted);
        const std::string wire = Shortened(monitor.take());
        EXPECT_EQ(wire, t.wire ? t.wire : wire);
    }
}

TEST_P(ParameterStore, WaitsForTheBusyChip) {
    boot();
    eeprom().write_time = 5 * kMillisecond; // the chip's longest
    Data data(40);
    for (std::size_t i = 0; i < data.size(); i++) data[i] = static_cast<std::uint8_t>(i);
    put(data);
    const Picoseconds before = bench->board().clock.now();
    EXPECT_EQ(transfer(kWrite, 0x104, data.size()), 0u);
    EXPECT_GT(bench->board().clock.now() - before, 2 * eeprom().write_time);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), &chips.eeprom.bytes[0x004]));
}

TEST_P(ParameterStore, GivesUpAfterTenThousandFailures) {
    if (GetParam() == Processor::arm) GTEST_SKIP() << "thirty thousand polls: natively only";
    write_time = 0;
    boot();
    for (const unsigned failures : {9999u, 10000u}) {
        eeprom().clear_faults();
        eeprom().inject({SlaveFault::At::address, 0, 6000});
        eeprom().inject({SlaveFault::At::address, 6001, failures - 6000});
        EXPECT_EQ(transfer(kWrite, 0x200, 32), failures < 10000 ? 0u : 5u);
        EXPECT_EQ(get_count(), failures < 10000 ? 32u : 16u) << "one budget for all pages";
    }
    eeprom().clear_faults();
    eeprom().write_time = kSecond;
    EXPECT_EQ(transfer(kWrite, 0x100, 32), 5u);
    EXPECT_EQ(get_count(), 16u) << "the first page found the chip ready";
}

struct Choice {
    const char *name;
    int words[2];   // -1: blank
    bool broken[2]; // a data byte is wrong
    unsigned result;
    int chosen;
    int cleaned;
};
const Choice kChoices[] = {
    {"both empty", {-1, -1}, {}, 9, -1, -1},
    {"word 0 is empty too", {0, -1}, {}, 9, -1, -1},
    {"only sector 0", {5, -1}, {}, 0, 0, -1},
    {"only sector 1", {-1, 5}, {}, 0, 1, -1},
    {"equal", {5, 5}, {}, 0, 0, 1},
    {"sector 0 larger", {6, 5}, {}, 0, 0, 1},
    {"sector 1 larger", {5, 6}, {}, 0, 1, 0},
    {"largest word", {0xFFFE, 0x7FFF}, {}, 0, 0, 1},
    {"first choice broken", {6, 5}, {true, false}, 0, 1, 0},
    {"equal, sector 0 broken", {5, 5}, {true, false}, 0, 1, 0},
    {"sector 1 first, broken", {5, 6}, {false, true}, 0, 0, 1},
    {"both broken", {5, 6}, {true, true}, 1, -1, -1},
    {"broken beside empty", {5, -1}, {true, false}, 1, -1, -1},
};

TEST_P(ParameterStore, ChoosesTheSector) {
    write_time = 0;
    boot();
    for (const Choice &choice : kChoices) {
        SCOPED_TRACE(choice.name);
        chips.eeprom = EepromContents{};
        for (int sector = 0; sector < 2; sector++) {
            if (choice.words[sector] < 0) continue;
            const auto tenth = static_cast<std::uint8_t>(0xA0 + sector);
            std::vector<std::uint8_t> image =
                MakeStoreImage(static_cast<unsigned>(choice.words[sector]), {{10, {tenth}}, {11, {}}});
            if (choice.broken[sector]) image[8] ^= 0x40;
            PlaceStoreImage(chips.eeprom, sector, image);
        }
        const StoreReport before = ReadStore(chips.eeprom);
        EXPECT_EQ(before.current.value_or(-1), choice.chosen) << "the tool: " << before.why;
        EXPECT_EQ(bench->call("IdentifyValidSector"), choice.result);
        EXPECT_EQ(lookup(10), choice.chosen < 0 ? std::nullopt
                                                : std::optional(Data{static_cast<std::uint8_t>(0xA0 + choice.chosen)}));
        EXPECT_EQ(lookup(11).has_value(), choice.chosen >= 0) << "a parameter without data";
        EXPECT_EQ(lookup(0xFFF), std::nullopt);
        const StoreReport after = ReadStore(chips.eeprom);
        for (int sector = 0; sector < 2; sector++)
            EXPECT_EQ(after.sectors[sector].empty(), before.sectors[sector].empty() || choice.cleaned == sector);
    }
}

TEST_P(ParameterStore, RefusesUnsoundImages) {
    boot();
    const auto load = [this](const std::vector<std::uint8_t> &image, unsigned length) {
        std::vector<std::uint8_t> changed = image;
        changed[2] = static_cast<std::uint8_t>(length >> 8);
        changed[3] = static_cast<std::uint8_t>(length);
        changed.resize(std::max<std::size_t>(changed.size(), 8));
        unsigned sum = 0;
        for (std::size_t i = 0; i < std::min<std::size_t>(length, changed.size()); i++)
            if (i != 4 && i != 5) sum += changed[i];
        changed[4] = static_cast<std::uint8_t>((0x10000 - sum) >> 8);
        changed[5] = static_cast<std::uint8_t>(0x10000 - sum);
        chips.eeprom = EepromContents{};
        PlaceStoreImage(chips.eeprom, 0, changed);
        return bench->call("IdentifyValidSector");
    };
    const std::vector<std::uint8_t> image = MakeStoreImage(3, {{9, {1, 2, 3, 4}}, {0x0FF, {5}}, {10, {6}}});
    EXPECT_EQ(load(image, 7), 1u) << "shorter than header and end marker";
    EXPECT_EQ(load(image, 1001), 1u);
    EXPECT_EQ(load(image, 0), 1u);
    EXPECT_EQ(load(image, static_cast<unsigned>(image.size())), 0u);
    EXPECT_EQ(lookup(9), (Data{1, 2, 3, 4}));
    EXPECT_EQ(lookup(10), std::nullopt) << "identifier 0xFF ends the search";
    // Good checksum, but the image ends inside a record: that one is not there, and the image cannot be changed.
    EXPECT_EQ(load(image, 11), 0u);
    EXPECT_EQ(lookup(9), std::nullopt);
    EXPECT_EQ(update(9, {1}), 1u);
}

TEST_P(ParameterStore, UpdatesInMemory) {
    chips.eeprom = ChipWith({{9, {1, 2, 3, 4}}, {10, {5}}, {500, {6, 7}}});
    boot();
    EXPECT_EQ(update(9, Data(15, 0xEE)), 0u);
    EXPECT_EQ(update(10, {}), 0u);
    EXPECT_EQ(update(0xFFE, {8}), 0u);
    EXPECT_EQ(update(0xFFF, {8}), 1u);
    EXPECT_EQ(update(11, Data(16)), 1u);
    EXPECT_EQ(lookup(9), Data(15, 0xEE));
    EXPECT_EQ(lookup(10), Data{});
    EXPECT_EQ(lookup(500), (Data{6, 7}));
    EXPECT_EQ(lookup(0xFFE), Data{8});
    EXPECT_EQ(bench->call("readNetParameter", 12, buffer, count), 1u);
    EXPECT_EQ(bench->call("CommitBuffer"), 0u);
    const StoreReport report = ReadStore(chips.eeprom);
    ASSERT_EQ(report.current, 1) << report.why;
    EXPECT_EQ(report.sectors[1].length, 6u + 17 + 2 + 4 + 3 + 2) << "old length and the differences";
    EXPECT_TRUE(report.sectors[0].empty());
    EXPECT_EQ(report.sectors[1].word, 1u);

    // Room: length + new length below 1,000 and the result at most 1,000 bytes. Replacing counts in full.
    unsigned identifier = 1000;
    unsigned length = report.sectors[1].length;
    for (; length + 17 <= 972; length += 17) ASSERT_EQ(update(identifier++, Data(15, 1)), 0u);
    for (; length < 986; length += 2) ASSERT_EQ(update(identifier++, {}), 0u) << length;
    EXPECT_EQ(update(identifier, Data(1000 - length)), 8u);
    EXPECT_EQ(update(1000, Data(1000 - length)), 8u) << "also in place of a longer one";
    EXPECT_EQ(update(identifier, Data(999 - length)), 8u) << "the tag does not fit";
    EXPECT_EQ(update(identifier, Data(998 - length, 2)), 0u);
    EXPECT_EQ(lookup(identifier), Data(998 - length, 2));
    EXPECT_EQ(lookup(9), Data(15, 0xEE));
}

// Random updates, commits and cold boots against a map.
TEST_P(ParameterStore, RandomUpdates) {
    std::mt19937 random(GetParam() == Processor::arm ? 1 : 2);
    Parameters stored = {{9, {1, 2, 3, 4}}};
    chips.eeprom = ChipWith(stored);
    write_time = 0;
    boot();
    Parameters current = stored;
    for (int step = 0; step < (GetParam() == Processor::arm ? 24 : 400); step++) {
        Data data(random() % 16);
        for (std::uint8_t &byte : data) byte = static_cast<std::uint8_t>(random());
        const unsigned identifier = 9 + static_cast<unsigned>(random() % 13); // at most 235 bytes: within the safe 256
        ASSERT_EQ(update(identifier, data), 0u);
        current[identifier] = data;
        if (random() % 4 == 0) {
            ASSERT_EQ(bench->call("CommitBuffer"), 0u);
            stored = current;
            const StoreReport report = ReadStore(chips.eeprom);
            ASSERT_TRUE(report.current) << report.why;
            ASSERT_EQ(ParametersOf(report.sectors[*report.current]), stored);
        } else if (random() % 8 == 0) {
            boot();
            current = stored;
        }
        ASSERT_EQ(found(current), current) << "step " << step;
    }
}

TEST_P(ParameterStore, BoardStartUpReadsTheNetwork) {
    chips.eeprom = ChipWith({{9, {10, 0, 0, 2}}, {10, {255, 0, 0, 0}}, {11, {10, 0, 0, 1}}, {12, {9, 9}}}, 1);
    boot();
    NetDevConfig network;
    std::memcpy(&network, bench->object("NetDevs"), sizeof network);
    EXPECT_EQ(network.address, 0x0A000002u);
    EXPECT_EQ(network.mask, 0xFF000000u);
    EXPECT_EQ(network.gateway, 0x0A000001u);
    EXPECT_EQ(network.name_server, 0u) << "not four bytes";
}

struct Request {
    const char *name;
    std::uint32_t code;
    std::uint32_t address;
    std::uint32_t sub_address;
    std::uint32_t sub_length;
    Data data;
    unsigned count;
    std::int32_t status;
    Data answer = {};
};
const Request kRequests[] = {
    {"generic read at a sub-address", 1, 0xD0, 0, 1, {}, 2, 0, {0, 1}}, // the header: word 1
    {"generic read, no sub-address", 1, 0x50, 0, 0, {}, 2, 0, {0, 14}}, // goes on behind: length 14
    {"generic read, sub-address too long", 1, 0x50, 0, 4, {}, 2, 1},
    {"generic read of nobody", 1, 0x11, 0, 2, {}, 2, 5},
    {"raw read", 2, 0x008, 0, 0, {}, 4, 0, {10, 0, 0, 2}},
    {"raw read, no 16-bit address", 2, 0x10000, 0, 0, {}, 4, 1},
    {"parameter read", 3, 9, 0, 0, {}, 0, 0, {10, 0, 0, 2}},
    {"parameter read, none", 3, 10, 0, 0, {}, 0, 1},
    {"generic write", 4, 0x57, 0xF0, 1, {1, 2, 3}, 3, 0},
    {"generic write, sub-address too long", 4, 0x57, 0xF0, 5, {1, 2, 3}, 3, 1},
    {"raw write", 5, 0x7F8, 0, 0, {7, 8}, 2, 0},
    {"both are there", 2, 0x7F8, 0, 0, {}, 2, 0, {7, 8}},
    {"parameter write", 6, 13, 0, 0, {4, 5}, 2, 0},
    {"its result", 3, 13, 0, 0, {}, 0, 0, {4, 5}},
    {"query drops what is not committed", 7, 0, 0, 0, {}, 0, 0},
    {"dropped", 3, 13, 0, 0, {}, 0, 1},
    {"commit", 8, 0, 0, 0, {}, 0, 0},
    {"no such request", 9, 0, 0, 0, {}, 0, 1},
};

TEST_P(ParameterStore, DeviceRequests) {
    chips.eeprom = ChipWith({{9, {10, 0, 0, 2}}});
    write_time = 0; // reading does not wait for the chip
    boot();
    // The record as each processor lays it out: the data pointer is its last member.
    static_assert(offsetof(TwiRequest, status) == 16 && offsetof(TwiRequest, count) == 24);
    const std::size_t data_at = GetParam() == Processor::arm ? 28 : offsetof(TwiRequest, data);
    const std::uint32_t record = bench->scratch(sizeof(TwiRequest));
    const auto word = [&](std::size_t at) {
        std::int32_t value;
        std::memcpy(&value, bench->at(record) + at, sizeof value);
        return value;
    };
    std::vector<std::int32_t> seen;
    bench->board().net('B', 5).watch([&](bool) { seen.push_back(word(16)); });
    for (const Request &request : kRequests) {
        SCOPED_TRACE(request.name);
        std::memset(bench->at(record), 0, sizeof(TwiRequest));
        std::memcpy(bench->at(record), &request.code, 16);
        bench->at(record)[24] = static_cast<std::uint8_t>(request.count);
        std::memcpy(bench->at(record) + data_at, &buffer, sizeof buffer);
        put(request.data);
        seen.clear();
        bench->call("dev_at91sam926x_twi_request", record);
        EXPECT_EQ(word(16), request.status);
        EXPECT_EQ(word(20), 1) << "notified once";
        EXPECT_EQ(std::count(seen.begin(), seen.end(), kTwiInProgress), std::ssize(seen));
        if (request.answer.empty()) continue;
        EXPECT_EQ(Data(bench->at(buffer), bench->at(buffer) + bench->at(record)[24]), request.answer);
    }
    EXPECT_EQ(Data(&chips.eeprom.bytes[0x7F0], &chips.eeprom.bytes[0x7F3]), (Data{1, 2, 3}));
}

// A commit cut short at every byte of every page it writes, cleaning included, from either sector; then the recovery's
// own cleaning cut as well. Afterwards all parameters are the old ones or all are the new ones.
class CommitCut : public ParameterStore {
protected:
    const Parameters old_parameters = {{9, {10, 0, 0, 2}}, {10, {1, 2}}, {40, Data(15, 0x40)}, {41, Data(15, 0x41)}};
    Parameters new_parameters = old_parameters;
    unsigned cuts = 0;
    unsigned olds = 0;
    unsigned news = 0;

    void SetUp() override {
        write_time = 0;
        new_parameters[10] = {3, 4, 5, 6, 7};
        new_parameters[41] = {0x14};
        new_parameters[42] = Data(9, 0x42);
    }
    // Commits the new parameters; true if the power went.
    bool commit(const std::optional<PowerCut> &cut, std::optional<unsigned> torn_bytes) {
        boot();
        for (const auto &[identifier, data] : new_parameters) update(identifier, data);
        eeprom().torn_bytes = torn_bytes;
        bench->board().supply.plan(cut);
        std::uint32_t result = 0;
        const StageResult end = bench->try_call("CommitBuffer", {}, result);
        EXPECT_EQ(bench->board().supply.fired(), cut.has_value());
        return end.end == StageEnd::power_lost;
    }
    // A cold boot has one of the two sets, and keeps it when its own cleaning is cut.
    void judge(std::uint64_t seed) {
        const EepromContents left = chips.eeprom;
        ASSERT_TRUE(boot());
        const Parameters survived = found(new_parameters);
        ASSERT_TRUE(survived == old_parameters || survived == new_parameters) << fmt::format("{}", survived);
        ++(survived == old_parameters ? olds : news);
        if (GetParam() == Processor::arm || bench->board().supply.operations() == 0) return;
        chips.eeprom = left;
        boot(PowerCut{0, CutMoment::torn, seed});
        ASSERT_TRUE(boot());
        EXPECT_EQ(found(new_parameters), survived);
        ASSERT_EQ(bench->call("CommitBuffer"), 0u);
        ASSERT_TRUE(boot());
        EXPECT_EQ(found(new_parameters), survived);
    }
    void cut_everywhere(int sector, const std::vector<std::optional<unsigned>> &tears) {
        chips.eeprom = ChipWith(old_parameters, sector);
        ASSERT_FALSE(commit(std::nullopt, std::nullopt));
        const std::uint64_t operations = bench->board().supply.operations();
        ASSERT_EQ(operations, 5u) << "four pages and the cleaning";
        for (std::uint64_t operation = 0; operation < operations; operation++)
            for (std::size_t tear = 0; tear < tears.size(); tear++) {
                SCOPED_TRACE(fmt::format("from sector {}, operation {}, tear {}", sector, operation, tear));
                chips.eeprom = ChipWith(old_parameters, sector);
                ASSERT_TRUE(commit(PowerCut{operation, CutMoment::torn, tear}, tears[tear]));
                cuts++;
                ASSERT_NO_FATAL_FAILURE(judge(tear));
            }
    }
};

TEST_P(CommitCut, OldOrNewNeverNeither) {
    std::vector<std::optional<unsigned>> tears;
    if (GetParam() == Processor::arm) {
        tears = {3u};
    } else {
        for (unsigned bytes = 0; bytes <= Eeprom24lc16::kPageSize; bytes++) tears.push_back(bytes);
        tears.resize(tears.size() + 8); // and any of the bytes, as the seed decides
    }
    for (const int sector : {0, 1}) ASSERT_NO_FATAL_FAILURE(cut_everywhere(sector, tears));
    EXPECT_EQ(cuts, 2 * 5 * tears.size());
    EXPECT_GT(olds, 0u);
    EXPECT_GT(news, 0u);
}

BOTH_PROCESSORS(ParameterStore);
BOTH_PROCESSORS(CommitCut);

} // namespace
