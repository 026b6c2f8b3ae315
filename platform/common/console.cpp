#include "console.h"

#include <at91sam9263.h>
#include <kernel.h>

void CONSOLE_Init() {
    constexpr std::uint32_t kPins = 3u << 30; // PC30 and PC31, peripheral A
    constexpr std::uint32_t kNoParity = 4u << 9;
    constexpr std::uint32_t kEnable = 1u << 6 | 1u << 4; // transmitter, receiver
    constexpr std::uint32_t kBaud = 115'200;
    PIOC.ASR().write(kPins);
    PIOC.PDR().write(kPins);
    DBGU.IDR().write(0xFFFFFFFF);
    DBGU.MR().write(kNoParity);
    DBGU.BRGR().write((GetMasterClock() + 8 * kBaud) / (16 * kBaud));
    DBGU.CR().write(kEnable);
}

void CONSOLE_Put(char c) {
    constexpr std::uint32_t kTransmitReady = 1u << 1;
    while (!(DBGU.SR().read() & kTransmitReady)) {
    }
    DBGU.THR().write(static_cast<std::uint8_t>(c));
}

void CONSOLE_PutText(const char *text) {
    while (*text) CONSOLE_Put(*text++);
}

void CONSOLE_PutHex(std::uint32_t value) {
    CONSOLE_PutText("0x");
    for (int shift = 28; shift >= 0; shift -= 4) CONSOLE_Put("0123456789ABCDEF"[value >> shift & 0xF]);
}
