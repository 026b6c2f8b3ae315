// The registers of the AT91SAM9263 that the bootloader and its platform touch, under their datasheet names; others are
// left out. Names, offsets and access rights are those of the AT91SAM9263 datasheet.
//
// A block is a value holding its base address; a register is a member function returning its door:
//   RSTC.MR().write(0xA5000001);
#pragma once

#include <cstdint>
#include <doors.h>

// Parallel I/O controller. Set and clear registers act on the bits written as 1 and ignore the others.
struct Pio {
    std::uint32_t base;
    constexpr WriteOnly PER() const { return {base + 0x00}; }  // the I/O controller drives the pin
    constexpr WriteOnly PDR() const { return {base + 0x04}; }  // the selected peripheral drives the pin
    constexpr WriteOnly OER() const { return {base + 0x10}; }  // output enable
    constexpr WriteOnly ODR() const { return {base + 0x14}; }  // output disable: input
    constexpr WriteOnly IFER() const { return {base + 0x20}; } // input glitch filter
    constexpr WriteOnly IFDR() const { return {base + 0x24}; }
    constexpr WriteOnly SODR() const { return {base + 0x30}; } // drive high
    constexpr WriteOnly CODR() const { return {base + 0x34}; } // drive low
    constexpr ReadOnly PDSR() const { return {base + 0x3C}; }  // pin level
    constexpr WriteOnly IDR() const { return {base + 0x44}; }  // no pin-change interrupt
    constexpr WriteOnly MDER() const { return {base + 0x50}; } // multi-drive: open drain
    constexpr WriteOnly MDDR() const { return {base + 0x54}; }
    constexpr WriteOnly PUDR() const { return {base + 0x60}; } // pull-up disable
    constexpr WriteOnly PUER() const { return {base + 0x64}; } // pull-up enable
    constexpr WriteOnly ASR() const { return {base + 0x70}; }  // peripheral A select
    constexpr WriteOnly BSR() const { return {base + 0x74}; }  // peripheral B select
};
inline constexpr Pio PIOA{0xFFFFF200};
inline constexpr Pio PIOB{0xFFFFF400};
inline constexpr Pio PIOC{0xFFFFF600};
inline constexpr Pio PIOD{0xFFFFF800};

// Power management controller.
struct Pmc {
    std::uint32_t base;
    constexpr WriteOnly PCER() const { return {base + 0x10}; } // peripheral clocks on, bit = peripheral identifier
    constexpr ReadOnly MCFR() const { return {base + 0x24}; }  // main frequency: cycles in 16 slow periods
    constexpr ReadWrite PLLAR() const { return {base + 0x28}; }
    constexpr ReadWrite PLLBR() const { return {base + 0x2C}; }
    constexpr ReadWrite MCKR() const { return {base + 0x30}; }
};
inline constexpr Pmc PMC{0xFFFFFC00};

// Reset controller. Writes need the key 0xA5 in bits 31 to 24.
struct Rstc {
    std::uint32_t base;
    constexpr WriteOnly CR() const { return {base + 0x00}; }
    constexpr ReadOnly SR() const { return {base + 0x04}; }
    constexpr ReadWrite MR() const { return {base + 0x08}; }
};
inline constexpr Rstc RSTC{0xFFFFFD00};

// Watchdog timer. CR needs the key 0xA5 in bits 31 to 24.
struct Wdt {
    std::uint32_t base;
    constexpr WriteOnly CR() const { return {base + 0x00}; }
};
inline constexpr Wdt WDT{0xFFFFFD40};

// Periodic interval timer: counts master clock / 16.
struct Pit {
    std::uint32_t base;
    constexpr ReadWrite MR() const { return {base + 0x00}; }
    constexpr ReadOnly PIIR() const { return {base + 0x0C}; } // reading changes nothing
};
inline constexpr Pit PIT{0xFFFFFD30};

// Serial peripheral interface.
struct Spi {
    std::uint32_t base;
    constexpr WriteOnly CR() const { return {base + 0x00}; }
    constexpr ReadWrite MR() const { return {base + 0x04}; }
    constexpr ReadOnly RDR() const { return {base + 0x08}; }
    constexpr WriteOnly TDR() const { return {base + 0x0C}; }
    constexpr ReadOnly SR() const { return {base + 0x10}; }
    constexpr ReadWrite CSR(std::uint32_t select) const { return {base + 0x30 + 4 * (select & 3u)}; }
};
inline constexpr Spi SPI0{0xFFFA4000};
inline constexpr Spi SPI1{0xFFFA8000};

