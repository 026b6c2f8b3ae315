// The sums that take four bytes at a time, against plain loops over the bytes: whatever the address, the length and the
// bytes, all of them 0xFF included, which fill the lanes as far as they can be filled.
#include "tests/processors.h"

#include <cstring>

namespace fixture {

namespace {

struct RunningSums {
    std::uint32_t sum1, sum2;
    bool operator==(const RunningSums &) const = default;
};

class Sums : public testing::TestWithParam<Processor> {
protected:
    StartedBoard started_{GetParam()};
    const std::uint32_t place_ = started_.scratch(8192);
    const std::uint32_t sums_ = started_.scratch(sizeof(RunningSums));

    void expect_right(std::uint32_t address, std::uint32_t length) {
        const std::uint8_t *const bytes = started_.at(address);
        RunningSums plain{0x01234567, 0x89ABCDEF};
        std::memcpy(started_.at(sums_), &plain, sizeof plain);
        std::uint32_t total = 0;
        for (std::uint32_t i = 0; i < length; ++i) {
            total += bytes[i];
            plain.sum1 += bytes[i];
            plain.sum2 += plain.sum1;
        }
        EXPECT_EQ(started_.call("Sums_Bytes", address, length), total) << length << " bytes at " << address % 4;
        started_.call("Sums_Running", sums_, address, length);
        RunningSums found{};
        std::memcpy(&found, started_.at(sums_), sizeof found);
        EXPECT_EQ(found, plain) << length << " bytes at " << address % 4;
    }
};
BOTH_PROCESSORS(Sums);

TEST_P(Sums, AreThoseOfThePlainLoop) {
    const auto noise = [](std::uint32_t i) { return static_cast<std::uint8_t>(i * 2654435761u >> 24); };
    const auto full = [](std::uint32_t) { return std::uint8_t{0xFF}; };
    const auto odd = [](std::uint32_t i) { return static_cast<std::uint8_t>(i % 2 ? 0xFF : 0); };
    for (std::uint8_t (*const pattern)(std::uint32_t) : {+noise, +full, +odd}) {
        for (std::uint32_t i = 0; i < 8192; ++i) started_.at(place_)[i] = pattern(i);
        for (const std::uint32_t offset : {0u, 1u, 2u, 3u})
            for (const std::uint32_t length :
                 {0u, 1u, 3u, 4u, 63u, 64u, 65u, 127u, 128u, 1023u, 1024u, 1025u, 1088u, 8188u})
                expect_right(place_ + offset, length);
    }
}

} // namespace

} // namespace fixture
