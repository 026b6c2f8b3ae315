#include "ol_at91sam926x_dataflash.h"

extern "C" constinit const DataflashSelect cs{0xC0000000, 0};

namespace {

enum Opcode : std::uint8_t {
    kPageToBuffer = 0x53,
    kPageErase = 0x81,
    kEraseAndProgram = 0x83,
    kBufferWrite = 0x84,
    kProgram = 0x88,
    kReadStatus = 0xD7,
    kContinuousRead = 0xE8,
};

constexpr std::uint8_t kReady = 0x80;       // status bit 7
constexpr std::uint8_t kDensityMask = 0x3C; // status bits 5 to 2
constexpr std::uint8_t kNoChip = 0xFF;      // an empty line reads high
constexpr std::uint32_t kReadyPolls = 200'000;
constexpr std::uint32_t kLargestRead = 0x8000; // bytes a command
constexpr std::uint32_t kOffsetMask = 0x0FFFFFFF;
constexpr std::uint32_t kFourByteAddresses = 16384; // pages from which an address takes four bytes
constexpr std::uint32_t kContinuousReadLength = 8;  // opcode, address, don't-care bytes, whatever the address takes

struct Density {
    std::uint32_t code;
    std::uint32_t pages;
    std::uint32_t page_size;
    std::uint32_t offset_bits;
    std::uint32_t buffer_mask;
};
constexpr Density kDensities[] = {
    {0x2C, 4096, 528, 10, 0x300},
    {0x34, 8192, 528, 10, 0x300},
    {0x3C, 8192, 1056, 11, 0x700},
    {0x10, 16384, 1056, 11, 0x700},
};

struct Device {
    SpiDescriptor transfer;
    std::uint32_t density; // 0 = no device
    std::uint32_t chip_select;
    std::uint32_t pages;
    std::uint32_t page_size;
    std::uint32_t offset_bits;
    std::uint32_t buffer_mask;
    std::uint32_t base;
};
constinit Device device{};

struct SendData {
    const std::uint8_t *bytes;
    std::uint32_t length;
};

std::uint32_t AddressedLength() { return device.pages < kFourByteAddresses ? 4 : 5; }

void PutCommand(Opcode opcode, std::uint32_t address) {
    std::uint8_t *next = device.transfer.command;
    for (std::uint8_t &byte : device.transfer.command) byte = 0;
    *next++ = opcode;
    if (device.pages >= kFourByteAddresses) *next++ = static_cast<std::uint8_t>(address >> 24 & 0x0F);
    *next++ = static_cast<std::uint8_t>(address >> 16);
    *next++ = static_cast<std::uint8_t>(address >> 8);
    *next = static_cast<std::uint8_t>(address);
}

// Sends a command of `length` bytes, and data after it received into `receive`, if there is one. The busy test
// comes before the shared descriptor is filled. Returns 0, or 1 where a transfer was running.
std::uint32_t Send(Opcode opcode, std::uint32_t address, std::uint32_t length, SendData data = {},
                   std::uint8_t *receive = nullptr) {
    SpiDescriptor &transfer = device.transfer;
    if (transfer.busy == 1) return 1;
    PutCommand(opcode, address);
    transfer.command_send = transfer.command;
    transfer.command_send_length = length;
    transfer.command_receive = transfer.command;
    transfer.command_receive_length = length;
    transfer.data_send = data.bytes;
    transfer.data_send_length = data.length;
    transfer.data_receive = receive;
    transfer.data_receive_length = receive ? data.length : 0;
    return AT91SAM926X_SpiWrite(&transfer);
}

void ReadStatus() {
    if (device.transfer.busy == 1) return;
    device.transfer.status = 0x0F;
    Send(kReadStatus, 0, 2);
    device.transfer.status = device.transfer.command[1];
}

// Returns 0 when the chip is ready, 1 when it was not in all the polls.
std::uint32_t WaitReady() {
    for (std::uint32_t poll = 0; poll < kReadyPolls; ++poll) {
        device.transfer.status = 0;
        ReadStatus();
        if (device.transfer.status & kReady) return 0;
    }
    return 1;
}

bool InRange(std::uint32_t offset, std::uint32_t length) {
    const std::uint32_t total = device.pages * device.page_size;
    return offset <= total && total - offset >= length;
}

// Both range checks come before anything is sent: of the offset within the base's window, and of the address less the
// base, which leaves no address outside the chip, the all-ones one included.
bool MayTransfer(std::uint32_t address, std::uint32_t length) {
    if (device.density == 0) return false;
    return InRange(address & kOffsetMask, length) && InRange(address - device.base, length);
}

std::uint32_t ChipAddress(std::uint32_t offset) {
    return (offset / device.page_size << device.offset_bits) + offset % device.page_size;
}

std::uint32_t SendToPage(Opcode opcode, std::uint32_t page) {
    return Send(opcode, page << device.offset_bits, AddressedLength());
}

void WriteBuffer(std::uint32_t offset, SendData data) {
    Send(kBufferWrite, (offset & device.buffer_mask) | (offset & 0xFF), AddressedLength(), data);
}

// Waits whose result is dropped: a write goes on whatever the chip says.
void WritePartOfPage(std::uint32_t page, std::uint32_t offset, SendData data) {
    SendToPage(kPageToBuffer, page);
    WaitReady();
    WriteBuffer(offset, data);
    WaitReady();
    if (device.pages >= kFourByteAddresses) {
        SendToPage(kPageErase, page);
        WaitReady();
    }
    // Kept: programs with built-in erase on the largest chip too, whose page was just erased.
    SendToPage(kEraseAndProgram, page);
}

// Returns false where the erase could not be sent.
bool WriteWholePage(std::uint32_t page, const std::uint8_t *bytes) {
    WriteBuffer(0, {bytes, device.page_size});
    WaitReady();
    if (SendToPage(kPageErase, page) != 0) return false;
    WaitReady();
    SendToPage(kProgram, page);
    WaitReady();
    return true;
}

void Identify(std::uint8_t status) {
    if (status == kNoChip) return; // before masking: an empty line would pass for a density
    for (const Density &density : kDensities) {
        if ((status & kDensityMask) != density.code) continue;
        device.density = density.code;
        device.chip_select = cs.chip_select;
        device.pages = density.pages;
        device.page_size = density.page_size;
        device.offset_bits = density.offset_bits;
        device.buffer_mask = density.buffer_mask;
        device.base = cs.base;
    }
}

} // namespace

