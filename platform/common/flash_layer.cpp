// Stands in for the flash translation layer where it meets the bootloader: it asks which part of the NAND chip it may
// use, before main, and cannot work with a wrong answer. The files themselves come from the debugger.
#include "stand_ins.h"

#include <bootloader.h>
#include <cstring>

namespace {

constexpr std::uint32_t kBlockBytes = 128 * 1024;
constexpr std::uint32_t kNandClass = 2;
constexpr std::uint32_t kToLastBlock = 0xFFFFFFFF;

constexpr FlashDeviceRange kWholeChip[] = {{0, 0, kToLastBlock, kNandClass, 0, "K9Fx NAND Flash Chip"}};

void Require(bool right, const char *what) {
    if (!right) PLATFORM_Refuse("Flash layer", what, kFlashLayerRefused);
}

// Memory is not cleared for the count, so that one that is not stored shows.
FlashDeviceRange AskForRange() {
    int count = -1;
    const FlashDeviceRange *ranges = User_GetFlashDeviceRanges(&count);
    Require(count == 1, "one range was expected");
    Require(ranges != nullptr, "no range was given");
    return *ranges;
}

} // namespace

const FlashDeviceRange *BSP_GetFlashDeviceRanges(int *count) {
    *count = 1;
    return kWholeChip;
}

void FLASHLAYER_Start() {
    const FlashDeviceRange counted = AskForRange();
    const FlashDeviceRange opened = AskForRange();
    // Six words without a gap on the board. NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    Require(std::memcmp(&counted, &opened, sizeof counted) == 0, "the range changed between count and open");
    Require(opened.device_class == kNandClass, "the range is not on a NAND device");
    Require(opened.instance == 0, "the range is not for instance 0");
    Require(opened.first_block <= opened.last_block, "the range is empty");
    Require(opened.offset == opened.first_block * kBlockBytes, "offset and first block differ");
    Require(opened.last_block == kToLastBlock, "the range ends before the chip does");
    Require(opened.name && *opened.name, "the device has no name");
}
