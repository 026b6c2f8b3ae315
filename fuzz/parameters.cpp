// The parameter store in its EEPROM: the bootloader's reading and writing against the tools'.
#include "formats/parameter_store.h"
#include "fuzz/targets.h"
#include "tools/commands.h"

#include <algorithm>

namespace fixture {

namespace {

void CheckLookup(ModuleBoard &board, const std::vector<StoredParameter> &parameters, unsigned identifier) {
    const auto listed = std::find_if(parameters.begin(), parameters.end(),
                                     [=](const StoredParameter &known) { return known.identifier == identifier; });
    const std::optional<Bytes> found = board.parameter(identifier);
    Require(found.has_value() == (listed != parameters.end()), "a parameter is there for one reader alone");
    Require(!found || listed->data == *found, "a parameter has two values");
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
    chips.eeprom = MakeEeprom(shape);
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
    for (const unsigned identifier : kSomeIdentifiers) CheckLookup(board, parameters, identifier);
    // An empty sector is taken where the other one is bad, but not at the next start.
    if (whole && !current.empty()) CheckChange(board, {kSomeIdentifiers[shape.below(8)], shape.bytes(15)});
}

} // namespace fixture
