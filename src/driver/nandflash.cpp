#include "nandflash.h"

#include "gpio.h"
#include "nandbus.h"

#include <at91sam9263.h>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

std::uint8_t *pWorkBuffer = nullptr;

namespace {

struct ChipEntry {
    std::uint16_t identifier; // maker code, device code
    std::uint16_t blockCount;
    std::uint32_t blockSize;
    std::uint16_t pageSize;
    std::uint8_t spareSize;
    std::uint8_t wideBus;
    char name[16];
};
static_assert(sizeof(ChipEntry) == 28);

constexpr ChipEntry kChips[] = {
    {0xECDA, 2048, 0x20000, 2048, 64, 0, "K9F2G08U0M"},
    {0xECAA, 2048, 0x20000, 2048, 64, 0, "K9F2G08R0A"},
    {0x2CCA, 2048, 0x20000, 2048, 64, 1, "MT29F2G16AAB"},
    {0x2CDA, 2048, 0x20000, 2048, 64, 0, "MT29F2G08AAC"},
    {0x20AA, 2048, 0x20000, 2048, 64, 0, "STMNAND02GR3B"},
    {0x2CAA, 2048, 0x20000, 2048, 64, 0, "MT29F2G08ABD"},
    {0, 0, 0, 0, 0, 0, ""},
};

struct State {
    NandGeometry geometry;    // of the current chip
    const ChipEntry *entry;   // null when no part matched. Kept: a debugger reads it, no routine does.
    std::uint32_t afterBlock; // 1 + the last block examined, never forgotten: blocks retired later keep their verdict
    int lastVerdict;          // 1 = good, 0 = bad
};
constinit State state{};

NandGeometry &Geometry() { return state.geometry; }
void SetEntry(const ChipEntry *entry) { state.entry = entry; }
bool IsLastBlock(std::uint32_t block) { return state.afterBlock == block + 1; }
int LastVerdict() { return state.lastVerdict; }
int SetVerdict(std::uint32_t block, int verdict) {
    state.afterBlock = block + 1;
    return state.lastVerdict = verdict;
}
bool IsReady() { return Geometry().pageSize != 0 && pWorkBuffer != nullptr; }

// --- bus and pins ---

constexpr std::uint32_t kChipSelect = 3;
constexpr std::uint32_t kCs3CarriesNand = 1u << 3;    // EBI0_CSA
constexpr std::uint32_t kDataBusWidth = 3u << 12;     // SMC MODE.DBW: 0 = 8 bits
constexpr std::uint32_t kReadyPin = 22;               // PA22
constexpr std::uint32_t kChipEnablePin = 3 * 32 + 15; // PD15
constexpr std::uint32_t kReadyMask = 1u << kReadyPin;
constexpr std::uint32_t kChipEnableMask = 1u << kChipEnablePin % 32;

constexpr PinRecord kPins[] = {
    {"RDY_BSY", kReadyPin, 0, kPinPullUp, PIN_INPUT},
    {"NANDCS", kChipEnablePin, 0, kPinPullUp, PIN_OUTPUT},
    {nullptr, 0, 0, 0, 0},
};

enum Command : std::uint8_t {
    READ = 0x00,
    READ_CONFIRM = 0x30,
    PROGRAM = 0x80,
    PROGRAM_CONFIRM = 0x10,
    ERASE = 0x60,
    ERASE_CONFIRM = 0xD0,
    READ_STATUS = 0x70,
    READ_ID = 0x90,
};
constexpr std::uint8_t kStatusFail = 0x01;

void EnableChip() { PIOD.CODR().write(kChipEnableMask); }
void DisableChip() { PIOD.SODR().write(kChipEnableMask); }
void SendCommand(Command command) { NAND.COMMAND().write(command); }
void SendAddress(std::uint32_t cycle) { NAND.ADDRESS().write(static_cast<std::uint8_t>(cycle)); }

void SendColumn(std::uint32_t column) {
    SendAddress(column);
    SendAddress(column >> 8);
}

void SendRow(std::uint32_t row) {
    SendAddress(row);
    SendAddress(row >> 8);
    SendAddress(row >> 16);
}

void WaitReady() {
    while ((PIOA.PDSR().read() & kReadyMask) == 0) {
    }
}

// The first look may come before the chip has pulled the line low.
void WaitReadyTwice() {
    WaitReady();
    WaitReady();
}

// --- pages ---

// Which part of a page a transfer moves. Any other value moves nothing.
enum Area : std::uint32_t { AREA_DATA = 1, AREA_SPARE = 2, AREA_RAW = 3 };

struct Transfer {
    std::uint32_t column; // as sent: bytes on an 8-bit bus, words on a 16-bit bus
    std::uint32_t offset; // in the buffer
    std::uint32_t count;  // bytes
};

// Opens a page transfer: chip enable, command and, for an area that exists, the five address cycles. Returns 0 for an
// unknown area; the command is then left hanging, which the next command ends.
int OpenPage(const NandGeometry &chip, std::uint32_t address, Area area, Command command, Transfer &transfer) {
    EnableChip();
    SendCommand(command);
    if (area < AREA_DATA || area > AREA_RAW) {
        DisableChip();
        return 0;
    }
    const std::uint32_t spareColumn = chip.wideBus != 0 ? chip.pageSize / 2 : chip.pageSize;
    transfer = area == AREA_DATA    ? Transfer{0, 0, chip.pageSize}
               : area == AREA_SPARE ? Transfer{spareColumn, chip.pageSize, chip.spareSize}
                                    : Transfer{0, 0, chip.rawPageSize};
    SendColumn(transfer.column);
    SendRow(address >> chip.rowShift);
    return 1;
}

// Kept: no status is read. What a page holds is judged by its reader.
int ReadPage(const NandGeometry &chip, std::uint32_t address, std::uint8_t *buffer, Area area) {
    Transfer transfer;
    if (OpenPage(chip, address, area, READ, transfer) == 0) return 0;
    SendCommand(READ_CONFIRM);
    WaitReadyTwice();
    (chip.wideBus != 0 ? NandBus_Take16 : NandBus_Take8)(buffer + transfer.offset, transfer.count);
    DisableChip();
    return 1;
}

// Kept: the program status is not read. A failed program is found by the verification of NandFlash_Write alone.
int WritePage(const NandGeometry &chip, std::uint32_t address, const std::uint8_t *buffer, Area area) {
    Transfer transfer;
    if (OpenPage(chip, address, area, PROGRAM, transfer) == 0) return 0;
    (chip.wideBus != 0 ? NandBus_Give16 : NandBus_Give8)(buffer + transfer.offset, transfer.count);
    SendCommand(PROGRAM_CONFIRM);
    WaitReadyTwice();
    DisableChip();
    return 1;
}

// --- identification ---

std::uint16_t ReadIdentifier() {
    EnableChip();
    SendCommand(READ_ID);
    SendAddress(0x00);
    const std::uint32_t maker = NAND.DATA().read8();
    const std::uint32_t device = NAND.DATA().read8();
    DisableChip();
    return static_cast<std::uint16_t>(maker << 8 | device);
}

// The end is tested first, so that identifier 0 (a bus held low) is unknown.
const ChipEntry *FindChip(std::uint16_t identifier) {
    for (const ChipEntry *entry = kChips; entry->identifier != 0; ++entry)
        if (entry->identifier == identifier) return entry;
    return nullptr;
}

constexpr NandGeometry GeometryOf(const ChipEntry &entry) {
    NandGeometry g{};
    g.pageSize = entry.pageSize;
    g.spareSize = entry.spareSize;
    g.rawPageSize = g.pageSize + g.spareSize;
    g.pagesPerBlock = entry.blockSize / g.pageSize;
    g.blockSize = entry.blockSize;
    g.spareBlockSize = g.spareSize * g.pagesPerBlock;
    g.rawBlockSize = g.rawPageSize * g.pagesPerBlock;
    g.blockCount = entry.blockCount;
    g.totalPages = g.blockCount * g.pagesPerBlock;
    g.totalRawSize = g.blockCount * g.rawBlockSize;
    g.totalSpareSize = g.blockCount * g.spareBlockSize;
    g.totalRawAndSpare = g.totalRawSize + g.totalSpareSize;
    g.rowShift = static_cast<std::uint32_t>(std::bit_width(g.pageSize - 1));
    g.wideBus = entry.wideBus;
    g.markerPosition = 0;
    return g;
}
static_assert(GeometryOf(kChips[0]).rowShift == 11 && GeometryOf(kChips[0]).totalPages == 131072);
static_assert(GeometryOf(kChips[0]).totalRawAndSpare == 0x11000000);

// --- verified write ---

// How far a write has come.
struct Progress {
    const std::uint8_t *source;
    std::int32_t remaining;
    std::uint32_t offset; // bytes to leave erased before the data
};

// Walks the pages of a block that hold data and calls `visit(page address, progress)` for each, until one returns
// false. Kept: an offset within a page is not cleared after the first page; every later one starts with it too.
template <typename Visit>
bool WalkPages(const NandGeometry &chip, std::uint32_t blockAddress, Progress &progress, Visit visit) {
    for (std::uint32_t page = 0; page < chip.pagesPerBlock && progress.remaining > 0; ++page) {
        if (progress.offset >= chip.pageSize) {
            progress.offset -= chip.pageSize;
            continue;
        }
        if (!visit(blockAddress + page * chip.pageSize, progress)) return false;
        const std::uint32_t moved = chip.pageSize - progress.offset;
        progress.source += moved;
        progress.remaining -= static_cast<std::int32_t>(moved);
    }
    return true;
}

bool ProgramPage(const NandGeometry &chip, std::uint32_t address, const Progress &at) {
    if (at.offset == 0) return WritePage(chip, address, at.source, AREA_DATA) == 1;
    std::memset(pWorkBuffer, 0xFF, chip.pageSize);
    std::memcpy(pWorkBuffer + at.offset, at.source, chip.pageSize - at.offset);
    return WritePage(chip, address, pWorkBuffer, AREA_DATA) == 1;
}

bool VerifyPage(const NandGeometry &chip, std::uint32_t address, const Progress &at) {
    if (ReadPage(chip, address, pWorkBuffer, AREA_DATA) != 1) return false;
    return NandBus_Same(pWorkBuffer + at.offset, at.source, chip.pageSize - at.offset);
}

// Erases, programs and verifies one block; `progress` moves on only when all of it succeeded.
bool TryBlock(const NandGeometry &chip, std::uint32_t blockAddress, Progress &progress) {
    if (AT91F_NandEraseBlock(&chip, blockAddress) != 1) return false;
    const auto program = [&](std::uint32_t page, const Progress &at) { return ProgramPage(chip, page, at); };
    const auto verify = [&](std::uint32_t page, const Progress &at) { return VerifyPage(chip, page, at); };
    Progress programmed = progress;
    if (!WalkPages(chip, blockAddress, programmed, program)) return false;
    Progress verified = progress;
    if (!WalkPages(chip, blockAddress, verified, verify)) return false;
    progress = verified;
    return true;
}

// Kept: both rounds mark page 0; page 1 stays as it is.
void MarkBlockBad(const NandGeometry &chip, std::uint32_t blockAddress) {
    for (int round = 0; round < 2; ++round) {
        ReadPage(chip, blockAddress, pWorkBuffer, AREA_SPARE);
        pWorkBuffer[chip.pageSize + chip.markerPosition] = 0x00;
        WritePage(chip, blockAddress, pWorkBuffer, AREA_SPARE);
    }
}

constexpr int kAttempts = 3;

void WriteBlock(const NandGeometry &chip, std::uint32_t block, Progress &progress) {
    const std::uint32_t address = block * chip.blockSize;
    if (CheckBlock(&chip, block) == 0) {
        std::printf("Block %08X is marked as bad...\n", static_cast<unsigned>(address));
        return;
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt)
        if (TryBlock(chip, address, progress)) return;
    std::printf("Block %08X is bad, marking it...\n", static_cast<unsigned>(address));
    MarkBlockBad(chip, address);
}

// Reads the first `bytes` bytes of a block to `to`, which moves on. Returns false for a bad block. The block's verdict
// is remembered from page 0 on, so a bad block delivers nothing.
bool ReadBlock(const NandGeometry &chip, std::uint32_t block, std::uint32_t bytes, std::uint8_t *&to) {
    for (std::uint32_t done = 0; done < bytes; done += chip.pageSize) {
        if (AT91F_NandRead(&chip, block, done / chip.pageSize, 0, pWorkBuffer) == 0) return false;
        const std::uint32_t part = bytes - done < chip.pageSize ? bytes - done : chip.pageSize;
        NandBus_Copy(to, pWorkBuffer, part);
        to += part;
    }
    return true;
}

} // namespace

