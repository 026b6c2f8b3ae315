// The main application: its record and its launch.
//
// The record says what the bank being looked at claims about its application file. App_Init empties it at the start of
// every bank; the setters fill it from the manifest.
//
// Nothing is ever jumped into. A launch leaves the image at the start of the load buffer and a marker text at
// 0x23FFFF00, writes both back from the data cache and resets the processor; the first-stage loader finds the marker
// and starts the image that lies in SDRAM.
#pragma once

#include <cstdint>

extern "C" {

void App_Init(void);

// A path of 256 characters or more is cut to 256.
void App_SetPathFilename(const char *path);
void App_SetSize(std::uint32_t size);
void App_SetCheckSum(std::uint32_t checksum);

// The record's own text, terminated, changed by the next App_Init and App_SetPathFilename.
const char *App_GetPathFilename(void);
std::uint32_t App_GetSize(void);
std::uint32_t App_GetCheckSum(void);

// Launches the application that lies in the load buffer; its length is the record's size. Draws 40 % of the bar.
// Returns 0 only if the reset does not happen.
int App_Load(void);

// What the first-stage loader looks for: 24 characters and their terminator.
extern const char primaryBootText[25];

// Leaves the marker for the first-stage loader, then flushes the caches over the load buffer's first `length` bytes and
// over the marker.
void App_LeaveMarker(std::uint32_t length);

// Resets the processor alone: SDRAM and peripherals keep their contents. Comes back only where the reset is refused,
// once the reset controller has no command in progress.
void App_Reset(void);

} // extern "C"
