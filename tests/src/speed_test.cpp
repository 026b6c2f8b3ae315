// How near the drivers come to what the bus and the chips dictate. `make bench` prints the figures.
#include "harness/speed.h"

#include <gtest/gtest.h>

namespace fixture {

namespace {

void ExpectNear(const SpeedRows &rows, double write, double read) {
    for (const SpeedRow &row : rows) {
        EXPECT_GE(row.ratio(), 1.0) << row.what << ": faster than the wire";
        EXPECT_LE(row.ratio(), row.what.ends_with("write") ? write : read) << row.what;
    }
}

TEST(Speed, ComesNearTheWire) {
    ExpectNear(NandSpeed(), 1.11, 1.25);
    ExpectNear(DataflashSpeed(), 1.1, 1.1);
}

} // namespace

} // namespace fixture