void nandflash_hw_init(void) {
    MATRIX.EBI0_CSA().write(MATRIX.EBI0_CSA().read() | kCs3CarriesNand); // the other bits hold the SDRAM
    SMC0.SETUP(kChipSelect).write(0x01010101);
    SMC0.PULSE(kChipSelect).write(0x03030303);
    SMC0.CYCLE(kChipSelect).write(0x00050005);
    SMC0.MODE(kChipSelect).write(0x00021003); // NRD and NWE controlled, 16-bit data bus, two data-float cycles
    PMC.PCER().write(1u << ID_PIOA);
    PMC.PCER().write(1u << ID_PIOCDE);
    PinRecord pins[sizeof kPins / sizeof kPins[0]];
    std::memcpy(pins, kPins, sizeof pins);
    pio_setup(pins);
}

void nandflash_cfg_8bits_dbw_init(void) {
    SMC0.MODE(kChipSelect).write(SMC0.MODE(kChipSelect).read() & ~kDataBusWidth);
}

int NandFlash_Init(void) {
    nandflash_hw_init();
    const ChipEntry *entry = FindChip(ReadIdentifier());
    SetEntry(entry);
    if (entry == nullptr) return 0;
    Geometry() = GeometryOf(*entry);
    std::free(pWorkBuffer);
    pWorkBuffer = static_cast<std::uint8_t *>(std::malloc(Geometry().rawPageSize));
    if (pWorkBuffer == nullptr) return 0;
    if (Geometry().wideBus == 0) nandflash_cfg_8bits_dbw_init();
    return 1;
}

