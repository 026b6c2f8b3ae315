#include "Boot.h"

#include "App.h"
#include "ImageRecord.h"
#include "LCD.h"
#include "Medium.h"
#include "PJFS.h"
#include "StoredImage.h"
#include "Validate.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <kernel.h>

namespace {

struct Record {
    std::uint32_t checksum;
    std::uint32_t size;
    char version[kVersionSize];
    char path[kPathSize];
};
static_assert(offsetof(Record, version) == 8 && offsetof(Record, path) == 24 && sizeof(Record) == 280);

struct State {
    Record record;
};
State state;

// The new image waits here while slots are checked: after what the check of a bootloader slot can overwrite, and
// before the launch marker.
constexpr std::uint32_t kParking = 0x00C00000;
constexpr std::uint32_t kLongestSlot =
    std::max({kNandBootSlotSize[0], kNandBootSlotSize[1], kSDFlashBootSlotSize[0], kSDFlashBootSlotSize[1]});
static_assert(kLongestSlot + kCheckOverrun <= kParking);
static_assert(kParking + kLongestSlot <= kLaunchMarkerBase - kLoadBufferBase);

// Returns where the image lies from now on. One that fits no slot stays: it will not be written.
const void *Park(const void *image, std::uint32_t length) {
    if (length > kLongestSlot) return image;
    return std::memmove(image_load_buf + kParking, image, length);
}

bool HasHeader(const Medium &medium, int slot) { return Validate_Header(medium, medium.boot_slot[slot]) == 0; }

bool HoldsImage(const Medium &medium, int slot) {
    return Validate_ImageWithin(medium, medium.boot_slot[slot], medium.boot_slot_size[slot]) == 0;
}

struct Choice {
    int target = -1; // where the new image goes
    int kept = -1;   // the copy to retire once that is done; -1: there is none
};

Choice ChooseSlots(const Medium &medium) {
    Choice choice;
    for (const int slot : {0, 1}) (HasHeader(medium, slot) ? choice.kept : choice.target) = slot;
    if (choice.target >= 0) return choice;
    // Two valid headers: what an interrupted update leaves.
    for (const int slot : {0, 1}) (HoldsImage(medium, slot) ? choice.kept : choice.target) = slot;
    if (choice.target < 0) choice.target = choice.kept == 0 ? 1 : 0;
    // With both images broken, one slot has been both; the slot about to be written is never the one to retire.
    if (choice.target == choice.kept) choice.kept = 1 - choice.target;
    return choice;
}

int WriteSlot(const Medium &medium, int slot, const void *image, std::uint32_t length) {
    if (length > medium.boot_slot_size[slot]) return -1;
    if (medium.write(medium.boot_slot[slot], image, length) != 0) return -1;
    if (medium.announces_update) {
        std::printf("Bootloader replaced.\n"); // Kept: before the image is verified.
        std::fflush(stdout);
    }
    return HoldsImage(medium, slot) ? 0 : -1;
}

int CopyImage(const Medium &medium, const void *image, std::uint32_t length) {
    const void *const parked = Park(image, length);
    const Choice choice = ChooseSlots(medium);
    if (medium.announces_update) {
        std::printf("Placing new bootloader at %08X.\n", static_cast<unsigned>(medium.boot_slot[choice.target]));
        std::fflush(stdout);
    }
    if (WriteSlot(medium, choice.target, parked, length) != 0) return -1;
    return choice.kept < 0 ? 0 : Validate_InvalidateImage(medium, medium.boot_slot[choice.kept]);
}

} // namespace

void Boot_Init() { state.record = {}; }

void Boot_SetPathFilename(const char *path) {
    std::memset(state.record.path, 0, kPathSize);
    std::strncpy(state.record.path, path, kPathSize - 1);
}
void Boot_SetSize(std::uint32_t size) { state.record.size = size; }
void Boot_SetCheckSum(std::uint32_t checksum) { state.record.checksum = checksum; }
void Boot_SetVersion(const char *version) { SetText(state.record.version, version); }

const char *Boot_GetPathFilename() { return state.record.path; }
std::uint32_t Boot_GetSize() { return state.record.size; }
std::uint32_t Boot_GetCheckSum() { return state.record.checksum; }
const char *Boot_GetVersion() { return state.record.version; }

int Boot_Store(std::uint32_t nand_boot) {
    LCD_DrawProgressBar(50);
    std::memset(image_load_buf, 0, kHeaderSize);
    const std::int32_t loaded = Boot_LoadImageIntoMemory(Boot_GetPathFilename(), image_load_buf);
    if (loaded < 0) return -1;
    LCD_DrawProgressBar(70);
    if (Validate_LoadedImage(image_load_buf, static_cast<std::uint32_t>(loaded)) != 0) return -1;
    // The first stage would not start an image of another maker, and the good copy would be gone.
    if (!Validate_HasMaker(image_load_buf)) return -1;
    LCD_DrawProgressBar(80);
    const std::uint32_t length = Validate_ImageSize(image_load_buf);
    if (CopyImage(*Medium_Of(nand_boot), image_load_buf, length) != 0) return -1;
    LCD_DrawProgressBar(100);
    Boot_Reset();
    return 0;
}

std::int32_t Boot_LoadImageIntoMemory(const char *path, void *destination) {
    const std::int32_t size = PJFS_FileSize(path);
    const int file = open(path, O_RDWR);
    if (file < 0) {
        std::printf("\tFatal Error : unable to load bootloader into ram\n");
        return -1;
    }
    const bool fits = size >= 0 && static_cast<std::uint32_t>(size) <= kLoadBufferSize;
    const ssize_t count = fits ? read(file, destination, static_cast<std::size_t>(size)) : -1;
    close(file);
    return static_cast<std::int32_t>(count);
}

int Boot_CopyImageToSDFlash(const void *image, std::uint32_t length) { return CopyImage(sdFlashMedium, image, length); }
int Boot_CopyImageToNandFlash(const void *image, std::uint32_t length) { return CopyImage(nandMedium, image, length); }

void Boot_Reset() { App_Reset(); }
