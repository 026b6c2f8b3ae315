#include "I2c.h"

#include "LCD.h"
#include "at91sam9263_sw_i2c.h"

#include <cstring>
#include <kernel.h>

namespace {

constexpr std::uint8_t kControllerAddress = 0x20;
constexpr std::uint16_t kMaxReply = 16;
constexpr std::uint16_t kMaxData = 14;
constexpr unsigned kPauseMicroseconds = 5000;

std::uint8_t ByteSum(const std::uint8_t *bytes, std::uint16_t count) {
    unsigned sum = 0;
    for (unsigned i = 0; i < count; ++i) sum += bytes[i];
    return static_cast<std::uint8_t>(sum);
}

// Reads the reply into a buffer of its own, so that the caller sees it whole and good or not at all.
int ReadReply(std::uint8_t *reply, std::uint16_t length) {
    std::uint8_t buffer[kMaxReply + 1];
    std::uint16_t count = static_cast<std::uint16_t>(length + 1);
    const int result = TWIRead(kControllerAddress, buffer, &count);
    if (result != 0) return result;
    // The bus reports a byte that it could not read only through a shorter count.
    if (count != length + 1 || checkCheckSum(buffer, length, buffer[length]) != 0) return 1;
    if (length > 0) std::memcpy(reply, buffer, length);
    return 0;
}

int Ask(std::uint8_t command, std::uint8_t *reply, std::uint16_t length) {
    if (length > kMaxReply) return 1;
    const std::uint8_t request[2] = {command, GenerateChecksum(&command, 1)};
    std::uint16_t count = sizeof request;
    const int result = TWIWrite(kControllerAddress, request, &count);
    if (result != 0) return result;
    usleep(kPauseMicroseconds); // the controller prepares its reply
    return ReadReply(reply, length);
}

int Send(std::uint8_t command, const std::uint8_t *data, std::uint16_t length) {
    if (length > kMaxData) return 1;
    std::uint8_t frame[1 + kMaxData + 1] = {command};
    if (length > 0) std::memcpy(frame + 1, data, length);
    std::uint16_t count = static_cast<std::uint16_t>(length + 2);
    frame[length + 1] = GenerateChecksum(frame, static_cast<std::uint16_t>(length + 1));
    return TWIWrite(kControllerAddress, frame, &count);
}

} // namespace

void uiInit(void) {
    LCD_RESETSET(); // the level first: the line never glitches low
    LCD_RESETOUTPUT();
}

std::uint8_t GenerateChecksum(const std::uint8_t *bytes, std::uint16_t count) {
    return static_cast<std::uint8_t>(0x100 - ByteSum(bytes, count));
}

int checkCheckSum(const std::uint8_t *bytes, std::uint16_t count, std::uint8_t checksum) {
    return static_cast<std::uint8_t>(ByteSum(bytes, count) + checksum) == 0 ? 0 : 1;
}

int uiReadCmd(std::uint8_t command, std::uint8_t *reply, const std::uint16_t *length) {
    const int result = Ask(command, reply, *length);
    usleep(kPauseMicroseconds);
    return result;
}

int uiWriteCmd(std::uint8_t command, const std::uint8_t *data, const std::uint16_t *length) {
    const int result = Send(command, data, *length);
    usleep(kPauseMicroseconds);
    return result;
}
