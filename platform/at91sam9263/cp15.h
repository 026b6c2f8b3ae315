// The system control coprocessor of the ARM926EJ-S, one call an operation.
//
// Source of names and encodings: ARM926EJ-S technical reference manual.
#pragma once

#include <cstdint>

namespace cp15 {

inline std::uint32_t Control() {
    std::uint32_t value;
    asm volatile("mrc p15, 0, %0, c1, c0, 0" : "=r"(value));
    return value;
}
inline void SetControl(std::uint32_t value) { asm volatile("mcr p15, 0, %0, c1, c0, 0" ::"r"(value) : "memory"); }
inline void SetTranslationTable(const void *base) { asm volatile("mcr p15, 0, %0, c2, c0, 0" ::"r"(base) : "memory"); }
inline void SetDomains(std::uint32_t value) { asm volatile("mcr p15, 0, %0, c3, c0, 0" ::"r"(value) : "memory"); }

inline std::uint32_t DataFaultStatus() {
    std::uint32_t value;
    asm volatile("mrc p15, 0, %0, c5, c0, 0" : "=r"(value));
    return value;
}
inline std::uint32_t InstructionFaultStatus() {
    std::uint32_t value;
    asm volatile("mrc p15, 0, %0, c5, c0, 1" : "=r"(value));
    return value;
}
inline std::uint32_t FaultAddress() {
    std::uint32_t value;
    asm volatile("mrc p15, 0, %0, c6, c0, 0" : "=r"(value));
    return value;
}

inline void InvalidateCaches() { asm volatile("mcr p15, 0, %0, c7, c7, 0" ::"r"(0) : "memory"); }
inline void InvalidateTranslations() { asm volatile("mcr p15, 0, %0, c8, c7, 0" ::"r"(0) : "memory"); }
inline void CleanAndInvalidateDataLine(std::uint32_t address) {
    asm volatile("mcr p15, 0, %0, c7, c14, 1" ::"r"(address) : "memory");
}
inline void InvalidateInstructionLine(std::uint32_t address) {
    asm volatile("mcr p15, 0, %0, c7, c5, 1" ::"r"(address) : "memory");
}
inline void DrainWriteBuffer() { asm volatile("mcr p15, 0, %0, c7, c10, 4" ::"r"(0) : "memory"); }

} // namespace cp15
