#include "App.h"

#include "ImageRecord.h"
#include "LCD.h"

#include <at91sam9263.h>
#include <cstddef>
#include <cstring>
#include <kernel.h>
#include <memory_map.h>

namespace {

struct Record {
    std::uint32_t checksum;
    std::uint32_t size;
    char version[kVersionSize]; // nothing sets it: an application is launched whatever its version
    char path[kPathSize];
};
static_assert(offsetof(Record, version) == 8 && offsetof(Record, path) == 24 && sizeof(Record) == 280);

struct State {
    Record record;
    char end_of_path; // stays 0 and ends a path that fills its field
};
State state;

} // namespace

constexpr char primaryBootText[25] = "Launch SDRAM directly...";

void App_Init() { state.record = {}; }

void App_SetPathFilename(const char *path) { SetText(state.record.path, path); }
void App_SetSize(std::uint32_t size) { state.record.size = size; }
void App_SetCheckSum(std::uint32_t checksum) { state.record.checksum = checksum; }

const char *App_GetPathFilename() { return state.record.path; }
std::uint32_t App_GetSize() { return state.record.size; }
std::uint32_t App_GetCheckSum() { return state.record.checksum; }

int App_Load() {
    App_LeaveMarker(App_GetSize());
    LCD_DrawProgressBar(40);
    App_Reset();
    return 0;
}

void App_LeaveMarker(std::uint32_t length) {
    constexpr std::uint32_t kMarkerFlush = 0xFF;
    std::memcpy(image_load_buf + (kLaunchMarkerBase - kLoadBufferBase), primaryBootText, sizeof primaryBootText);
    ASP_FlushCaches(kLoadBufferBase, length);
    ASP_FlushCaches(kLaunchMarkerBase, kMarkerFlush);
}

void App_Reset() {
    constexpr std::uint32_t kKey = 0xA5000000;
    constexpr std::uint32_t kUserResetEnable = 1;
    constexpr std::uint32_t kProcessorReset = 1;
    constexpr std::uint32_t kCommandInProgress = 1u << 17;
    RSTC.MR().write(kKey | kUserResetEnable);
    RSTC.CR().write(kKey | kProcessorReset);
    while (RSTC.SR().read() & kCommandInProgress) {
    }
}
