#include "machine/symbols.h"

#include "formats/file.h"
#include "formats/refusal.h"

#include <cstdlib>
#include <cxxabi.h>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

namespace {

std::string WithoutArguments(const std::string &symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
    const std::string name = status == 0 ? plain.get() : symbol;
    return name.substr(0, name.find('(', name.starts_with("(anonymous") ? 1 : 0));
}

} // namespace

const Symbols::Known &Symbols::find(std::uint32_t address) const {
    const auto [entry, is_new] = known_.try_emplace(address);
    Known &known = entry->second;
    if (!is_new) return known;
    // An ELF may come from anybody, and traces go to terminals.
    known.place =
        firmware_ && firmware_->elf ? Printable(firmware_->elf->place(address)) : fmt::format("0x{:08X}", address);
    const std::size_t plus = known.place.rfind('+');
    if (plus == std::string::npos) return known;
    known.routine = WithoutArguments(known.place.substr(0, plus));
    known.place = known.routine + known.place.substr(plus);
    return known;
}

// Read late: the tables outweigh the program many times over, and a run that ends well asks for none of their lines.
const DebugInfo &Symbols::debug_info() const {
    if (debug_info_) return *debug_info_;
    try {
        const bool has_tables = firmware_ && firmware_->elf;
        debug_info_ = std::make_unique<DebugInfo>(has_tables ? ReadFile(firmware_->file, kLargestElf) : Bytes{});
    } catch (const std::runtime_error &) { // the file has gone since it was loaded: the places have to do
        debug_info_ = std::make_unique<DebugInfo>(Bytes{});
    }
    return *debug_info_;
}

std::string Symbols::place_and_line(std::uint32_t address) const {
    const std::string line = Printable(debug_info().line(address));
    return line.empty() ? place(address) : fmt::format("{} ({})", place(address), line);
}

std::vector<std::string> Symbols::call_chain(const DebugInfo::Registers &registers,
                                             const DebugInfo::ReadWord &read) const {
    std::vector<std::string> chain;
    for (const std::uint32_t address : debug_info().call_chain(registers, read)) {
        chain.push_back(place_and_line(address));
        if (routine(address) == "main") break; // what starts it is the same for every run
    }
    return chain;
}

} // namespace fixture
