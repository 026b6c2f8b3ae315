// The two-wire bus: two port pins toggled in software, SCL on PB5 and SDA on PB4, both open drain with pull-ups on the
// board. On it sit the user-interface controller (I2c.h) and the parameter EEPROM (at91sam9263_sw_i2c_eeprom.h).
//
// Call TWIInit once; the platform has enabled port B's clock by then, without which no level can be read. After that
// the transactions may be called in any order, from one task at a time. Nothing is kept between calls but the pins.
//
//   address   8 bits; bit 0 is replaced by the direction: the device at 0x20 is written at 0x20 and read at 0x21
//   sub       address inside the device, sent before the data, most significant byte first: SubN sends N bytes
//   count     in: bytes to transfer; out: bytes transferred, changed only when the stop was reached
//
// A transaction that fails before its stop sends no stop, and leaves the lines as they were: the next start resolves
// them if SCL is high. All waits are bounded; they are busy loops, so that the speed follows the processor's.
// Nothing is printed.
#pragma once

#include <cstdint>

// Results of every transaction.
enum TwiResult : int {
    kTwiOk = 0,
    kTwiSdaHeld = 1,         // at the stop: SDA still low after 101 recovery clocks
    kTwiStretchTimeout = 2,  // SCL not high after 101 readings in a bit
    kTwiBusBusy = 3,         // SCL low when a start was due; SDA was not touched
    kTwiStopTimeout = 4,     // SCL not high after 101 readings in the stop
    kTwiNoAddressAck = 5,    // nobody answers at the address
    kTwiNoSubAddressAck = 6, // sub-address refused
    kTwiNoDataAck = 7,       // data byte refused
};

extern "C" {

// Releases both lines.
void TWIInit(void);

int TWIWrite(std::uint8_t address, const std::uint8_t *data, std::uint16_t *count);
// Kept: sends its data whatever became of the sub-address; the longer forms stop there.
int TWIWriteSub1(std::uint8_t address, std::uint8_t sub, const std::uint8_t *data, std::uint16_t *count);
int TWIWriteSub2(std::uint8_t address, std::uint16_t sub, const std::uint8_t *data, std::uint16_t *count);
int TWIWriteSub3(std::uint8_t address, std::uint32_t sub, const std::uint8_t *data, std::uint16_t *count);

// A byte that cannot be read ends the data phase; the stop's result is returned, and only `count` tells.
int TWIRead(std::uint8_t address, std::uint8_t *buffer, std::uint16_t *count);
int TWIReadSub1(std::uint8_t address, std::uint8_t sub, std::uint8_t *buffer, std::uint16_t *count);
int TWIReadSub2(std::uint8_t address, std::uint16_t sub, std::uint8_t *buffer, std::uint16_t *count);
int TWIReadSub3(std::uint8_t address, std::uint32_t sub, std::uint8_t *buffer, std::uint16_t *count);

// The steps below are what the transactions are made of; nobody else needs them.

// Pins, one register sequence each. STAT gives 0 or the pin's mask.
void SCLINPUT(void);
void SCLOUTPUT(void);
void SCLCLEAR(void);
std::uint32_t SCLSTAT(void);
void SDAINPUT(void);
void SDAOUTPUT(void);
void SDACLEAR(void);
std::uint32_t SDASTAT(void);

// Lines: level 0 pulls low, any other level releases. Getting a level releases the line; 1 = high.
void I2C_Delay(std::uint32_t units); // units * 10 turns of 30 ns
void I2C_SetSCL(int level);
int I2C_GetSCL(void);
void I2C_SetSDA(int level);
int I2C_GetSDA(void);

// Bits and conditions. Outputs are written only when the result is 0.
int I2C_Start(void);
int I2C_Stop(void);
int I2C_WriteBit(int bit);
int I2C_ReadBit(int *bit);
int I2C_SendAck(void);
int I2C_SendNack(void);
int I2C_ReadAck(void); // 1 = not acknowledged

// Bytes, most significant bit first. The sending steps below read the acknowledge too.
int I2C_WriteByte(std::uint8_t byte);
int I2C_ReadByte(std::uint8_t *byte);
int I2C_SendAddressWrite(std::uint8_t address);
int I2C_SendAddressRead(std::uint8_t address);
int I2C_SendSubAddress(std::uint8_t byte);

} // extern "C"
