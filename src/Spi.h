// The panel's three-wire register line, driven by hand: PB13 data, PB14 clock, PB15 chip select (active low).
//
// Mode 3: the clock idles high, data changes while it is low, the panel samples on its rising edge. Most significant
// bit first. Nothing is read back and no routine reports an error.
//
// Spi_Init comes first; then, for each transfer, Spi_EnableLCD, any number of Spi_WriteByte, Spi_DisableLCD.
#pragma once

#include <cstdint>

extern "C" {

// Makes the three pins outputs, all high: idle, not selected.
void Spi_Init(void);

// Selects the panel.
void Spi_EnableLCD(void);

// Ends the panel's selection.
void Spi_DisableLCD(void);

// Shifts one byte out, then waits 10 us.
void Spi_WriteByte(std::uint8_t byte);

// Waits 1 us: half a bit.
void Spi_BitDelay(void);

} // extern "C"
