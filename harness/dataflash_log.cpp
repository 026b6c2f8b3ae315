#include "harness/dataflash_log.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace fixture {

namespace {

constexpr std::uint32_t kTransmit = 0xFFFA400C; // SPI0.TDR
constexpr std::uint8_t kReadStatus = 0xD7, kReadArray = 0xE8;
constexpr std::size_t kReadArrayHeader = 8; // opcode, address and don't-care bytes

} // namespace

DataflashLog::DataflashLog(Board &board, unsigned address_bytes) : address_bytes_(address_bytes) {
    board.bus.observer = [this](const BusAccess &access) {
        if (access.is_write && access.address == kTransmit) sent_.push_back(static_cast<std::uint8_t>(access.value));
    };
    // PA5 selects the chip; a command ends as the line rises.
    board.net('A', 5).watch([this](bool high) {
        if (high) write_down();
    });
}

void DataflashLog::clear() {
    commands_.clear();
    polls_ = 0;
}

void DataflashLog::write_down() {
    if (sent_.empty()) return; // the line went high as the controller was set up
    const Bytes command = std::exchange(sent_, {});
    if (command[0] == kReadStatus) {
        ++polls_;
        return;
    }
    const std::size_t header =
        std::min(command.size(), command[0] == kReadArray ? kReadArrayHeader : 1 + address_bytes_);
    commands_ += commands_.empty() ? "" : " ";
    for (std::size_t n = 0; n < header; ++n) commands_ += fmt::format("{:02X}", command[n]);
    if (command.size() > header) commands_ += fmt::format("+{}", command.size() - header);
}

} // namespace fixture
