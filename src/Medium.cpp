#include "Medium.h"

#include "NandFlash_if.h"
#include "SDFlash.h"
#include "StoredImage.h"

#include <cstring>

constexpr std::uint32_t nandFlashBootSector[2] = {0x00040000, 0x00220000};
constexpr std::uint32_t sdFlashBootSector[2] = {0x00008000, 0x00204000};

static_assert(nandFlashBootSector[0] + kNandBootSlotSize[0] == nandFlashBootSector[1]);
static_assert(nandFlashBootSector[1] + kNandBootSlotSize[1] == kNandRescueSlot);
static_assert(sdFlashBootSector[0] + kSDFlashBootSlotSize[0] == sdFlashBootSector[1]);
static_assert(sdFlashBootSector[1] + kSDFlashBootSlotSize[1] == kSDFlashRescueSlot);

namespace {

constexpr std::uint32_t kNandPage = 2048;

struct State {
    std::uint8_t nand_page[kNandPage]; // what short writes go out from
};
State state;

int WriteNand(std::uint32_t address, const void *source, std::uint32_t length) {
    return NandFlash_if_Write(address, source, static_cast<std::int32_t>(length));
}

// The driver programs whole pages: the rest of the page goes out as zeros.
int WriteShortNand(std::uint32_t address, const void *source, std::uint32_t length) {
    if (length > kNandPage) return -1;
    std::memset(state.nand_page, 0, kNandPage);
    std::memcpy(state.nand_page, source, length);
    return WriteNand(address, state.nand_page, length);
}

int AdmitNandRescue(std::uint32_t length) { return length <= kNandRescueSlotSize ? 0 : -1; }

// The check reads on past the image: nearer to the chip's end an image could be written, over the only good copy, but
// would never pass. A write of nothing asks the driver whether the chip reaches that far.
int AdmitSDFlashRescue(std::uint32_t length) {
    return SDFlash_Write(kSDFlashRescueSlot + length + kCheckOverrun, image_load_buf, 0);
}

} // namespace

constexpr Medium nandMedium = {
    "NandFlash", nandFlashBootSector, kNandBootSlotSize, kNandRescueSlot, kNandRescueVersion,
    true,        NandFlash_if_Read,   WriteNand,         WriteShortNand,  AdmitNandRescue,
};
constexpr Medium sdFlashMedium = {
    "SDFlash", sdFlashBootSector, kSDFlashBootSlotSize, kSDFlashRescueSlot, kSDFlashRescueVersion,
    false,     SDFlash_Read,      SDFlash_Write,        SDFlash_Write,      AdmitSDFlashRescue,
};

const Medium *Medium_Of(std::uint32_t nand_boot) { return nand_boot != 0 ? &nandMedium : &sdFlashMedium; }
