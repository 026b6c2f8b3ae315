#include "Spi.h"

#include <at91sam9263.h>
#include <kernel.h>

namespace {

constexpr std::uint32_t kData = 1u << 13;
constexpr std::uint32_t kClock = 1u << 14;
constexpr std::uint32_t kSelect = 1u << 15;
constexpr std::uint32_t kAllPins = kData | kClock | kSelect;
constexpr int kByteGapMicroseconds = 10;

} // namespace

void Spi_Init(void) {
    PIOB.PER().write(kAllPins);
    PIOB.OER().write(kAllPins);
    PIOB.SODR().write(kAllPins);
}

void Spi_EnableLCD(void) { PIOB.CODR().write(kSelect); }

void Spi_DisableLCD(void) { PIOB.SODR().write(kSelect); }

void Spi_BitDelay(void) { usleep(1); }

void Spi_WriteByte(std::uint8_t byte) {
    for (std::uint32_t bit = 0x80; bit != 0; bit >>= 1) {
        const WriteOnly data = (byte & bit) != 0 ? PIOB.SODR() : PIOB.CODR();
        data.write(kData);
        PIOB.CODR().write(kClock);
        Spi_BitDelay();
        PIOB.SODR().write(kClock); // the panel takes the bit here
        Spi_BitDelay();
    }
    usleep(kByteGapMicroseconds);
}
