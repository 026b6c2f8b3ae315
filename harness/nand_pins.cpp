#include "harness/nand_pins.h"

#include <fmt/format.h>
#include <sstream>

namespace fixture {

NandPins::NandPins(NandContents &on, std::uint64_t seed)
    : contents(on), chip(clock, journal, supply, contents, enable_net, ready_net, seed) {
    ready_net.attach("pull-up").set(Drive::pull_high); // the pin is an open drain
    enable.set(Drive::low);
}

std::string NandPins::talk(const std::string &script) {
    std::string said;
    std::istringstream steps(script);
    for (std::string step; steps >> step;) said += (said.empty() ? "" : " ") + take(step);
    return said;
}

std::string NandPins::take(const std::string &step) {
    const auto value = static_cast<std::uint16_t>(step.size() > 1 ? std::stoul(step.substr(1), nullptr, 16) : 0);
    const int digits = static_cast<int>(step.size()) - 1;
    switch (step[0]) {
    case 'c': chip.command(static_cast<std::uint8_t>(value)); break;
    case 'a': chip.address(static_cast<std::uint8_t>(value)); break;
    case 'w': chip.write(value); break;
    // Only the bits that every datasheet defines; the others may read as anything.
    case 's': chip.command(0x70); return fmt::format("s{:0{}X}", chip.read() & (digits == 2 ? 0xC1 : 0xFFC1), digits);
    case 'r': return fmt::format("{}{:0{}X}", step[0], digits == 2 ? chip.read() & 0xFF : chip.read(), digits);
    case 'l': enable.set(Drive::low); break;
    case 'h': enable.set(Drive::high); break;
    case '?': return ready_net.high() ? "?1" : "?0";
    default:
        while (!ready_net.high() && clock.skip_to_next()) continue;
    }
    return step;
}

std::string NandPins::violations() {
    std::string all;
    for (const JournalEntry &entry : journal.violations()) all += entry.what + ";";
    journal.clear();
    return all;
}

} // namespace fixture
