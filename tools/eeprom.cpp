// fixture eeprom: looks at the parameter store in a chip file, and prepares one.
#include "machine/chip_store.h"
#include "tools/commands.h"

#include "formats/file.h"
#include "formats/parameter_store.h"
#include "formats/warning_ids.h"
#include "tools/call_report.h"
#include "tools/chip_files.h"
#include "tools/option_checks.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

namespace fixture {

namespace {

struct EepromCall {
    std::string file;
    bool json = false;
    std::vector<std::string> settings;
};

// A network parameter as people write it; empty for what is none.
std::string Address(const StoredParameter &parameter) {
    // By name and by length: another tool may have stored anything under these identifiers.
    if (!*NameOfParameter(parameter.identifier) || parameter.data.size() != 4) return "";
    std::uint32_t address = 0;
    for (const std::uint8_t byte : parameter.data) address = address << 8 | byte;
    return AddressText(address);
}

// What stands after the bytes: "  (gateway 10.0.0.1)".
std::string Meaning(const StoredParameter &parameter) {
    const std::string address = Address(parameter);
    return address.empty() ? "" : fmt::format("  ({} {})", NameOfParameter(parameter.identifier), address);
}

const char *StateOf(const StoreSector &sector) { return sector.empty() ? "empty" : sector.good ? "good" : "bad"; }

nlohmann::ordered_json ToJson(const StoreSector &sector) {
    nlohmann::ordered_json json = {{"chip_address", sector.chip_address},
                                   {"state", StateOf(sector)},
                                   // Of a bad sector too: these show what went wrong with it.
                                   {"word", sector.word},
                                   {"length", sector.length},
                                   {"checksum", sector.checksum}};
    if (!sector.empty() && !sector.problem.empty()) json["problem"] = sector.problem;
    if (!sector.warning.empty()) json["warning"] = sector.warning;
    json["parameters"] = nlohmann::ordered_json::array();
    for (const StoredParameter &parameter : sector.parameters) {
        nlohmann::ordered_json entry = {{"id", parameter.identifier}, {"hex", Hex(parameter)}};
        if (*NameOfParameter(parameter.identifier)) entry["name"] = NameOfParameter(parameter.identifier);
        if (const std::string address = Address(parameter); !address.empty()) entry["address"] = address;
        json["parameters"].push_back(entry);
    }
    return json;
}

nlohmann::ordered_json ToJson(const std::string &file, const StoreReport &report) {
    nlohmann::ordered_json json;
    json["file"] = TextJson(file);
    json["current"] = report.current ? nlohmann::ordered_json(*report.current) : nlohmann::ordered_json();
    json["why"] = report.why;
    json["sectors"] = {ToJson(report.sectors[0]), ToJson(report.sectors[1])};
    return json;
}

void Print(int number, const StoreSector &sector) {
    fmt::print("sector {} at 0x{:03X}: {}", number, sector.chip_address, StateOf(sector));
    if (!sector.empty() && !sector.problem.empty()) fmt::print(", {}", sector.problem);
    fmt::print("\n  word 0x{:04X}, length {}, checksum 0x{:04X}\n", sector.word, sector.length, sector.checksum);
    if (!sector.warning.empty()) fmt::print("  warning: {}\n", sector.warning);
    for (const StoredParameter &parameter : sector.parameters)
        // The digits as `set` takes them, so that a value can be copied into a call.
        fmt::print("  {:4} = {}{}\n", parameter.identifier, Hex(parameter), Meaning(parameter));
}

int Report(const char *command, const EepromCall &call, const StoreReport &report) {
    CallReport outcome(command, call.json);
    outcome.part = ToJson(call.file, report);
    // No sector counts then, whatever the two hold.
    if (!report.current) outcome.problems.push_back({"no-current-sector", call.file, report.why, "a good sector"});
    for (int number = 0; number < 2; ++number)
        // In plain text the warning stands with its sector already.
        if (const StoreSector &sector = report.sectors[number]; call.json && !sector.warning.empty())
            outcome.warnings.push_back(
                {WarningId("store-warning"), fmt::format("{}: sector {}", call.file, number), sector.warning, ""});
    if (!call.json) {
        for (int sector = 0; sector < 2; ++sector) Print(sector, report.sectors[sector]);
        fmt::print("current: {}, since {}\n", report.current ? fmt::format("sector {}", *report.current) : "none",
                   report.why);
    }
    return outcome.finish(report.current ? kGood : kBad);
}

EepromContents ReadChip(const std::string &file) {
    EepromContents chip;
    LoadChip(chip, file);
    return chip;
}

int Show(const EepromCall &call) { return Report("eeprom show", call, ReadStore(ReadChip(call.file).bytes)); }

std::optional<unsigned> ParseNumber(std::string_view text, int base) {
    unsigned value = 0;
    // No sign, no blanks, nothing left over: strtoul would take "12x" for 12, and "-1" for a very large number.
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// "address=10.0.0.5"; nothing for a setting that begins with no name.
std::optional<StoredParameter> ParseNamed(std::string_view name, std::string_view value) {
    const std::optional<unsigned> identifier = FindParameter(name);
    if (!identifier) return std::nullopt;
    const std::optional<std::uint32_t> address = ParseAddress(value);
    if (!address)
        throw Refusal(Fault::call, {"bad-setting", fmt::format("{}={}", name, value), "",
                                    "four numbers from 0 to 255 after \"=\", as in 10.0.0.5"});
    StoredParameter parameter{*identifier, {}};
    for (int shift = 24; shift >= 0; shift -= 8) parameter.data.push_back(static_cast<std::uint8_t>(*address >> shift));
    return parameter;
}

// "address=10.0.0.5", "9=C0A80001", "0x123=" (no data).
StoredParameter ParseSetting(const std::string &text) {
    const auto refuse = [&text](const char *expected) {
        return Refusal(Fault::call, {"bad-setting", text, "", expected});
    };
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) throw refuse("ID=HEX or NAME=ADDRESS");
    const std::string id = text.substr(0, equals);
    if (const std::optional<StoredParameter> named = ParseNamed(id, std::string_view(text).substr(equals + 1)))
        return *named;
    // People write identifiers in either form.
    const bool hex = id.starts_with("0x");
    const std::optional<unsigned> identifier = ParseNumber(std::string_view(id).substr(hex ? 2 : 0), hex ? 16 : 10);
    // 12 bits hold an identifier. 0xFFF with the longest data would read as the end marker FF FF.
    if (!identifier || *identifier > 0xFFE)
        throw refuse("an identifier from 0 to 4094, or address, mask, gateway or name-server, before \"=\"");
    StoredParameter parameter{*identifier, {}};
    const std::string digits = text.substr(equals + 1);
    // 4 bits hold a length.
    if (digits.size() % 2 != 0 || digits.size() > 30) throw refuse("0 to 15 bytes of two hex digits after \"=\"");
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const std::optional<unsigned> byte = ParseNumber(std::string_view(digits).substr(i, 2), 16);
        if (!byte) throw refuse("hex digits after \"=\"");
        parameter.data.push_back(static_cast<std::uint8_t>(*byte));
    }
    return parameter;
}

int Set(const EepromCall &call) {
    std::vector<StoredParameter> changes;
    // All settings are read before the file is opened, so a mistake in the last one leaves the file as it was.
    for (const std::string &setting : call.settings) changes.push_back(ParseSetting(setting));
    OutputFiles outputs;
    EepromContents chip;
    // Held from the read to the write: two calls at once would otherwise each drop the other's setting.
    OpenChip<EepromContents> file(chip, call.file, ChipUse::create, outputs);
    try {
        UpdateStore(chip.bytes, changes);
    } catch (const Refusal &refusal) { // which knows the store, not its file
        Problem problem = refusal.problem();
        problem.where = call.file;
        throw Refusal(refusal.fault(), problem);
    }
    file.store();
    outputs.commit();
    CallReport outcome("eeprom set", call.json);
    outcome.part = ToJson(call.file, ReadStore(chip.bytes));
    return outcome.finish(kGood);
}

} // namespace

void AddEepromCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<EepromCall>();
    Command *eeprom = app.add_subcommand("eeprom", "Show the parameter store in a chip file, or set parameters");
    eeprom->require_subcommand();
    Command *show = eeprom->add_subcommand("show", "Print both sectors, and which one the bootloader uses");
    show->add_option("FILE", call->file, "chip file of the parameter EEPROM, 2048 bytes")->required();
    show->add_flag("--json", call->json, "report as one JSON object");
    show->callback([call, &exit_status] { exit_status = Show(*call); });
    Command *set =
        eeprom->add_subcommand("set", "Set parameters as the bootloader's commit would; a missing file is created");
    set->add_option("FILE", call->file, "chip file of the parameter EEPROM, 2048 bytes")->required();
    set->add_option("SETTING", call->settings,
                    "ID=HEX, up to 15 bytes, or NAME=ADDRESS with address, mask, gateway or name-server, as in "
                    "address=10.0.0.5")
        ->required();
    set->add_flag("--json", call->json, "report as one JSON object");
    set->callback([call, &exit_status] { exit_status = Set(*call); });
}

} // namespace fixture
