// SPI controller 0, polled: set-up and the transfers of the serial DataFlash on select line 0.
//
// Call order: AT91SAM926X_SpiInit once, AT91SAM926X_SpiEnable for the device to talk to, then any number of transfers.
// Nothing is printed. Waits for the controller have no time-out. Registers: AT91SAM9263 datasheet.
#pragma once

#include <cstdint>

extern "C" {

// One transfer: a command, and data after it under the same selection. Where a pointer goes with a length of 0 it is
// not used. A byte comes in for every byte that goes out; those beyond a receive length are read and dropped.
struct SpiDescriptor {
    const std::uint8_t *command_send;
    std::uint32_t command_send_length;
    std::uint8_t *command_receive;
    std::uint32_t command_receive_length; // at most the command's length
    const std::uint8_t *data_send;
    std::uint32_t data_send_length; // 0: no data phase
    std::uint8_t *data_receive;     // may be data_send's buffer
    std::uint32_t data_receive_length;
    std::uint8_t busy;        // 1 while a transfer runs
    std::uint8_t status;      // the device's last status byte
    std::uint8_t chip_select; // chip-select register, 0 to 3
    std::uint8_t command[8];  // opcode, address, don't-care bytes
};

// Resets the controller and sets it up as master: chip-select register 0 for the DataFlash at 33 MHz or the next
// divider faster, register 3 at 920 kHz; hands the pins to it; waits until it is enabled and for the devices on it
// to come up. Returns what the receive register held.
std::uint32_t AT91SAM926X_SpiInit(void);

// Selects the peripheral for the transfers to come and enables the controller. 0 = DataFlash, 2 = select line 3; others
// leave the select field 0.
void AT91SAM926X_SpiEnable(std::uint32_t chip_select);

// Runs a transfer; the select line rises after its last byte. Returns 0 when it is done, 1 when the descriptor was busy
// and nothing was sent.
std::uint32_t AT91SAM926X_SpiWrite(SpiDescriptor *descriptor);

} // extern "C"