// Static memory controller, four registers a chip select.
struct Smc {
    std::uint32_t base;
    constexpr ReadWrite SETUP(std::uint32_t select) const { return {base + 0x10 * select + 0x0}; }
    constexpr ReadWrite PULSE(std::uint32_t select) const { return {base + 0x10 * select + 0x4}; }
    constexpr ReadWrite CYCLE(std::uint32_t select) const { return {base + 0x10 * select + 0x8}; }
    constexpr ReadWrite MODE(std::uint32_t select) const { return {base + 0x10 * select + 0xC}; }
};
inline constexpr Smc SMC0{0xFFFFE400};

// Bus matrix.
struct Matrix {
    std::uint32_t base;
    constexpr ReadWrite EBI0_CSA() const { return {base + 0x120}; } // external bus 0: what each chip select carries
};
inline constexpr Matrix MATRIX{0xFFFFEC00};

// Debug unit: the serial console.
struct Dbgu {
    std::uint32_t base;
    constexpr WriteOnly CR() const { return {base + 0x00}; }
    constexpr ReadWrite MR() const { return {base + 0x04}; }
    constexpr WriteOnly IDR() const { return {base + 0x0C}; }
    constexpr ReadOnly SR() const { return {base + 0x14}; }
    constexpr WriteOnly THR() const { return {base + 0x1C}; }
    constexpr ReadWrite BRGR() const { return {base + 0x20}; }
};
inline constexpr Dbgu DBGU{0xFFFFEE00};

// LCD controller.
struct Lcdc {
    std::uint32_t base;
    constexpr ReadWrite DMABADDR1() const { return {base + 0x000}; }
    constexpr ReadWrite DMAFRMCFG() const { return {base + 0x018}; }
    constexpr ReadWrite DMACON() const { return {base + 0x01C}; }
    constexpr ReadWrite LCDCON1() const { return {base + 0x800}; }
    constexpr ReadWrite LCDCON2() const { return {base + 0x804}; }
    constexpr ReadWrite LCDTIM1() const { return {base + 0x808}; }
    constexpr ReadWrite LCDTIM2() const { return {base + 0x80C}; }
    constexpr ReadWrite LCDFRMCFG() const { return {base + 0x810}; }
    constexpr ReadWrite LCDFIFO() const { return {base + 0x814}; }
    constexpr ReadWrite LCDMVAL() const { return {base + 0x818}; }
    constexpr ReadWrite PWRCON() const { return {base + 0x83C}; }
    constexpr ReadWrite CONTRAST_CTR() const { return {base + 0x840}; }
    constexpr ReadWrite CONTRAST_VAL() const { return {base + 0x844}; }
};
inline constexpr Lcdc LCDC{0x00700000};

// The NAND latches on chip select 3: address line A21 is the address latch, A22 the command latch.
struct NandBus {
    std::uint32_t base;
    constexpr DataDoor DATA() const { return {base}; }
    constexpr LatchDoor ADDRESS() const { return {base + 0x00200000}; }
    constexpr LatchDoor COMMAND() const { return {base + 0x00400000}; }
};
inline constexpr NandBus NAND{0x40000000};

// Peripheral identifiers: bit numbers in the power manager's clock registers.
enum PeripheralId : std::uint32_t {
    ID_PIOA = 2,
    ID_PIOB = 3,
    ID_PIOCDE = 4,
    ID_SPI0 = 14,
    ID_LCDC = 26,
};

static_assert(PIOB.PDSR().address == 0xFFFFF43C);
static_assert(PIOD.BSR().address == 0xFFFFF874);
static_assert(SPI0.CSR(3).address == 0xFFFA403C);
static_assert(SMC0.MODE(3).address == 0xFFFFE43C);
static_assert(MATRIX.EBI0_CSA().address == 0xFFFFED20);
static_assert(DBGU.BRGR().address == 0xFFFFEE20);
static_assert(LCDC.CONTRAST_VAL().address == 0x00700844);
static_assert(NAND.COMMAND().address == 0x40400000);