int AT91F_NandEraseBlock(const NandGeometry *chip, std::uint32_t address) {
    if (chip->blockSize == 0 || address / chip->blockSize >= chip->blockCount) return 0;
    EnableChip();
    SendCommand(ERASE);
    SendRow(address >> chip->rowShift);
    SendCommand(ERASE_CONFIRM);
    WaitReadyTwice();
    SendCommand(READ_STATUS);
    WaitReady();
    const std::uint8_t status = NAND.DATA().read8();
    DisableChip();
    return (status & kStatusFail) != 0 ? 0 : 1;
}

int CheckBlock(const NandGeometry *chip, std::uint32_t block) {
    if (IsLastBlock(block)) return LastVerdict();
    if (block >= chip->blockCount || pWorkBuffer == nullptr) return 0;
    for (std::uint32_t page = 0; page < 2; ++page) {
        ReadPage(*chip, block * chip->blockSize + page * chip->pageSize, pWorkBuffer, AREA_SPARE);
        if (pWorkBuffer[chip->pageSize + chip->markerPosition] != 0xFF) return SetVerdict(block, 0);
    }
    return SetVerdict(block, 1);
}

int AT91F_NandRead(const NandGeometry *chip, std::uint32_t block, std::uint32_t page, std::uint32_t, void *buffer) {
    if (page >= chip->pagesPerBlock || CheckBlock(chip, block) == 0) return 0;
    const std::uint32_t address = block * chip->blockSize + page * chip->pageSize;
    return ReadPage(*chip, address, static_cast<std::uint8_t *>(buffer), AREA_DATA);
}

