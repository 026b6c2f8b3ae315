// The hardware watchdog. It is running when the bootloader starts; its mode stays as the earlier stages set it.
#pragma once

extern "C" {

// Restarts the watchdog's count.
void kickWatchdog(void);

} // extern "C"