std::uint32_t AT91SAM926X_InitializeDataflash(void) {
    AT91SAM926X_SpiInit();
    device.transfer.busy = 0;
    device.density = 0;
    device.pages = 0;
    AT91SAM926X_SpiEnable(cs.chip_select);
    device.transfer.chip_select = static_cast<std::uint8_t>(cs.chip_select);
    ReadStatus();
    Identify(device.transfer.status);
    return device.density != 0 ? 0 : 1;
}

std::uint32_t AT91SAM926X_ReadDataflash(std::uint32_t address, std::uint32_t length, void *buffer) {
    if (!MayTransfer(address, length)) return 1;
    std::uint32_t offset = address - device.base;
    auto *bytes = static_cast<std::uint8_t *>(buffer);
    AT91SAM926X_SpiEnable(device.chip_select);
    if (WaitReady() != 0) return 1;
    while (length != 0) {
        const std::uint32_t chunk = length < kLargestRead ? length : kLargestRead;
        if (WaitReady() != 0) return 1;
        Send(kContinuousRead, ChipAddress(offset), kContinuousReadLength, {bytes, chunk}, bytes);
        offset += chunk;
        bytes += chunk;
        length -= chunk;
    }
    return 0;
}

std::uint32_t AT91SAM926X_WriteDataflash(std::uint32_t address, const void *buffer, std::uint32_t length) {
    if (!MayTransfer(address, length)) return 1;
    std::uint32_t offset = address - device.base;
    const auto *bytes = static_cast<const std::uint8_t *>(buffer);
    AT91SAM926X_SpiEnable(device.chip_select);
    while (length != 0) {
        const std::uint32_t page = offset / device.page_size;
        const std::uint32_t in_page = offset % device.page_size;
        const std::uint32_t room = device.page_size - in_page;
        const std::uint32_t count = length < room ? length : room;
        if (count == device.page_size) {
            if (!WriteWholePage(page, bytes)) return 0;
        } else {
            WritePartOfPage(page, in_page, {bytes, count});
            WaitReady();
        }
        offset += count;
        bytes += count;
        length -= count;
    }
    WaitReady();
    return 0;
}
