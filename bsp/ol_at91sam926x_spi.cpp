#include "ol_at91sam926x_spi.h"

#include <at91sam9263.h>
#include <kernel.h>

namespace {

constexpr std::uint32_t kEnable = 1u << 0;         // CR
constexpr std::uint32_t kSoftwareReset = 1u << 7;  // CR
constexpr std::uint32_t kMode = 0x000F0011;        // MR: master, no mode-fault detection, nothing selected
constexpr std::uint32_t kSelectField = 0x000F0000; // MR: which line falls, the lowest clear bit
constexpr std::uint32_t kReceived = 1u << 0;       // SR: receive register full
constexpr std::uint32_t kEmpty = 1u << 9;          // SR: nothing on its way out
constexpr std::uint32_t kEnabled = 1u << 16;       // SR
constexpr std::uint32_t kStaySelected = 1u << 3;   // CSR: the line stays low after a character

// 8 bits a character, captured on the leading edge of a clock that idles low; delays before and between characters.
constexpr std::uint32_t kDataflashSelect = 0x011A0002;
constexpr std::uint32_t kSlowSelect = 0x280A0002;
constexpr std::uint32_t kDataflashHz = 33'000'000;
constexpr std::uint32_t kSlowHz = 920'000;

constexpr std::uint32_t kSettleRounds = 0x100000;

struct PinsOfPort {
    Pio port;
    std::uint32_t mask;
};
constexpr PinsOfPort kPins[] = {{PIOA, 0x3F}, {PIOB, 0x800}, {PIOD, 0x3}};

// The serial clock divider in its place, within what the field can hold; 0 would stop the controller.
std::uint32_t Divider(std::uint32_t hz) {
    const std::uint32_t divider = GetMasterClock() / hz;
    return (divider == 0 ? 1u : divider > 0xFF ? 0xFFu : divider) << 8;
}

void WaitForStatus(std::uint32_t bit) {
    while (!(SPI0.SR().read() & bit)) {
    }
}

void StaySelected(std::uint32_t select, bool stay) {
    const std::uint32_t settings = SPI0.CSR(select).read();
    SPI0.CSR(select).write(stay ? settings | kStaySelected : settings & ~kStaySelected);
}

std::uint8_t Exchange(std::uint8_t sent) {
    SPI0.TDR().write(sent);
    WaitForStatus(kReceived);
    return static_cast<std::uint8_t>(SPI0.RDR().read());
}

struct Phase {
    const std::uint8_t *send;
    std::uint32_t length;
    std::uint8_t *receive;
    std::uint32_t receive_length;
};

// The controller judges the select line at each character's end, so it is told to let go before the last one starts.
void Move(const Phase &phase, std::uint32_t select, bool release) {
    for (std::uint32_t n = 0; n < phase.length; ++n) {
        if (release && n == phase.length - 1) StaySelected(select, false);
        const std::uint8_t received = Exchange(phase.send[n]);
        if (n < phase.receive_length) phase.receive[n] = received;
    }
}

} // namespace

std::uint32_t AT91SAM926X_SpiInit(void) {
    PMC.PCER().write(1u << ID_SPI0);
    SPI0.CR().write(kSoftwareReset);
    SPI0.MR().write(kMode);
    for (const PinsOfPort &pins : kPins) {
        pins.port.ASR().write(0);
        pins.port.BSR().write(pins.mask);
        pins.port.PDR().write(pins.mask);
    }
    SPI0.CSR(0).write(Divider(kDataflashHz) | kDataflashSelect);
    SPI0.CSR(3).write(Divider(kSlowHz) | kSlowSelect);
    SPI0.CR().write(kEnable);
    WaitForStatus(kEnabled);
    mmio::Spin(kSettleRounds);
    return SPI0.RDR().read();
}

void AT91SAM926X_SpiEnable(std::uint32_t chip_select) {
    std::uint32_t mode = SPI0.MR().read() & ~kSelectField;
    if (chip_select == 0) mode |= 0xEu << 16;
    if (chip_select == 2) mode |= 0x7u << 16;
    SPI0.MR().write(mode);
    SPI0.CR().write(kEnable);
}

std::uint32_t AT91SAM926X_SpiWrite(SpiDescriptor *descriptor) {
    if (descriptor->busy == 1) return 1;
    descriptor->busy = 1;
    if (!(SPI0.SR().read() & kEmpty)) {
        WaitForStatus(kEmpty);
        WaitForStatus(kReceived);
    }
    const std::uint32_t select = descriptor->chip_select & 3u;
    const bool has_data = descriptor->data_send_length != 0;
    StaySelected(select, true);
    Move({descriptor->command_send, descriptor->command_send_length, descriptor->command_receive,
          descriptor->command_receive_length},
         select, !has_data);
    WaitForStatus(kEmpty);
    if (has_data) {
        StaySelected(select, true);
        Move({descriptor->data_send, descriptor->data_send_length, descriptor->data_receive,
              descriptor->data_receive_length},
             select, true);
        WaitForStatus(kEmpty);
    }
    descriptor->busy = 0;
    return 0;
}
