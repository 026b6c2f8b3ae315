// The two-wire device as the platform sees it: start-up and requests. Its manual pages are <bootloader.h> and
// <twi_device.h>.

#include "at91sam9263_sw_i2c.h"
#include "at91sam9263_sw_i2c_eeprom.h"

#include <bootloader.h>
#include <kernel.h>

namespace {

constexpr std::int32_t kRequestFailed = 1;

std::uint8_t DeviceAddress(const TwiRequest &request) {
    return static_cast<std::uint8_t>((request.address & 0x7F) * 2);
}

std::int32_t GenericRead(TwiRequest &request) {
    const std::uint8_t device = DeviceAddress(request);
    const std::uint32_t sub = request.sub_address;
    switch (request.sub_length) {
    case 0: return TWIRead(device, request.data, &request.count);
    case 1: return TWIReadSub1(device, static_cast<std::uint8_t>(sub), request.data, &request.count);
    case 2: return TWIReadSub2(device, static_cast<std::uint16_t>(sub), request.data, &request.count);
    case 3: return TWIReadSub3(device, sub, request.data, &request.count);
    default: return kRequestFailed;
    }
}

std::int32_t GenericWrite(TwiRequest &request) {
    const std::uint8_t device = DeviceAddress(request);
    const std::uint32_t sub = request.sub_address;
    switch (request.sub_length) {
    case 0: return TWIWrite(device, request.data, &request.count);
    case 1: return TWIWriteSub1(device, static_cast<std::uint8_t>(sub), request.data, &request.count);
    case 2: return TWIWriteSub2(device, static_cast<std::uint16_t>(sub), request.data, &request.count);
    case 3: return TWIWriteSub3(device, sub, request.data, &request.count);
    default: return kRequestFailed;
    }
}

// What the other requests address has 16 bits.
std::int32_t EepromAction(TwiRequest &request) {
    if (request.address > 0xFFFF) return kRequestFailed;
    const auto address = static_cast<std::uint16_t>(request.address);
    switch (request.code) {
    case kTwiEepromRead: return ReadEEprom_24LC16(address, request.data, &request.count);
    case kTwiParameterRead: return readEEpromParameter(address, request.data, &request.count);
    case kTwiEepromWrite: return WriteEEprom_24LC16(address, request.data, &request.count);
    default: return WriteEEpromParameter(address, request.data, request.count);
    }
}

std::int32_t Act(TwiRequest &request) {
    switch (request.code) {
    case kTwiGenericRead: return GenericRead(request);
    case kTwiGenericWrite: return GenericWrite(request);
    case kTwiEepromRead:
    case kTwiParameterRead:
    case kTwiEepromWrite:
    case kTwiParameterWrite: return EepromAction(request);
    case kTwiStatusQuery: return IdentifyValidSector();
    case kTwiCommit: return CommitBuffer();
    default: return kRequestFailed;
    }
}

} // namespace

int dev_at91sam926x_twi_init(void) {
    TWIInit();
    return InitEEpromParameters();
}

void dev_at91sam926x_twi_request(TwiRequest *request) {
    request->status = kTwiInProgress;
    request->status = Act(*request);
    TWI_NotifyWaitingTask(request);
}
