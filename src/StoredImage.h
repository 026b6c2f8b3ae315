// The format of every image kept in raw flash. Medium.h says where those images lie.
//
// Stored image, little-endian: the 32-byte header below, then the body. Files in a bank that go to raw flash carry the
// same header. The running sums cover the body only: for each byte, sum1 += byte, then sum2 += sum1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_map.h>

struct StoredImageHeader {
    char maker[20];     // OLramWrapper_StringToken with its terminator
    std::uint32_t size; // of the whole image, header included
    std::uint32_t sum1;
    std::uint32_t sum2;
};
inline constexpr std::uint32_t kHeaderSize = 32;
static_assert(sizeof(StoredImageHeader) == kHeaderSize && offsetof(StoredImageHeader, size) == 20);

// A whole-image check reads this many bytes more than the image.
inline constexpr std::uint32_t kCheckOverrun = 32;

struct RunningSums {
    std::uint32_t sum1 = 0x01234567;
    std::uint32_t sum2 = 0x89ABCDEF;
    constexpr void add(std::uint8_t byte) {
        sum1 += byte;
        sum2 += sum1;
    }
    constexpr bool operator==(const RunningSums &) const = default;
};

// The plain loop: the meaning of the sums, and good for constants. Sums.h is the fast way.
constexpr RunningSums SumBody(const std::uint8_t *body, std::uint32_t length) {
    RunningSums sums;
    for (; length > 0; --length) sums.add(*body++);
    return sums;
}

extern "C" {

// The maker text every stored image begins with.
extern const char OLramWrapper_StringToken[20];

// Two complete images to try the checks on.
extern const std::uint8_t TestApplicationData[48];
extern const std::uint8_t TestBootData[41];

} // extern "C"
