// The host process's side of what the modules call on their kernel. Internal to platform/host.
#pragma once

#include "fixture/core/board_memory.h"
#include "fixture/core/bus.h"
#include "fixture/processors/processor.h"
#include "platform/host/file_system.h"

#include <functional>

namespace fixture {

// What the kernel calls reach. One record a process: the modules keep their state the same way.
struct HostKernel {
    Clock *clock = nullptr;
    Bus *bus = nullptr;
    FileSystem *volume = nullptr;
    HandoverCache *cache = nullptr;
    std::function<std::uint32_t()> master_clock_hz;
    bool file_server_fails = false;
    bool running = false;
    std::function<void(StageResult)> stop;
};
// Plain, not a local of a function: every access to a device asks for it.
extern HostKernel g_host_kernel;
inline HostKernel &host_kernel() { return g_host_kernel; }

// Frees everything that the modules have allocated.
void ReleaseModuleHeap();

} // namespace fixture

extern "C" {
// The board start-up that runs before main: clocks, devices, flash layer.
void host_platform_start(void);
// The bootloader's main, under the name its objects are joined with.
int bootloader_main(void);
}
