#include "NandFlash_if.h"

#include "nandflash.h"

int NandFlash_if_Init(void) { return NandFlash_Init(); }

int NandFlash_if_Read(std::uint32_t address, void *buffer, std::uint32_t length) {
    return NandFlash_Read(address, buffer, length);
}

int NandFlash_if_Write(std::uint32_t address, const void *source, std::int32_t length) {
    return NandFlash_Write(address, source, length);
}
