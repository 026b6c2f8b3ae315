#include "harness/dataflash_wire.h"

namespace fixture {

Bytes DataflashWire::talk(const Bytes &sent, std::size_t read) {
    chip.select();
    for (const std::uint8_t byte : sent) chip.exchange(byte);
    Bytes received;
    for (std::size_t n = 0; n < read; ++n) received.push_back(chip.exchange(0));
    chip.deselect();
    return received;
}

Bytes DataflashWire::talk_to(std::uint8_t opcode, std::uint32_t page, std::uint32_t offset, const Bytes &data,
                             std::size_t read) {
    const std::uint32_t address = page << part.offset_bits | offset;
    Bytes bytes{opcode};
    for (unsigned n = part.address_bytes; n-- > 0;) bytes.push_back(static_cast<std::uint8_t>(address >> 8 * n));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return talk(bytes, read);
}

void DataflashWire::page_command(std::uint8_t opcode, std::uint32_t page, Picoseconds wait) {
    talk_to(opcode, page, 0, {});
    clock.advance(wait);
}

Bytes DataflashWire::array(std::uint32_t page, std::uint32_t offset, std::size_t length) {
    // Opcode, address and don't-care bytes are eight in all before the first byte comes.
    return talk_to(0xE8, page, offset, Bytes(7 - part.address_bytes), length);
}

} // namespace fixture
