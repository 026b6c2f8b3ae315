// The board's start-up in a host process: the same devices in the same order as on the processor.
#include "console.h"
#include "platform/host/host_kernel.h"
#include "stand_ins.h"

#include <at91sam9263.h>
#include <bootloader.h>
#include <cstdio>
#include <fmt/format.h>
#include <kernel.h>

extern "C" int host_printf(const char *format, ...);

void host_platform_start(void) {
    PMC.PCER().write(1u << ID_PIOA | 1u << ID_PIOB | 1u << ID_PIOCDE);
    CONSOLE_Init();
    AT91SAM926X_InitializeLCD();
    dev_at91sam926x_twi_init();
    FLASHLAYER_Start();
    BSP_ReadNetDevs();
}

void PLATFORM_Refuse(const char *who, const char *what, int code) {
    host_printf("\n%s: %s\n", who, what);
    fixture::host_kernel().stop({fixture::StageEnd::exited, code, fmt::format("{}: {}", who, what)});
    std::abort(); // the stop does not come back
}

bool PLATFORM_FileServerFails(void) { return fixture::host_kernel().file_server_fails; }
