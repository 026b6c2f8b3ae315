#include "platform.h"

#include "cp15.h"
#include "semihosting.h"
#include "stand_ins.h"

namespace {

constexpr std::uint32_t kPrefetchAbort = 3;
constexpr std::uint32_t kDataAbort = 4;

constexpr const char *kNames[] = {"reset",      "undefined instruction", "supervisor call", "prefetch abort",
                                  "data abort", "reserved exception",    "interrupt",       "fast interrupt"};

void PutNumber(const char *label, std::uint32_t value) {
    CONSOLE_PutText(label);
    CONSOLE_PutHex(value);
}

} // namespace

void FAULT_Report(std::uint32_t vector, std::uint32_t pc, std::uint32_t status) {
    CONSOLE_PutText("\nFault: ");
    CONSOLE_PutText(kNames[vector & 7]);
    PutNumber(" at ", pc);
    if (vector == kPrefetchAbort) PutNumber(", fault status ", cp15::InstructionFaultStatus());
    if (vector == kDataAbort) {
        PutNumber(", address ", cp15::FaultAddress());
        PutNumber(", fault status ", cp15::DataFaultStatus());
    }
    PutNumber(", program status ", status);
    CONSOLE_Put('\n');
    semihosting::Exit(semihosting::kExitFault);
}

void PLATFORM_Refuse(const char *who, const char *what, int code) {
    CONSOLE_Put('\n');
    CONSOLE_PutText(who);
    CONSOLE_PutText(": ");
    CONSOLE_PutText(what);
    CONSOLE_Put('\n');
    semihosting::Exit(code);
}

// A debugger that knows this file has the start fail; any other has no such file.
bool PLATFORM_FileServerFails() {
    const std::int32_t handle = semihosting::Open(":file-server-fails", semihosting::kReadBinary);
    if (handle < 0) return false;
    const std::int32_t block[] = {handle};
    semihosting::Call(semihosting::kClose, block);
    return true;
}
