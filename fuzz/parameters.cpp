// The parameter store in its EEPROM: the bootloader's reading and writing against the tools'.
#include "formats/parameter_store.h"
#include "fuzz/targets.h"
#include "tools/commands.h"

#include <algorithm>
#include <numeric>

namespace fixture {

namespace {

constexpr unsigned kIdentifiers[] = {9, 10, 11, 12, 0, 77, 0x123, 0xFFE};

void Put16(Bytes &bytes, std::size_t at, std::uint32_t value) {
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
}

// A sector's image: records, some of them cut short or without end, and a header that fits them or does not.
Bytes MakeSector(Shape &shape) {
    Bytes image(6);
    for (unsigned records = shape.pick({1u, 0u, 2u, 3u, 4u, 6u, 20u, 60u}); records > 0; --records) {
        const Bytes data = shape.bytes(15);
        const unsigned identifier = shape.one_in(8) ? shape.below(4096) : kIdentifiers[shape.below(8)];
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

EepromContents MakeChip(Shape &shape) {
    EepromContents chip;
    if (const std::optional<Bytes> whole = shape.whole_in(16)) {
        std::copy_n(whole->begin(), std::min(whole->size(), chip.bytes.size()), chip.bytes.begin());
        return chip;
    }
    for (const int sector : {0, 1})
        if (!shape.one_in(4)) PlaceStoreImage(chip.bytes, sector, MakeSector(shape));
    return chip;
}

void CheckLookup(ModuleBoard &board, const std::vector<StoredParameter> &parameters, unsigned identifier) {
    const std::uint32_t data = board.started().scratch(16), length = board.started().scratch(4);
    const bool found = board.call("readEEpromParameter", identifier, data, length) == 0;
    const auto listed = std::find_if(parameters.begin(), parameters.end(),
                                     [=](const StoredParameter &known) { return known.identifier == identifier; });
    Require(found == (listed != parameters.end()), "a parameter is there for one reader alone");
    if (!found) return;
    const std::uint8_t *const bytes = board.started().at(data);
    Require(std::equal(listed->data.begin(), listed->data.end(), bytes, bytes + *board.started().at(length)),
            "a parameter has two values");
}

// A change through the bootloader and through the tool, where the tool would make it.
void CheckChange(ModuleBoard &board, const StoredParameter &change) {
    EepromContents chip = board.chips().eeprom;
    bool possible = true;
    try {
        UpdateStore(chip.bytes, {change});
    } catch (const std::runtime_error &) {
        possible = false;
    }
    board.started().board().clock.advance(board.started().board().eeprom.write_time); // of what was cleaned last
    const std::uint32_t data = board.started().scratch(16);
    std::copy(change.data.begin(), change.data.end(), board.started().at(data));
    const bool written = board.call("WriteEEpromParameter", change.identifier, data, change.data.size()) == 0 &&
                         board.call("CommitBuffer") == 0;
    Require(!possible || !written || chip == board.chips().eeprom, "two ways of a commit");
}

} // namespace

void FuzzParameters(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Chips chips;
    chips.eeprom = MakeChip(shape);
    RunOnFiles(AddEepromCommand, {"eeprom", "show", "--json", ScratchFile("eeprom", chips.eeprom.bytes)});
    const StoreReport report = ReadStore(chips.eeprom.bytes);
    const StoreSector current = report.current ? report.sectors[*report.current] : StoreSector{};
    std::vector<StoredParameter> parameters = current.parameters;
    // To the bootloader this identifier is the end of all lookups, and an end marker before the end is none.
    constexpr unsigned kEndsLookups = 0xFF;
    const auto end = std::find_if(parameters.begin(), parameters.end(),
                                  [](const StoredParameter &known) { return known.identifier == kEndsLookups; });
    const bool whole = end == parameters.end();
    parameters.erase(end, parameters.end());
    ModuleBoard board(std::move(chips)); // reads the store on its way
    if (current.warning.starts_with("no end") || current.length > kLongestSafeImage) return;
    for (const unsigned identifier : kIdentifiers) CheckLookup(board, parameters, identifier);
    // An empty sector is taken where the other one is bad, but not at the next start.
    if (whole && !current.empty()) CheckChange(board, {kIdentifiers[shape.below(8)], shape.bytes(15)});
}

} // namespace fixture
