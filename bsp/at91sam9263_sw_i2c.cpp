#include "at91sam9263_sw_i2c.h"

#include <at91sam9263.h>

namespace {

constexpr std::uint32_t kScl = 1u << 5;
constexpr std::uint32_t kSda = 1u << 4;
constexpr int kMaxSclReadings = 101;
constexpr int kMaxRecoveryClocks = 101;
constexpr int kNotAcknowledged = 1; // inside the acknowledge step

// A device that is not ready holds SCL low. Returns whether the line came up.
bool SclComesUp() {
    for (int reading = 0; reading < kMaxSclReadings; ++reading) {
        if (I2C_GetSCL()) return true;
        I2C_Delay(1);
    }
    return false;
}

// Reads the acknowledge of a byte that has been written; `refused` is the result if there is none.
int ExpectAck(int refused) {
    const int result = I2C_ReadAck();
    return result == kNotAcknowledged ? refused : result;
}

int SendByte(std::uint8_t byte, int refused) {
    const int result = I2C_WriteByte(byte);
    return result != kTwiOk ? result : ExpectAck(refused);
}

int StartWrite(std::uint8_t address) {
    const int result = I2C_Start();
    return result != kTwiOk ? result : I2C_SendAddressWrite(address);
}

int StartRead(std::uint8_t address) {
    const int result = I2C_Start();
    return result != kTwiOk ? result : I2C_SendAddressRead(address);
}

// The low `bytes` bytes of `sub`, most significant first.
int SendSubAddresses(std::uint32_t sub, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        const int result = I2C_SendSubAddress(static_cast<std::uint8_t>(sub >> shift));
        if (result != kTwiOk) return result;
    }
    return kTwiOk;
}

int WriteData(const std::uint8_t *data, std::uint16_t *count) {
    std::uint16_t sent = 0;
    for (; sent < *count; ++sent) {
        const int result = SendByte(data[sent], kTwiNoDataAck);
        if (result != kTwiOk) return result;
    }
    *count = sent;
    return I2C_Stop();
}

int ReadData(std::uint8_t *buffer, std::uint16_t *count) {
    const std::uint16_t wanted = *count;
    std::uint16_t read = 0;
    while (read < wanted) {
        if (I2C_ReadByte(&buffer[read]) != kTwiOk) break;
        ++read;
        if ((read == wanted ? I2C_SendNack() : I2C_SendAck()) != kTwiOk) break;
    }
    *count = read;
    return I2C_Stop();
}

int WriteSub(std::uint8_t address, std::uint32_t sub, int bytes, const std::uint8_t *data, std::uint16_t *count) {
    int result = StartWrite(address);
    if (result == kTwiOk) result = SendSubAddresses(sub, bytes);
    return result != kTwiOk ? result : WriteData(data, count);
}

int ReadSub(std::uint8_t address, std::uint32_t sub, int bytes, std::uint8_t *buffer, std::uint16_t *count) {
    int result = StartWrite(address);
    if (result == kTwiOk) result = SendSubAddresses(sub, bytes);
    if (result == kTwiOk) result = StartRead(address); // repeated start
    return result != kTwiOk ? result : ReadData(buffer, count);
}

} // namespace

void SCLINPUT(void) {
    PIOB.ODR().write(kScl);
    PIOB.PER().write(kScl);
}

void SCLOUTPUT(void) {
    PIOB.PER().write(kScl);
    PIOB.OER().write(kScl);
}

void SCLCLEAR(void) { PIOB.CODR().write(kScl); }

std::uint32_t SCLSTAT(void) { return PIOB.PDSR().read() & kScl; }

void SDAINPUT(void) {
    PIOB.ODR().write(kSda);
    PIOB.PER().write(kSda);
}

void SDAOUTPUT(void) {
    PIOB.PER().write(kSda);
    PIOB.OER().write(kSda);
}

void SDACLEAR(void) { PIOB.CODR().write(kSda); }

std::uint32_t SDASTAT(void) { return PIOB.PDSR().read() & kSda; }

// Each of the ten takes as long as three turns of an empty loop, 30 ns: most bits are 2.2 us apart then.
void I2C_Delay(std::uint32_t units) { mmio::Spin(units * 10 * 3); }

// The latch is cleared before the output driver goes on, so that the line is never driven high.
void I2C_SetSCL(int level) {
    if (level != 0) return SCLINPUT();
    SCLCLEAR();
    SCLOUTPUT();
    SCLCLEAR();
}

int I2C_GetSCL(void) {
    SCLINPUT();
    return SCLSTAT() != 0;
}

void I2C_SetSDA(int level) {
    if (level != 0) return SDAINPUT();
    SDACLEAR();
    SDAOUTPUT();
    SDACLEAR();
}

int I2C_GetSDA(void) {
    SDAINPUT();
    return SDASTAT() != 0;
}

int I2C_Start(void) {
    if (!I2C_GetSCL()) return kTwiBusBusy;
    I2C_Delay(1);
    I2C_SetSDA(1);
    I2C_Delay(1);
    I2C_SetSCL(1);
    I2C_Delay(1);
    I2C_SetSDA(0); // SDA falls while SCL is high: start
    I2C_Delay(20);
    I2C_SetSCL(0);
    return kTwiOk;
}

