// Requests to the two-wire device: they do what they say, and touch nothing beside their data.
#include "formats/parameter_store.h"
#include "fuzz/targets.h"

#include <algorithm>
#include <bootloader.h>
#include <cstring>

namespace fixture {

namespace {

// The store's parameters as a request should find them, and whether that can be told.
class KnownStore {
public:
    explicit KnownStore(const Chips &chips) : chips_(chips) { read_again(); }

    // As the start-up, or a status query, finds them on the chip.
    void read_again() {
        const StoreReport report = ReadStore(chips_.eeprom.bytes);
        const StoreSector &current = report.sectors[report.current.value_or(0)];
        known_ = report.current && !current.empty() && current.warning.empty() && fits(current.parameters);
        parameters_ = known_ ? current.parameters : std::vector<StoredParameter>{};
    }
    void forget() { known_ = false; }
    bool known() const { return known_; }
    const std::vector<StoredParameter> &parameters() const { return parameters_; }
    StoredParameter *find(std::uint32_t identifier) {
        const auto found = std::find_if(parameters_.begin(), parameters_.end(),
                                        [=](const StoredParameter &one) { return one.identifier == identifier; });
        return found == parameters_.end() ? nullptr : &*found;
    }
    void set(const StoredParameter &change) {
        StoredParameter *const there = find(change.identifier);
        (there ? *there : parameters_.emplace_back()) = change;
        known_ = known_ && fits(parameters_);
    }

private:
    // Longer images lie over themselves, and one identifier ends every lookup.
    static bool fits(const std::vector<StoredParameter> &parameters) {
        std::size_t length = 8;
        for (const StoredParameter &one : parameters) length += 2 + one.data.size();
        return length <= kLongestSafeImage && std::none_of(parameters.begin(), parameters.end(),
                                                           [](const auto &one) { return one.identifier == 0xFF; });
    }
    const Chips &chips_;
    bool known_ = false;
    std::vector<StoredParameter> parameters_;
};

// Kept: the number of a 256-byte block goes into the control byte unshifted.
std::size_t ChipByte(std::uint32_t address) { return (address >> 9 & 7) << 8 | (address & 0xFF); }

// One request after the other, with guards around their data.
class Requester {
public:
    explicit Requester(ModuleBoard &board)
        : board_(board), record_(board.started().scratch(sizeof(TwiRequest))), buffer_(board.started().scratch(kRoom)),
          store_(board.chips()) {}

    void ask(Shape &shape) {
        TwiRequest request = make(shape);
        const std::uint32_t wanted = request.count;
        std::fill_n(board_.started().at(buffer_), kRoom, std::uint8_t{0xA5});
        request.data = board_.started().at(buffer_) + kGuard;
        const Bytes sent = shape.bytes(20);
        std::copy(sent.begin(), sent.end(), request.data);
        const Bytes before = buffer();
        const EepromContents chip = board_.chips().eeprom;
        std::memcpy(board_.started().at(record_), &request, sizeof request);
        board_.started().board().clock.advance(board_.started().board().eeprom.write_time);
        board_.call("dev_at91sam926x_twi_request", record_);
        std::memcpy(&request, board_.started().at(record_), sizeof request);
        check_outside(request, wanted, before);
        check(request, wanted, before, buffer(), chip);
    }

private:
    static constexpr std::size_t kGuard = 32;
    static constexpr std::size_t kRoom = 0x1000 + 2 * kGuard;

    static TwiRequest make(Shape &shape) {
        TwiRequest request{};
        request.code = shape.pick({2u, 3u, 5u, 6u, 6u, 7u, 8u, 8u, 1u, 4u, shape.number()});
        const bool parameter = request.code == kTwiParameterRead || request.code == kTwiParameterWrite;
        request.address = parameter ? kSomeIdentifiers[shape.below(8)] : shape.pick({0x50u, shape.below(0x801)});
        if (shape.one_in(8)) request.address = shape.number();
        request.sub_address = shape.number();
        request.sub_length = shape.below(6);
        request.count = static_cast<std::uint16_t>(
            shape.pick({shape.below(17), shape.below(65), 15u, 16u, 0x7FFu, 0x800u, 0x801u, shape.below(0x1000)}));
        return request;
    }

    Bytes buffer() {
        const std::uint8_t *const bytes = board_.started().at(buffer_);
        return {bytes, bytes + kRoom};
    }

