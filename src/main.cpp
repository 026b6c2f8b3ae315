#include "main.h"

#include "LCD.h"
#include "NandFlash_if.h"
#include "PJFS.h"
#include "Rescue.h"
#include "SDFlash.h"
#include "SVNInfo.h"
#include "Spi.h"
#include "Validate.h"

#include <at91sam9263.h>
#include <boot_version.h>
#include <bootloader.h>
#include <cstdio>

namespace {

constexpr std::uint32_t kBlockBytes = 128 * 1024;
constexpr std::uint32_t kToLastBlock = 0xFFFFFFFF;
constexpr std::uint32_t kNandClass = 2;
constexpr const char *kNandName = "K9Fx NAND Flash Chip";

// What belongs to the file system: with NAND boot all but the first 16 MiB, which hold the raw slots; otherwise all.
constexpr FlashDeviceRange kNandBootRange[] = {{0x01000000, 128, kToLastBlock, kNandClass, 0, kNandName}};
constexpr FlashDeviceRange kDataFlashBootRange[] = {{0, 0, kToLastBlock, kNandClass, 0, kNandName}};
static_assert(kNandBootRange[0].offset == kNandBootRange[0].first_block * kBlockBytes);

// A strap joins a sensed pin, which has a pull-up, to a driven one.
constexpr std::uint32_t kSense1 = 1u << 12;
constexpr std::uint32_t kDrive1 = 1u << 13;
constexpr std::uint32_t kSense2 = 1u << 14;
constexpr std::uint32_t kDrive2 = 1u << 18;
constexpr std::uint32_t kSensed = kSense1 | kSense2;
constexpr std::uint32_t kDriven = kDrive1 | kDrive2;

void SetUpStrapPins() {
    constexpr std::uint32_t kSpiDisable = 2;
    SPI1.CR().write(kSpiDisable); // its pins are among those tested
    PIOB.IDR().write(kSensed | kDriven);
    PIOB.PUDR().write(~kSensed);
    PIOB.PUER().write(kSensed);
    PIOB.ODR().write(kSensed);
    PIOB.PER().write(kSensed);
    PIOB.PER().write(kDriven);
    PIOB.OER().write(kDriven);
    PIOB.OER().write(kDriven); // Kept: written twice.
    PIOB.PER().write(kSensed | kDriven);
}

bool IsHigh(std::uint32_t pin) { return (PIOB.PDSR().read() & pin) != 0; }

// Prints a stage line that must be seen before the stage begins.
void Announce(const char *stage) {
    std::printf("\t%s...\n", stage);
    std::fflush(stdout);
}

void StartDevices() {
    Announce("Init NandFlash");
    NandFlash_if_Init();
    std::printf(nandBoot ? "Boot pin reports: NAND boot\n" : "Boot pin reports: SD boot\n");
    Announce("Init LCD");
    Spi_Init();
    LCD_Init();
    LCD_DrawProgressBar(5);
    Announce("Init PJFS");
    PJFS_InitServer();
    LCD_DrawProgressBar(12);
    Announce("Init SDFlash");
    SDFlash_Init();
}

} // namespace

std::uint32_t nandBoot = 0;
constexpr const char *bankPath[3] = {"i:/vol0/data/app/", "i:/vol0/data/oldapp/", "i:/vol0/data/newapp/"};

std::uint32_t GetHardwarePinConfig() {
    std::uint32_t straps = 0;
    SetUpStrapPins();
    PIOB.CODR().write(kDriven);
    // A strap shows by following its driven pin down and up again; a pin that is low for good does not come up.
    if (!IsHigh(kSense1)) {
        PIOB.SODR().write(kDrive1);
        if (IsHigh(kSense1)) straps |= 1;
    }
    if (IsHigh(kSense2)) return straps;
    PIOB.SODR().write(kDrive2);
    if (IsHigh(kSense2)) straps |= 2;
    return straps;
}

const FlashDeviceRange *User_GetFlashDeviceRanges(int *count) {
    *count = 1;
    nandBoot = GetHardwarePinConfig() != 0 ? 1 : 0;
    return nandBoot ? kNandBootRange : kDataFlashBootRange;
}

// Starts the devices, then the first good bank's application, else the rescue image. A launch and a bootloader update
// end in a reset from inside these calls; coming back means that there is nothing to launch. What fails to start is not
// reported here: it shows as banks that cannot be read.
int main() {
    std::printf("Secondary Bootloader ver %i.%i.%s started...\n", kBootVersionMajor, kBootVersionMinor,
                kBootVersionBuild);
    SVNInfo_Splash();
    StartDevices();
    Announce("Find valid bank");
    LCD_DrawProgressBar(25);
    for (const char *bank : bankPath) Validate_Bank(bank, nandBoot);
    std::printf("\tNo valid bank found...\n");
    Announce("Start rescue app");
    Rescue_Load(nandBoot);
    std::printf("\tFatal Error : No valid application or bootloader in the filesystem\n");
    return 0;
}
