// The sums that take four bytes at a time, against plain loops over the bytes: whatever the address, the length and the
// bytes, all of them 0xFF included, which fill the lanes as far as they can be filled.
#include "tests/processors.h"

namespace fixture {

namespace {

using RunningSums = std::array<std::uint32_t, 2>;

class Sums : public OnBoard {
protected:
    void expect_right(std::uint32_t address, std::uint32_t length) {
        const std::uint8_t *const bytes = started.at(address);
        RunningSums plain{0x01234567, 0x89ABCDEF};
        store(sums_, plain);
        std::uint32_t total = 0;
        for (std::uint32_t i = 0; i < length; ++i) {
            total += bytes[i];
            plain[0] += bytes[i];
            plain[1] += plain[0];
        }
        EXPECT_EQ(started.call("Sums_Bytes", address, length), total) << length << " bytes at " << address % 4;
        started.call("Sums_Running", sums_, address, length);
        EXPECT_EQ(stored<RunningSums>(started.at(sums_)), plain) << length << " bytes at " << address % 4;
    }

    const std::uint32_t place_ = started.scratch(8192);
    const std::uint32_t sums_ = started.scratch(sizeof(RunningSums));
};
BOTH_PROCESSORS(Sums);

TEST_P(Sums, AreThoseOfThePlainLoop) {
    const auto noise = [](std::uint32_t i) { return static_cast<std::uint8_t>(i * 2654435761u >> 24); };
    const auto full = [](std::uint32_t) { return std::uint8_t{0xFF}; };
    const auto odd = [](std::uint32_t i) { return static_cast<std::uint8_t>(i % 2 ? 0xFF : 0); };
    for (std::uint8_t (*const pattern)(std::uint32_t) : {+noise, +full, +odd}) {
        for (std::uint32_t i = 0; i < 8192; ++i) started.at(place_)[i] = pattern(i);
        for (const std::uint32_t offset : {0, 1, 2, 3})
            for (const std::uint32_t length : {0, 1, 3, 4, 63, 64, 65, 127, 128, 1023, 1024, 1025, 1088, 8188})
                expect_right(place_ + offset, length);
    }
}

} // namespace

} // namespace fixture
