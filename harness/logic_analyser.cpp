#include "harness/logic_analyser.h"

#include "formats/file.h"

#include <cstdlib>
#include <fmt/format.h>
#include <sstream>

namespace fixture {

std::string DecodeTwoWire(const std::filesystem::path &file, const std::string &more) {
    const std::string text = file.string() + ".text";
    // A sample every 50 ns: the bus's shortest level is longer.
    const std::string call = fmt::format("sigrok-cli -i '{}' -I vcd:downsample=50 -P i2c:scl=SCL:sda=SDA{} >'{}' 2>&1",
                                         file.string(), more, text);
    if (std::system(call.c_str()) != 0) throw std::runtime_error("failed: " + call);
    const Bytes bytes = ReadFile(text, 1 << 20);
    return {bytes.begin(), bytes.end()};
}

std::string TwoWireTraffic(const std::filesystem::path &file, unsigned address) {
    std::istringstream lines(DecodeTwoWire(file, " -A i2c=address-write:address-read:data-write:data-read"));
    const std::string wanted = fmt::format("{:02X}", address);
    std::string traffic;
    bool ours = false;
    for (std::string line; std::getline(lines, line);) {
        const std::string value = line.substr(line.rfind(' ') + 1);
        const bool begins = line.find("Address") != std::string::npos;
        // Several devices share the bus: data belongs to the address before it.
        if (begins) ours = value == wanted;
        if (!ours || value.size() != 2) continue;
        if (begins)
            traffic += line.find("read") != std::string::npos ? "R " : "W ";
        else
            traffic += value + " ";
    }
    return traffic;
}

} // namespace fixture
