#include <kernel.h>

#include "cp15.h"

void ASP_FlushCaches(std::uint32_t address, std::uint32_t length) {
    constexpr std::uint32_t kLine = 32;
    const std::uint32_t before = address % kLine;
    const std::uint64_t lines = (std::uint64_t{before} + length + kLine - 1) / kLine;
    std::uint32_t line = address - before;
    cp15::DrainWriteBuffer();
    for (std::uint64_t i = length ? lines : 0; i > 0; --i, line += kLine) {
        cp15::CleanAndInvalidateDataLine(line);
        cp15::InvalidateInstructionLine(line);
    }
    cp15::DrainWriteBuffer();
}
