#include "nandbus.h"

#include <at91sam9263.h>
#include <bit>
#include <cstring>
#include <memory>
#include <utility>

namespace {

// Memory is moved by words or half-words where both ends allow it, and always in unrolled turns; the chip always sees
// single accesses of its bus width. Words hold the chip's first byte lowest.

static_assert(std::endian::native == std::endian::little);
constexpr std::uint32_t kTurn = 32; // bytes

template <std::uint32_t Width> bool IsAligned(const void *address) {
    return reinterpret_cast<std::uintptr_t>(address) % Width == 0;
}

template <typename Word> Word Load(const std::uint8_t *from) {
    Word word;
    std::memcpy(&word, std::assume_aligned<sizeof word>(from), sizeof word);
    return word;
}

void StoreWord(std::uint8_t *to, std::uint32_t word) { std::memcpy(std::assume_aligned<4>(to), &word, sizeof word); }

std::uint32_t TakeWord8() {
    const std::uint32_t byte0 = NAND.DATA().read8();
    const std::uint32_t byte1 = NAND.DATA().read8();
    const std::uint32_t byte2 = NAND.DATA().read8();
    const std::uint32_t byte3 = NAND.DATA().read8();
    return ((byte3 << 8 | byte2) << 8 | byte1) << 8 | byte0;
}

std::uint32_t TakeWord16() {
    const std::uint32_t low = NAND.DATA().read16();
    return low | std::uint32_t{NAND.DATA().read16()} << 16;
}

template <std::uint32_t Width, typename Step, std::uint32_t... Index>
void Unroll(Step step, std::integer_sequence<std::uint32_t, Index...>) {
    (step(Width * Index), ...);
}

// Calls `step` with 0, Width, 2 x Width and so on, up to the end of a turn.
template <std::uint32_t Width, typename Step> void ForTurn(Step step) {
    Unroll<Width>(step, std::make_integer_sequence<std::uint32_t, kTurn / Width>{});
}

template <std::uint32_t (*TakeWord)()> std::uint8_t *TakeTurn(std::uint8_t *to) {
    ForTurn<4>([to](std::uint32_t i) { StoreWord(to + i, TakeWord()); });
    return to + kTurn;
}

} // namespace

void NandBus_Take8(std::uint8_t *to, std::uint32_t count) {
    if (IsAligned<4>(to))
        for (; count >= kTurn; count -= kTurn) to = TakeTurn<TakeWord8>(to);
    for (; count > 0; --count) *to++ = NAND.DATA().read8();
}

void NandBus_Take16(std::uint8_t *to, std::uint32_t count) {
    if (IsAligned<4>(to))
        for (; count >= kTurn; count -= kTurn) to = TakeTurn<TakeWord16>(to);
    for (; count > 1; count -= 2) {
        const std::uint16_t pair = NAND.DATA().read16();
        *to++ = static_cast<std::uint8_t>(pair);
        *to++ = static_cast<std::uint8_t>(pair >> 8);
    }
}

void NandBus_Give8(const std::uint8_t *from, std::uint32_t count) {
    for (; count >= kTurn; count -= kTurn, from += kTurn)
        ForTurn<1>([from](std::uint32_t i) { NAND.DATA().write8(from[i]); });
    for (; count > 0; --count) NAND.DATA().write8(*from++);
}

void NandBus_Give16(const std::uint8_t *from, std::uint32_t count) {
    if (IsAligned<2>(from))
        for (; count >= kTurn; count -= kTurn, from += kTurn)
            ForTurn<2>([from](std::uint32_t i) { NAND.DATA().write16(Load<std::uint16_t>(from + i)); });
    for (; count > 1; count -= 2, from += 2) NAND.DATA().write16(static_cast<std::uint16_t>(from[0] | from[1] << 8));
}

int NandBus_Same(const std::uint8_t *one, const std::uint8_t *other, std::uint32_t count) {
    if (IsAligned<4>(one) && IsAligned<4>(other))
        for (; count >= kTurn; count -= kTurn, one += kTurn, other += kTurn) {
            std::uint32_t differences = 0;
            ForTurn<4>(
                [&](std::uint32_t i) { differences |= Load<std::uint32_t>(one + i) ^ Load<std::uint32_t>(other + i); });
            if (differences != 0) return 0;
        }
    return std::memcmp(one, other, count) == 0 ? 1 : 0;
}

void NandBus_Copy(std::uint8_t *to, const std::uint8_t *from, std::uint32_t count) {
    if (IsAligned<4>(to) && IsAligned<4>(from))
        for (; count >= 2 * kTurn;
             count -= 2 * kTurn, to += 2 * kTurn, from += 2 * kTurn) // loads and stores of many words
            std::memcpy(std::assume_aligned<4>(to), std::assume_aligned<4>(from), 2 * kTurn);
    std::memcpy(to, from, count);
}
