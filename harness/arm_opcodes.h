// A32 instructions by their names, for small programs that tests lay out by hand. Names read as the assembler's source:
// STR_R2_R0 is `str r2, [r0]`, STRB, STRH and LDR likewise, _1 an offset of 1.
#pragma once

#include <cstdint>
#include <vector>

namespace fixture::a32 {

enum : std::uint32_t {
    NOP = 0xE1A00000,
    B_HERE = 0xEAFFFFFE,
    B_BACK_2 = 0xEAFFFFFC,    // to two instructions before this one
    B_OVER_NEXT = 0xEA000000, // past one word
    BX_LR = 0xE12FFF1E,
    BX_R0 = 0xE12FFF10,
    SVC_SEMIHOSTING = 0xEF123456,
    SVC_7 = 0xEF000007,
    BKPT = 0xE1200070,
    UNDEFINED = 0xE7F000F0,
    SUBS_R0_R0_1 = 0xE2500001,
    BNE_BACK_1 = 0x1AFFFFFD, // to the instruction before this one
    ADD_R0_R0_R1 = 0xE0800001,
    ADD_R0_R0_R2 = 0xE0800002,
    ORR_R3_R3_2 = 0xE3833002,

    STR_R2_R0 = 0xE5802000,
    STR_R2_R1 = 0xE5812000,
    STR_R2_R1_4 = 0xE5812004,
    STR_R0_R3 = 0xE5830000,
    STRB_R2_R0 = 0xE5C02000,
    STRH_R2_R0 = 0xE1C020B0,
    STRH_R2_R1_8 = 0xE1C120B8,
    STM_R1_R4_R5_R6 = 0xE8810070,
    STMDB_R0_R1_R2_R3 = 0xE920000E, // with write-back
    STR_R3_R0_AFTER_8 = 0xE4803008, // post-indexed
    LDR_R3_R0 = 0xE5903000,
    LDR_R3_R0_1 = 0xE5903001,
    LDR_R3_R0_4 = 0xE5903004,
    LDR_R1_R0 = 0xE5901000,
    LDR_R1_SP = 0xE59D1000,
    LDR_R2_SP_4 = 0xE59D2004,
    LDRH_R3_R0_R4 = 0xE19030B4,
    LDRD_R2_R0 = 0xE1C020D0,
    LDR_R3_R0_MINUS_R4_LSL_2 = 0xE7103104,
    SWP_R3_R4_R0 = 0xE1003094,

    READ_CONTROL_R3 = 0xEE113F10, // mrc p15, 0, r3, c1, c0, 0
    WRITE_CONTROL_R3 = 0xEE013F10,
    CLEAN_AND_INVALIDATE_LINE_R0 = 0xEE070F3E,
    CLEAN_LINE_R0 = 0xEE070F3A,
    INVALIDATE_LINE_R0 = 0xEE070F36,
    TEST_CLEAN_AND_INVALIDATE_ALL = 0xEE17FF7A,
};

using Words = std::vector<std::uint32_t>;

// Puts a value into a register: ldr rN, [pc]; b past the value; the value.
inline Words Load(std::uint32_t number, std::uint32_t value) { return {0xE59F0000 | number << 12, B_OVER_NEXT, value}; }

inline Words operator+(Words a, const Words &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace fixture::a32

// The same for the 16-bit set.
namespace fixture::t16 {

enum : std::uint16_t {
    NOP = 0x46C0,
    B_HERE = 0xE7FE,
    MOV_SP_R0 = 0x4685,
    SVC_7 = 0xDF07,
    BKPT = 0xBE00,
    UNDEFINED = 0xDE00,
    BL_NEXT_HIGH = 0xF000, // both halves: to the instruction after them
    BL_NEXT_LOW = 0xF800,

    STR_R1_R0 = 0x6001,
    LDR_R3_R0_4 = 0x6843,
    STRB_R3_R0_1 = 0x7043,
    STRH_R3_R0_2 = 0x8043,
    LDRSH_R3_R0_R4 = 0x5F03,
    STR_R3_R0_R4 = 0x5103,
    STR_R3_SP_8 = 0x9302,
    PUSH_R1_LR = 0xB502,
    POP_R1 = 0xBC02,
    STM_R0_R1_R2_R3 = 0xC00E,
};

// Goes over to the 16-bit set, with r7, and on through these instructions. The first of them follows these two words.
inline a32::Words Enter(std::vector<std::uint16_t> program) {
    if (program.size() % 2 != 0) program.push_back(NOP);
    a32::Words words{0xE28F7001, 0xE12FFF17}; // add r7, pc, #1; bx r7
    for (std::size_t i = 0; i < program.size(); i += 2)
        words.push_back(program[i] | std::uint32_t{program[i + 1]} << 16);
    return words;
}

} // namespace fixture::t16