    // What holds of every request, whatever it is.
    void check_outside(const TwiRequest &request, std::uint32_t wanted, const Bytes &before) {
        Require(request.status >= 0 && request.status <= 9, "a status that no caller knows");
        Require(request.notifications == 1, "notified another number of times than once");
        const bool looks_up = request.code == kTwiParameterRead;
        const bool reads = request.code == kTwiGenericRead || request.code == kTwiEepromRead || looks_up;
        const std::size_t most = !reads ? 0 : looks_up ? kMaxParameterLength : wanted;
        Require(request.count <= (looks_up ? std::max<std::size_t>(wanted, most) : wanted),
                "more bytes than asked for");
        const Bytes after = buffer();
        const auto end = static_cast<std::ptrdiff_t>(kGuard + most);
        Require(std::equal(before.begin(), before.begin() + kGuard, after.begin()) &&
                    std::equal(before.begin() + end, before.end(), after.begin() + end),
                "bytes beside the data changed");
    }

    void check(const TwiRequest &request, std::uint32_t wanted, const Bytes &before, const Bytes &after,
               const EepromContents &chip) {
        const std::span<const std::uint8_t> sent(before.data() + kGuard, before.size() - 2 * kGuard);
        const std::span<const std::uint8_t> got(after.data() + kGuard, after.size() - 2 * kGuard);
        const EepromContents &now = board_.chips().eeprom;
        const bool writes = request.code == kTwiEepromWrite || request.code == kTwiGenericWrite ||
                            request.code == kTwiCommit || request.code == kTwiStatusQuery;
        Require(writes || now == chip, "a request that only looks has changed the chip");
        switch (request.code) {
        case kTwiEepromRead:
            Require((request.status == 0) == (std::uint64_t{request.address} + wanted <= 0x800), "range of a read");
            for (std::uint32_t i = 0; request.status == 0 && i < wanted; ++i)
                Require(got[i] == chip.bytes[ChipByte(request.address + i)], "another byte than the chip's");
            break;
        case kTwiEepromWrite: check_raw_write(request, wanted, sent, chip); break;
        case kTwiGenericWrite: store_.forget(); break;
        case kTwiParameterRead: check_lookup(request, got); break;
        case kTwiParameterWrite:
            if (request.status == 0)
                store_.set({request.address, Bytes(sent.begin(), sent.begin() + wanted)});
            else
                Require(!store_.known() || request.address > 0xFFE || wanted > kMaxParameterLength,
                        "a parameter that fits was refused");
            break;
        case kTwiStatusQuery: store_.read_again(); break;
        case kTwiCommit: check_commit(request); break;
        }
    }

    void check_raw_write(const TwiRequest &request, std::uint32_t wanted, std::span<const std::uint8_t> sent,
                         EepromContents chip) {
        Require((request.status == 0) == (request.address <= 0x800 && wanted <= 0x800), "range of a write");
        for (std::uint32_t i = 0; request.status == 0 && i < wanted; ++i)
            chip.bytes[ChipByte(request.address + i)] = sent[i];
        Require(chip == board_.chips().eeprom, "other bytes of the chip than were written");
    }

    void check_lookup(const TwiRequest &request, std::span<const std::uint8_t> got) {
        if (!store_.known() || request.address == 0xFF) return;
        const StoredParameter *const stored = store_.find(request.address);
        Require((request.status == 0) == (stored != nullptr), "a lookup");
        const auto value = got.first(stored ? request.count : 0u);
        Require(!stored || std::ranges::equal(stored->data, value), "another value than was set");
    }

    void check_commit(const TwiRequest &request) {
        if (!store_.known() || request.status != 0) return;
        const StoreReport report = ReadStore(board_.chips().eeprom.bytes);
        Require(report.current && report.sectors[*report.current].parameters == store_.parameters(),
                "a commit wrote other parameters");
    }

    ModuleBoard &board_;
    std::uint32_t record_, buffer_;
    KnownStore store_;
};

} // namespace

void FuzzRequests(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Chips chips;
    if (shape.one_in(4)) {
        chips.eeprom = MakeEeprom(shape);
    } else if (!shape.one_in(4)) {
        std::vector<StoredParameter> parameters;
        for (const unsigned identifier : kSomeIdentifiers)
            if (shape.one_in(2)) parameters.push_back({identifier, shape.bytes(15)});
        PlaceStoreImage(chips.eeprom.bytes, static_cast<int>(shape.below(2)),
                        MakeStoreImage(1 + shape.below(3), parameters));
    }
    ModuleBoard board(std::move(chips));
    Requester requester(board);
    for (unsigned requests = 1 + shape.below(6); requests > 0; --requests) requester.ask(shape);
}

} // namespace fixture
