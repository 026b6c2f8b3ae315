// The board's start-up, from the entry to main and to the end of the run.
#include "platform.h"
#include "semihosting.h"
#include "stand_ins.h"

#include <at91sam9263.h>
#include <bootloader.h>
#include <cstdio>

int main();

namespace {

using Constructor = void (*)();
extern "C" {
extern const Constructor __init_array_start[];
extern const Constructor __init_array_end[];
}

void RunConstructors() {
    for (const Constructor *call = __init_array_start; call != __init_array_end; ++call) (*call)();
}

// The kernel's initial task: it ends with the program's result. Nothing before it may count on a constructor.
[[noreturn]] void InitialTask() {
    RunConstructors();
    const int result = main();
    std::fflush(stdout);
    semihosting::Exit(result);
}

} // namespace

void BSP_InitializeDevices() {
    PMC.PCER().write(1u << ID_PIOA | 1u << ID_PIOB | 1u << ID_PIOCDE); // pin levels read frozen without
    CONSOLE_Init();
    TIMER_Init();
    AT91SAM926X_InitializeLCD();
    dev_at91sam926x_twi_init();
}

void BSP_Initialize() { BSP_ReadNetDevs(); }

void PLATFORM_Start() {
    MMU_Enable();
    std::setvbuf(stdout, nullptr, _IONBF, 0); // each text is on the line when printf returns
    BSP_InitializeDevices();
    FLASHLAYER_Start();
    BSP_Initialize();
    InitialTask();
}
