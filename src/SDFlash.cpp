#include "SDFlash.h"

#include "ol_at91sam926x_dataflash.h"

#include <at91sam9263.h>
#include <cstdio>

namespace {

constexpr std::uint32_t kHighPins = 0x3; // PB0 and PB1

} // namespace

int SDFlash_Init(void) {
    PIOB.PER().write(kHighPins);
    PIOB.OER().write(kHighPins);
    PIOB.SODR().write(kHighPins);
    return AT91SAM926X_InitializeDataflash() == 0 ? 0 : -1;
}

int SDFlash_Read(std::uint32_t address, void *buffer, std::uint32_t length) {
    const auto error = static_cast<int>(AT91SAM926X_ReadDataflash(address | cs.base, length, buffer));
    if (error == 0) return 0;
    std::printf("\tAT91SAM926X_ReadDataflash : Failed with Error=%i\n", error);
    return -1;
}

int SDFlash_Write(std::uint32_t address, const void *buffer, std::uint32_t length) {
    const auto error = static_cast<int>(AT91SAM926X_WriteDataflash(address | cs.base, buffer, length));
    if (error == 0) return 0;
    std::printf("\tAT91SAM926X_WriteDataflash : Failed with Error=%i\n", error);
    return -1;
}
