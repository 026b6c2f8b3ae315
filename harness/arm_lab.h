// The emulated processor on a board of its own: small A32 programs at 0x20000000, vectors at 0, one register model.
#pragma once

#include "fixture/processors/arm_processor.h"
#include "harness/arm_opcodes.h"

#include <array>
#include <cstring>
#include <functional>
#include <memory>

namespace fixture {

namespace arm_lab {

using a32::B_HERE;
using a32::SVC_SEMIHOSTING;
using a32::Words;

inline constexpr std::uint32_t kRam = 0x20000000;
inline constexpr std::uint32_t kData = kRam + 0x1000;
inline constexpr std::uint32_t kLog = kRam + 0x2000;
inline constexpr std::uint32_t kRegister = 0xFFFFFD00;
inline constexpr std::uint32_t kNothing = 0x70000000; // no memory, no register
inline constexpr std::uint32_t kGap = 0xFFFFF000;     // among the registers, but no model

// Each vector stores its number, the fault's address and status and the link register at kLog, then ends the run.
inline const Words kVectors = {
    B_HERE,     0xEA000002, 0xEA000003,      0xEA000004, 0xEA000005, //
    0xE3A0A001, 0xEA000004, 0xE3A0A002,      0xEA000002,             // mov r10, number; b log
    0xE3A0A003, 0xEA000000, 0xE3A0A004,
    0xE59F9014, // log: ldr r9, =kLog
    0xEE16BF10, // mrc p15, 0, r11, c6, c0, 0
    0xEE15CF10, // mrc p15, 0, r12, c5, c0, 0
    0xE8895C00, // stm r9, {r10, r11, r12, lr}
    0xE3A00018, 0xE59F1004, SVC_SEMIHOSTING, kLog,       0x00020023,
};

struct RegisterModel : Peripheral {
    std::uint32_t read(std::uint32_t, unsigned) override { return count(); }
    void write(std::uint32_t, unsigned, std::uint32_t) override { count(); }
    bool pollable(std::uint32_t) const override { return false; }
    std::uint32_t count() {
        ++accesses;
        if (on_access) on_access();
        return 0x1234;
    }
    unsigned accesses = 0;
    std::function<void()> on_access;
};

struct Debugger : Semihosting {
    std::uint32_t call(std::uint32_t, std::uint32_t) override { return ++calls; }
    unsigned calls = 0;
};

struct Lines : CacheObserver {
    void clean_line(std::uint32_t address) override { cleaned.push_back(address); }
    void clean_all() override { ++all; }
    void drain() override { ++drains; }
    Words cleaned;
    unsigned all = 0, drains = 0;
};

} // namespace arm_lab

struct ArmLab {
    ArmLab() {
        bus.map(arm_lab::kRegister, 0x10, model, "MODEL");
        put(0, arm_lab::kVectors);
    }
    void put(std::uint32_t address, const a32::Words &words) {
        std::memcpy(memory.at(address, words.size() * 4).data(), words.data(), words.size() * 4);
    }
    std::uint32_t word(std::uint32_t address) const {
        std::uint32_t value;
        std::memcpy(&value, memory.at(address, 4).data(), 4);
        return value;
    }
    StageResult run(const a32::Words &program) {
        put(arm_lab::kRam, program);
        return processor.run(arm_lab::kRam);
    }

    struct alignas(4096) Ram {
        std::array<std::uint8_t, 0x1000> low{};
        std::array<std::uint8_t, 0x4000> main{};
        std::array<std::uint8_t, 0x1000> stack{};
    };
    std::unique_ptr<Ram> ram = std::make_unique<Ram>();
    Clock clock;
    Journal journal{clock};
    Bus bus{clock};
    Memory memory{{{0, ram->low}, {arm_lab::kRam, ram->main}, {0x00300000, ram->stack}}};
    arm_lab::RegisterModel model;
    arm_lab::Debugger debugger;
    arm_lab::Lines lines;
    ArmProcessor processor{{clock, journal, bus, memory, debugger, lines, [] { return Picoseconds{5000}; }}};
};

} // namespace fixture
