// How other parts of the system ask the board's two-wire device for a transfer: one record a request.
//
// The platform fills a record and hands it to dev_at91sam926x_twi_request (<bootloader.h>), which sets the status to
// kTwiInProgress, acts, sets the final status and calls TWI_NotifyWaitingTask (<kernel.h>), before it returns.
#pragma once

#include <cstdint>

enum TwiRequestCode : std::uint32_t {
    kTwiGenericRead = 1,    // device `address` (7 bits), sub-address of 0 to 3 bytes, `count` bytes to `data`
    kTwiEepromRead = 2,     // EEPROM byte `address`, `count` bytes to `data`
    kTwiParameterRead = 3,  // parameter `address`; `data` takes up to 15 bytes, `count` becomes their number
    kTwiGenericWrite = 4,   // as the generic read
    kTwiEepromWrite = 5,    // as the EEPROM read
    kTwiParameterWrite = 6, // parameter `address` becomes `count` bytes (at most 15); kept in memory only
    kTwiStatusQuery = 7,    // looks for the valid sector again
    kTwiCommit = 8,         // writes the parameters to the EEPROM
};

// Status: kTwiInProgress, then the result of the action: 0 = done, else a code of the bus or of the store
// (at91sam9263_sw_i2c.h, at91sam9263_sw_i2c_eeprom.h); 1 for a request that cannot be carried out.
inline constexpr std::int32_t kTwiInProgress = -1;

struct TwiRequest {
    std::uint32_t code;
    std::uint32_t address;
    std::uint32_t sub_address;
    std::uint32_t sub_length;
    volatile std::int32_t status; // the waiting task looks at it
    std::uint32_t notifications;  // the platform's own
    std::uint16_t count;          // in: bytes wanted; out: bytes transferred
    std::uint8_t *data;
};
