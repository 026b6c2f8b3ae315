#include "semihosting.h"

#include <cstring>

namespace semihosting {

std::int32_t Open(const char *name, Mode mode) {
    const std::uint32_t block[] = {reinterpret_cast<std::uint32_t>(name), mode, std::strlen(name)};
    const std::int32_t handle = Call(kOpen, block);
    return handle > 0 ? handle : -1;
}

void Exit(int code) {
    constexpr std::uint32_t kApplicationExit = 0x20026;
    const std::uint32_t block[] = {kApplicationExit, static_cast<std::uint32_t>(code)};
    Call(kExitExtended, block);
    for (;;) asm volatile("");
}

} // namespace semihosting
