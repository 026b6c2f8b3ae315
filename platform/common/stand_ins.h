// Stand-ins for the kernel's flash layer and file server, shared by both platforms, and what they need from them.
#pragma once

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
