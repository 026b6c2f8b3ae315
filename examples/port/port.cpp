// The smallest platform that the bootloader runs on: no kernel, no MMU, no caches, no debugger. Files are an image in
// memory that the link puts there (pack.sh); what the real parts of a fixture do beyond that is left out.
#include "port.h"

#include <at91sam9263.h>
#include <bootloader.h>
#include <kernel.h>

int main();

namespace {

// What the first stage sets the chip to: a 16.36766 MHz crystal times 110 / 9, divided by two.
constexpr std::uint32_t kMasterClock = 100'024'588;

void StartConsole() {
    constexpr std::uint32_t kPins = 3u << 30;
    constexpr std::uint32_t kBaud = 115'200;
    PIOC.ASR().write(kPins);
    PIOC.PDR().write(kPins);
    DBGU.MR().write(4u << 9); // no parity
    DBGU.BRGR().write((kMasterClock + 8 * kBaud) / (16 * kBaud));
    DBGU.CR().write(1u << 6);
}

void StartTimer() { PIT.MR().write(1u << 24 | 0xFFFFF); } // longest period: PIIR is one 32-bit counter

// The flash layer of a kernel asks before main, and with its question the boot medium is decided.
void AskForFlashRanges() {
    int count = 0;
    User_GetFlashDeviceRanges(&count);
}

} // namespace

void PORT_Put(char c) {
    while (!(DBGU.SR().read() & 1u << 1)) {
    }
    DBGU.THR().write(static_cast<std::uint8_t>(c));
}

// The order is the contract: clocks before pins are read, devices before the flash layer, all before main.
void PORT_Start() {
    PMC.PCER().write(1u << ID_PIOA | 1u << ID_PIOB | 1u << ID_PIOCDE);
    StartConsole();
    StartTimer();
    AT91SAM926X_InitializeLCD();
    dev_at91sam926x_twi_init();
    AskForFlashRanges();
    main();
}

// --- what the bootloader calls of its kernel

std::uint32_t GetMasterClock() { return kMasterClock; }

int usleep(__useconds_t microseconds) {
    constexpr std::uint32_t kTurnsPerSecond = kMasterClock / 16;
    const std::uint32_t start = PIT.PIIR().read();
    const auto turns = static_cast<std::uint32_t>(std::uint64_t{microseconds} * kTurnsPerSecond / 1'000'000);
    while (PIT.PIIR().read() - start <= turns + 1) {
    }
    return 0;
}

// Right with the caches on as well, so that whoever turns them on loses no image: each line is written back and
// forgotten, and the write buffer is drained, since a reset loses what still waits in it.
void ASP_FlushCaches(std::uint32_t address, std::uint32_t length) {
    constexpr std::uint32_t kLine = 32;
    const std::uint32_t first = address / kLine * kLine, last = address + length;
    for (std::uint32_t line = first; line < last; line += kLine) {
        asm volatile("mcr p15, 0, %0, c7, c14, 1" ::"r"(line) : "memory");
        asm volatile("mcr p15, 0, %0, c7, c5, 1" ::"r"(line) : "memory");
    }
    asm volatile("mcr p15, 0, %0, c7, c10, 4" ::"r"(0) : "memory");
}

void TWI_NotifyWaitingTask(TwiRequest *) {} // one task: nobody waits

// The files need no server.
int PJFS_IntegrityIODevDiskInit() { return 0; }
void PJFS_Server_RequestResources(const PjfsBackend *const *, const PjfsClient *const *) {}
void PJFS_Server_Configure(std::uint32_t, std::uint32_t, std::uint32_t, const PjfsBackend *const *,
                           const PjfsClient *const *, std::uint32_t) {}
int PJFS_Server_Run(int) { return 0; }
