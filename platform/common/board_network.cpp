// The part of the board start-up that both platforms share: network settings out of the parameter store.

#include "stand_ins.h"

#include <bootloader.h>
#include <kernel.h>

NetDevConfig NetDevs;

void TWI_NotifyWaitingTask(TwiRequest *request) { ++request->notifications; } // one task: nobody is asleep

namespace {

std::uint32_t ReadNetField(std::uint16_t identifier) {
    std::uint8_t bytes[kMaxParameterLength] = {};
    std::uint16_t length = 0;
    if (readNetParameter(identifier, bytes, &length) != 0 || length != 4) return 0;
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

} // namespace

void BSP_ReadNetDevs(void) { NetDevs = {ReadNetField(9), ReadNetField(10), ReadNetField(11), ReadNetField(12)}; }
