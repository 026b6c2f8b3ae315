// Stand-ins for the kernel's flash layer and file server, shared by both platforms, and what they need from them.
#pragma once

#include <cstdint>
#include <flash_ranges.h>

// How a run ends where a stand-in was told something that the real part could not work with.
enum StandInCode : int {
    kFlashLayerRefused = 102,
    kFileServerRefused = 103,
};

// Asks for the flash device ranges as the flash layer does: once to count its devices, once to open them.
void FLASHLAYER_Start(void);

// The platform's part. Prints "<who>: <what>" and ends the run.
[[noreturn]] void PLATFORM_Refuse(const char *who, const char *what, int code);
// Whether the file server's start is to fail.
bool PLATFORM_FileServerFails(void);

// The network configuration, one field a parameter, 9 to 12. A field stays 0 where the parameter is not stored.
struct NetDevConfig {
    std::uint32_t address;
    std::uint32_t mask;
    std::uint32_t gateway;
    std::uint32_t name_server;
};
static_assert(sizeof(NetDevConfig) == 16);

extern "C" {

// Reads parameters 9 to 12 into NetDevs.
void BSP_ReadNetDevs(void);
extern NetDevConfig NetDevs;

// The whole chip, for programs without User_GetFlashDeviceRanges.
const FlashDeviceRange *BSP_GetFlashDeviceRanges(int *count);

} // extern "C"
