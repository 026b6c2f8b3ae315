// Driver of the NAND flash chip on chip select 3: polled, without interrupts, DMA or error correction. It serves the
// raw boot slots only; the file system has a driver of its own, and the two must not be active at the same moment.
//
//   static std::uint8_t block[0x20000];
//   NandFlash_Init();                               // first; may run again and then replaces the page buffer
//   NandFlash_Read(0x40000, block, sizeof block);
//   NandFlash_Write(0x220000, block, sizeof block); // erases, programs and verifies block by block
//
// Addresses are byte addresses in the chip's data space; spare bytes do not count. Block number = address / block size.
// Bad blocks, by the marker in the spare area of their pages 0 and 1, are skipped by reads and writes alike. Nothing
// beyond the chip's last block is ever addressed: the chip would take the address for one at its start.
//
// The driver waits for the chip without a time-out. Source of commands and geometry: the chips' datasheets; of the bus
// settings: AT91SAM9263 datasheet, static memory controller.
#pragma once

#include <cstdint>

// Geometry of the chip, in bytes where nothing else is said. All zero until a supported chip was found.
struct NandGeometry {
    std::uint32_t pageSize;
    std::uint32_t spareSize;   // of one page
    std::uint32_t rawPageSize; // page + spare
    std::uint32_t pagesPerBlock;
    std::uint32_t blockSize;
    std::uint32_t spareBlockSize; // spare bytes of one block
    std::uint32_t rawBlockSize;   // block + spare
    std::uint32_t blockCount;
    std::uint32_t totalPages;
    std::uint32_t totalRawSize;
    std::uint32_t totalSpareSize;
    std::uint32_t totalRawAndSpare; // Kept: counts the spare bytes twice; nothing reads it.
    std::uint32_t rowShift;         // byte address >> rowShift = page (row) number
    std::uint32_t wideBus;          // 1 = 16-bit data bus, 0 = 8-bit
    std::uint32_t markerPosition;   // of the bad-block marker in the spare area
};

extern "C" {

// Page-sized (page + spare) buffer on the heap, for transfers that do not go straight from the caller's memory; null
// before NandFlash_Init.
extern std::uint8_t *pWorkBuffer;

// Sets up bus, clocks and pins and identifies the chip. Returns 1 when a supported chip was found and the driver is
// ready, else 0; the geometry is then as it was, and the data bus stays 16 bits wide.
int NandFlash_Init(void);

// Reads `length` bytes to `buffer`, always from page 0 of the block that holds `address`. What the chip cannot deliver
// (beyond its end, no chip) is delivered as erased flash, 0xFF. Prints "Bad block at address ..." for every block that
// it skips. Returns 0.
int NandFlash_Read(std::uint32_t address, void *buffer, std::uint32_t length);

// Writes `length` bytes from `source`: every block touched is erased, programmed and read back, three times at most;
// a block that fails three times is marked bad and the next one takes its data. It ends at the chip's end.
//
//   address   where it does not begin a page, its offset in the page is left erased at the start of every page that
//             is written, not of the first alone
//   source    readable up to the next page boundary: whole pages are programmed
//   length    bytes; 0 or less writes and erases nothing
//
// Prints "Block ... is marked as bad..." and "Block ... is bad, marking it..." for the blocks it leaves out. Returns 0.
int NandFlash_Write(std::uint32_t address, const void *source, std::int32_t length);

// NandFlash_Read with its arguments in another order.
int OL_nand_continuous_read(void *buffer, std::uint32_t length, std::uint32_t address);

// The routines below take the geometry to work with and a pWorkBuffer that fits it.

// Reads the data area of page `page` of a block into `buffer`. Returns 1, or 0: a bad block, or one without that page.
int AT91F_NandRead(const NandGeometry *chip, std::uint32_t block, std::uint32_t page, std::uint32_t ignored,
                   void *buffer);

// Erases the block that holds `address`. Returns 1, or 0 when the chip reports failure or has no such block.
int AT91F_NandEraseBlock(const NandGeometry *chip, std::uint32_t address);

// Returns 1 for a good block, 0 for a bad one or one beyond the chip. The last verdict is remembered for the whole run:
// asking again about the same block does not touch the chip.
int CheckBlock(const NandGeometry *chip, std::uint32_t block);

// Bus matrix, static memory controller (16-bit data bus), peripheral clocks and pins.
void nandflash_hw_init(void);

// Switches chip select 3 to an 8-bit data bus.
void nandflash_cfg_8bits_dbw_init(void);

} // extern "C"
