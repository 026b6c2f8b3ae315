#include "Rescue.h"

#include "App.h"
#include "Boot.h"
#include "ImageRecord.h"
#include "LCD.h"
#include "Medium.h"
#include "StoredImage.h"
#include "Validate.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

struct Record {
    std::uint32_t size;
    std::uint32_t checksum;
    char version[kVersionSize];
    char path[kPathSize];
};
static_assert(offsetof(Record, version) == 8 && offsetof(Record, path) == 24 && sizeof(Record) == 280);

struct State {
    Record record;
    char end_of_path; // stays 0 and ends a path that fills its field
};
State state;

// The slot is the only one: an image that does not fit is refused before the old one is touched.
int CopyImage(const Medium &medium, const void *image, std::uint32_t length) {
    if (medium.admit_rescue(length) != 0) return -1;
    if (medium.write(medium.rescue_slot, image, length) != 0) return -1;
    return Validate_Image(medium, medium.rescue_slot);
}

int WriteVersion(const Medium &medium, const char *record) {
    return medium.write_short(medium.rescue_version, record, kRescueVersionSize) == 0 ? 0 : -1;
}

} // namespace

void Rescue_Init() { state.record = {}; }

void Rescue_SetPathFilename(const char *path) { SetText(state.record.path, path); }
void Rescue_SetSize(std::uint32_t size) { state.record.size = size; }
void Rescue_SetCheckSum(std::uint32_t checksum) { state.record.checksum = checksum; }
void Rescue_SetVersion(const char *version) { SetText(state.record.version, version); }

const char *Rescue_GetPathFilename() { return state.record.path; }
std::uint32_t Rescue_GetSize() { return state.record.size; }
std::uint32_t Rescue_GetCheckSum() { return state.record.checksum; }
const char *Rescue_GetVersion() { return state.record.version; }

int Rescue_Store(const char *record, std::uint32_t nand_boot) {
    LCD_DrawProgressBar(50);
    std::memset(image_load_buf, 0, kHeaderSize);
    const std::int32_t loaded = Rescue_LoadImageIntoMemory(Rescue_GetPathFilename(), image_load_buf);
    if (loaded < 0) return -1;
    LCD_DrawProgressBar(70);
    if (Validate_LoadedImage(image_load_buf, static_cast<std::uint32_t>(loaded)) != 0) return -1;
    LCD_DrawProgressBar(80);
    const std::uint32_t length = Validate_ImageSize(image_load_buf);
    const Medium &medium = *Medium_Of(nand_boot);
    if (CopyImage(medium, image_load_buf, length) != 0 || WriteVersion(medium, record) != 0) return -1;
    LCD_DrawProgressBar(100);
    return 0;
}

std::int32_t Rescue_LoadImageIntoMemory(const char *path, void *destination) {
    return Boot_LoadImageIntoMemory(path, destination);
}

int Rescue_CopyImageToSDFlash(const void *image, std::uint32_t length) {
    return CopyImage(sdFlashMedium, image, length);
}
int Rescue_CopyImageToNandFlash(const void *image, std::uint32_t length) {
    return CopyImage(nandMedium, image, length);
}

int Rescue_Load(std::uint32_t nand_boot) {
    // Kept: a fixed length, whatever the image's size.
    constexpr std::uint32_t kFlushLength = 0x3FBFFF;
    LCD_DrawProgressBar(50);
    std::printf("\tFind valid rescue app...\n");
    std::fflush(stdout);
    const Medium &medium = *Medium_Of(nand_boot);
    if (Validate_Image(medium, medium.rescue_slot) != 0) return -1;
    std::printf("\tRescue app found...\n");
    std::printf("\tResetting...\n");
    std::fflush(stdout);
    App_LeaveMarker(kFlushLength);
    LCD_DrawProgressBar(100);
    Rescue_Reset();
    return 0;
}

void Rescue_Reset() { App_Reset(); }
