#include "Sums.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>

// Words instead of bytes
//
// A word holds bytes 0 to 3, the lowest first. Its odd bytes (1 and 3) are masked into two lanes of 16 bits and added
// up as one number. The even bytes need no mask of their own: the sum of the words is the sum of the even lanes plus
// 256 times that of the odd ones, all modulo 2^32, so they come from one subtraction at the end. That is exact as long
// as no lane has grown beyond 16 bits, which bounds how many words go into a round.

namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::uint32_t kOddLanes = 0x00FF00FF;
constexpr std::uint32_t kTurnWords = 16;
constexpr std::uint32_t kTurnBytes = 4 * kTurnWords;

std::uint32_t Load(const std::uint8_t *from) {
    std::uint32_t word;
    std::memcpy(&word, std::assume_aligned<sizeof word>(from), sizeof word);
    return word;
}

bool IsAligned(const std::uint8_t *bytes) { return reinterpret_cast<std::uintptr_t>(bytes) % 4 == 0; }

std::uint32_t Low(std::uint32_t lanes) { return lanes & 0xFFFF; }
std::uint32_t High(std::uint32_t lanes) { return lanes >> 16; }
// The lanes' sum where it fits in one lane: one addition less.
std::uint32_t ShortSum(std::uint32_t lanes) { return (lanes + (lanes << 16)) >> 16; }

struct Lanes {
    std::uint32_t words;
    std::uint32_t odd;
    std::uint32_t even() const { return words - (odd << 8); }
};

// A lane holds 257 bytes at most.
constexpr std::uint32_t kRoundBytes = 1024;
static_assert(kRoundBytes / 4 * 255 <= 0xFFFF && kRoundBytes % kTurnBytes == 0);

// Adds up a whole number of turns, of one round at most.
std::uint32_t SumRound(const std::uint8_t *bytes, const std::uint8_t *end) {
    Lanes sum = {0, 0};
    for (; bytes != end; bytes += kTurnBytes)
#pragma GCC unroll 16
        for (std::uint32_t i = 0; i < kTurnWords; ++i) {
            const std::uint32_t word = Load(bytes + 4 * i);
            sum.words += word;
            sum.odd += (word >> 8) & kOddLanes;
        }
    return Low(sum.even()) + High(sum.even()) + Low(sum.odd) + High(sum.odd);
}

// One turn of the running sums. `weighted` takes the sum so far after every word, so that a word counts once for itself
// and once for each word after it; sum2 wants four times that, less what the bytes of a word come late: one byte for
// byte 1, two for byte 2, three for byte 3.
void AddTurn(RunningSums &sums, const std::uint8_t *bytes) {
    Lanes sum = {0, 0};
    Lanes weighted = {0, 0};
#pragma GCC unroll 16
    for (std::uint32_t i = 0; i < kTurnWords; ++i) {
        const std::uint32_t word = Load(bytes + 4 * i);
        sum.words += word;
        sum.odd += (word >> 8) & kOddLanes;
        weighted.words += sum.words;
        weighted.odd += sum.odd;
    }
    const std::uint32_t even = weighted.even();
    const std::uint32_t pairs = sum.even() + sum.odd; // bytes 0 and 1, bytes 2 and 3
    const std::uint32_t whole = High(even) + High(weighted.odd) + Low(even) + Low(weighted.odd);
    sums.sum2 += kTurnBytes * sums.sum1 + 4 * whole - (ShortSum(sum.odd) + 2 * High(pairs));
    sums.sum1 += ShortSum(pairs);
}
static_assert(kTurnWords * (kTurnWords + 1) / 2 * 255 <= 0xFFFF, "no lane overflows");
static_assert(2 * kTurnBytes * 255 <= 0xFFFF, "nor does the sum of two lanes");

} // namespace

std::uint32_t Sums_Bytes(const std::uint8_t *bytes, std::uint32_t length) {
    std::uint32_t sum = 0;
    const std::uint8_t *const end = bytes + length;
    if (IsAligned(bytes))
        while (end - bytes >= static_cast<std::ptrdiff_t>(kTurnBytes)) {
            const auto left = static_cast<std::uint32_t>(end - bytes);
            const std::uint8_t *const round = bytes + std::min(left - left % kTurnBytes, kRoundBytes);
            sum += SumRound(bytes, round);
            bytes = round;
        }
    while (bytes != end) sum += *bytes++;
    return sum;
}

void Sums_Running(RunningSums *sums, const std::uint8_t *bytes, std::uint32_t length) {
    RunningSums moved = *sums;
    const std::uint8_t *const end = bytes + length;
    if (IsAligned(bytes))
        for (; end - bytes >= static_cast<std::ptrdiff_t>(kTurnBytes); bytes += kTurnBytes) AddTurn(moved, bytes);
    while (bytes != end) moved.add(*bytes++);
    *sums = moved;
}
