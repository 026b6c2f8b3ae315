// The reference platform's own calls, in the order in which the start-up makes them. What the bootloader sees of the
// platform is in <kernel.h>.
#pragma once

#include "console.h"

#include <cstdint>

// Called from the entry, with zero-initialised data cleared. Never returns: it ends the run and idles.
extern "C" [[noreturn]] void PLATFORM_Start(void);
// Called from the vectors: prints what happened and where, ends the run and idles. `vector` is the exception's number
// in the vector table.
extern "C" [[noreturn]] void FAULT_Report(std::uint32_t vector, std::uint32_t pc, std::uint32_t status);

// Maps memory flat, with caches, alignment checks and high vectors on.
void MMU_Enable(void);

// Starts the timer that usleep reads.
void TIMER_Init(void);

// Clocks, pins and devices of the board; the second half runs once the flash layer is up.
extern "C" void BSP_InitializeDevices(void);
extern "C" void BSP_Initialize(void);
