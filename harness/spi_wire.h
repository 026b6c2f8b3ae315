// The SPI controller's model with one device on its first select line.
#pragma once

#include "fixture/chip/spi_controller.h"

#include <cstdint>
#include <string>

namespace fixture {

namespace spi_registers {

enum Register : std::uint32_t { CR = 0x00, MR = 0x04, RDR = 0x08, TDR = 0x0C, SR = 0x10, CSR0 = 0x30 };
inline constexpr std::uint32_t kMaster0 = 0x000E0011; // master, no mode fault, line 0
inline constexpr std::uint32_t kMode0 = 0x00000302;   // divider 3, 8 bits, captured on the leading edge
inline constexpr std::uint32_t kStay = 1u << 3;

} // namespace spi_registers

// Answers every byte with its complement and writes down what it sees: '(' selected, ')' released, '.' a byte.
struct ListeningDevice : SpiDevice {
    void select() override { log += '('; }
    void deselect() override { log += ')'; }
    std::uint8_t exchange(std::uint8_t sent) override {
        log += '.';
        return static_cast<std::uint8_t>(~sent);
    }
    std::string log;
};

struct SpiWire {
    SpiWire() {
        bus.map(0, 0x4000, spi, "SPI0");
        spi.attach(0, device);
    }
    void enable(std::uint32_t settings, std::uint32_t mode = spi_registers::kMaster0) {
        bus.write(spi_registers::MR, 4, mode);
        bus.write(spi_registers::CSR0, 4, settings);
        bus.write(spi_registers::CR, 4, 1);
    }
    Picoseconds wait(std::uint32_t bit) {
        while (!(bus.read(spi_registers::SR, 4) & bit)) continue;
        return clock.now();
    }
    std::uint32_t send(std::uint32_t byte) {
        bus.write(spi_registers::TDR, 4, byte);
        wait(1);
        return bus.read(spi_registers::RDR, 4);
    }

    Clock clock;
    Journal journal{clock};
    Bus bus{clock};
    Net select{"PA5", journal}, spck{"PA2", journal}, mosi{"PA1", journal}, miso{"PA0", journal};
    bool pins = true, clocked = true;
    ListeningDevice device;
    SpiController spi{
        clock, journal, bus, {[this] { return pins; }, [this] { return clocked; }, &select, &spck, &mosi, &miso}};
};

} // namespace fixture
