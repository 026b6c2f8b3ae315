// The NAND chip's model at its pins, and on the bus that it hangs on.
//
//   NandContents contents;
//   NandPins pins(contents);
//   pins.talk("c90 a00 rEC");       gives "c90 a00 rEC" back: the identifier's first byte is as expected
#pragma once

#include "fixture/chip/nand_latches.h"
#include "fixture/core/bus.h"
#include "fixture/parts/nand.h"

#include <string>

namespace fixture {

// A conversation is a text of steps:
//   cXX command, aXX address cycle, wXX data in (words as wXXXX), rXX data out with what is expected, sXX the bits
//   of the status that every part defines, l and h the level of chip enable, "." waits until the chip is ready, ? gives
//   the ready/busy level as ?0 or ?1
struct NandPins {
    explicit NandPins(NandContents &on, std::uint64_t seed = 1);

    // Holds a conversation; gives it back with what the chip said in place of what was expected.
    std::string talk(const std::string &script);
    // What the model recorded since the last call, each followed by a semicolon.
    std::string violations();

    Clock clock;
    Journal journal{clock};
    PowerSupply supply;
    Net enable_net{"PD15", journal}, ready_net{"PA22", journal};
    Net::Driver &enable = enable_net.attach("driver");
    NandContents &contents;
    Nand chip;

private:
    std::string take(const std::string &step);
};

// A write cycle takes 7 master clock cycles, a read cycle 5.
struct NandOnBus : NandPins {
    NandOnBus(NandContents &on, std::uint32_t mode_register, std::uint32_t selects)
        : NandPins(on), mode(mode_register), chip_selects(selects) {
        bus.map(0x40000000, NandLatches::kSize, latches, "NAND");
    }
    std::uint32_t pulse = 0x03030303, cycle = 0x00050007;
    const std::uint32_t mode, chip_selects;
    Bus bus{clock};
    NandLatches latches{clock, journal, bus, chip, {pulse, cycle, mode, chip_selects}};
};

} // namespace fixture