int OL_nand_continuous_read(void *buffer, std::uint32_t length, std::uint32_t address) {
    const NandGeometry &chip = Geometry();
    auto *to = static_cast<std::uint8_t *>(buffer);
    const std::uint32_t blocks = IsReady() ? chip.blockCount : 0;
    for (std::uint32_t block = blocks != 0 ? address / chip.blockSize : 0; length != 0 && block < blocks; ++block) {
        const std::uint32_t chunk = length < chip.blockSize ? length : chip.blockSize;
        if (ReadBlock(chip, block, chunk, to))
            length -= chunk;
        else
            std::printf("Bad block at address %08X\n", static_cast<unsigned>(block * chip.blockSize));
    }
    if (length != 0) std::memset(to, 0xFF, length); // what the chip cannot deliver reads as erased
    return 0;
}

int NandFlash_Read(std::uint32_t address, void *buffer, std::uint32_t length) {
    return OL_nand_continuous_read(buffer, length, address);
}

int NandFlash_Write(std::uint32_t address, const void *source, std::int32_t length) {
    const NandGeometry &chip = Geometry();
    if (!IsReady()) return 0;
    Progress progress{static_cast<const std::uint8_t *>(source), length, address % chip.blockSize};
    for (std::uint32_t block = address / chip.blockSize; progress.remaining > 0 && block < chip.blockCount; ++block)
        WriteBlock(chip, block, progress);
    return 0;
}
