// Calls to the debugger (Arm semihosting, A32): files of this machine's volume, and the end of the run.
//
// Without a debugger the supervisor call would enter the vectors: this platform runs on an emulator or under a probe.
#pragma once

#include <cstdint>

namespace semihosting {

enum Operation : std::uint32_t {
    kOpen = 0x01,
    kClose = 0x02,
    kRead = 0x06,
    kFileLength = 0x0C,
    kErrno = 0x13,
    kExitExtended = 0x20,
};

// One call. `block` holds the operation's parameters; none for kErrno.
inline std::int32_t Call(Operation operation, const void *block) {
    register std::uint32_t r0 asm("r0") = operation;
    register const void *r1 asm("r1") = block;
    // In supervisor mode a debugger that catches the vector has overwritten the link register.
    asm volatile("svc 0x123456" : "+r"(r0) : "r"(r1) : "memory", "lr", "cc");
    return static_cast<std::int32_t>(r0);
}

// Opens a file of the debugger's, or of the debugger itself where the name begins with ":". Returns a handle above 0,
// or a negative value.
enum Mode : std::uint32_t { kReadBinary = 1, kUpdateBinary = 3 };
std::int32_t Open(const char *name, Mode mode);

// How a run ends other than by main's own result.
enum ExitCode : int {
    kExitFault = 101, // a vector was taken
};

// Reports the program's result and idles for good.
[[noreturn]] void Exit(int code);

} // namespace semihosting