namespace {

// A device that lost count of the clocks holds SDA low until it has sent its byte: clock it on.
// Kept: ends with both lines released and no stop; the next start is clear enough.
int RecoverSda() {
    int bit = 0;
    for (int clock = 0; clock < kMaxRecoveryClocks && bit == 0; ++clock) I2C_ReadBit(&bit);
    I2C_SetSDA(1);
    I2C_SetSCL(1);
    return bit != 0 ? kTwiOk : kTwiSdaHeld;
}

} // namespace

int I2C_Stop(void) {
    I2C_Delay(1);
    I2C_SetSCL(0);
    I2C_Delay(1);
    I2C_SetSDA(0);
    I2C_Delay(1);
    I2C_SetSCL(1);
    if (!SclComesUp()) return kTwiStopTimeout; // SDA stays low
    I2C_Delay(20);
    I2C_SetSDA(1); // SDA rises while SCL is high: stop
    return I2C_GetSDA() ? kTwiOk : RecoverSda();
}

int I2C_WriteBit(int bit) {
    I2C_Delay(1);
    I2C_SetSCL(0);
    I2C_Delay(1);
    I2C_SetSDA(bit);
    I2C_Delay(1);
    I2C_SetSCL(1);
    I2C_Delay(1);
    const int result = SclComesUp() ? kTwiOk : kTwiStretchTimeout;
    I2C_Delay(1);
    I2C_SetSCL(0);
    I2C_Delay(1);
    return result;
}

int I2C_ReadBit(int *bit) {
    I2C_Delay(1);
    I2C_SetSCL(0);
    I2C_Delay(1);
    I2C_SetSDA(1);
    I2C_Delay(1);
    I2C_SetSCL(1);
    I2C_Delay(1);
    const int result = SclComesUp() ? kTwiOk : kTwiStretchTimeout;
    if (result == kTwiOk) {
        I2C_Delay(1);
        *bit = I2C_GetSDA();
    }
    I2C_SetSCL(0);
    I2C_Delay(1);
    return result;
}

int I2C_SendAck(void) { return I2C_WriteBit(0); }

int I2C_SendNack(void) { return I2C_WriteBit(1); }

int I2C_ReadAck(void) {
    int bit = 0;
    const int result = I2C_ReadBit(&bit);
    if (result != kTwiOk || bit == 0) return result;
    I2C_SetSCL(1); // no stop follows: leave the bus idle
    return kNotAcknowledged;
}

int I2C_WriteByte(std::uint8_t byte) {
    for (int shift = 7; shift >= 0; --shift) {
        const int result = I2C_WriteBit((byte >> shift) & 1);
        if (result != kTwiOk) return result;
    }
    return kTwiOk;
}

int I2C_ReadByte(std::uint8_t *byte) {
    unsigned bits = 0;
    for (int i = 0; i < 8; ++i) {
        int bit = 0;
        const int result = I2C_ReadBit(&bit);
        if (result != kTwiOk) return result;
        bits = bits << 1 | static_cast<unsigned>(bit);
    }
    *byte = static_cast<std::uint8_t>(bits);
    return kTwiOk;
}

int I2C_SendAddressWrite(std::uint8_t address) { return SendByte(address & 0xFE, kTwiNoAddressAck); }

int I2C_SendAddressRead(std::uint8_t address) { return SendByte((address & 0xFE) | 1, kTwiNoAddressAck); }

int I2C_SendSubAddress(std::uint8_t byte) { return SendByte(byte, kTwiNoSubAddressAck); }

void TWIInit(void) {
    I2C_SetSCL(1);
    I2C_SetSDA(1);
}

int TWIWrite(std::uint8_t address, const std::uint8_t *data, std::uint16_t *count) {
    const int result = StartWrite(address);
    return result != kTwiOk ? result : WriteData(data, count);
}

int TWIWriteSub1(std::uint8_t address, std::uint8_t sub, const std::uint8_t *data, std::uint16_t *count) {
    const int result = StartWrite(address);
    if (result != kTwiOk) return result;
    I2C_SendSubAddress(sub); // Kept: its result is not looked at; the data follows anyway.
    return WriteData(data, count);
}

int TWIWriteSub2(std::uint8_t address, std::uint16_t sub, const std::uint8_t *data, std::uint16_t *count) {
    return WriteSub(address, sub, 2, data, count);
}

int TWIWriteSub3(std::uint8_t address, std::uint32_t sub, const std::uint8_t *data, std::uint16_t *count) {
    return WriteSub(address, sub, 3, data, count);
}

int TWIRead(std::uint8_t address, std::uint8_t *buffer, std::uint16_t *count) {
    const int result = StartRead(address);
    return result != kTwiOk ? result : ReadData(buffer, count);
}

int TWIReadSub1(std::uint8_t address, std::uint8_t sub, std::uint8_t *buffer, std::uint16_t *count) {
    return ReadSub(address, sub, 1, buffer, count);
}

int TWIReadSub2(std::uint8_t address, std::uint16_t sub, std::uint8_t *buffer, std::uint16_t *count) {
    return ReadSub(address, sub, 2, buffer, count);
}

int TWIReadSub3(std::uint8_t address, std::uint32_t sub, std::uint8_t *buffer, std::uint16_t *count) {
    return ReadSub(address, sub, 3, buffer, count);
}
