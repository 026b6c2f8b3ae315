// Tests that run on both processors.
#pragma once

#include "harness/started_board.h"

#include <gtest/gtest.h>

namespace fixture {

inline std::string ProcessorName(const testing::TestParamInfo<Processor> &info) {
    return info.param == Processor::arm ? "arm" : "host";
}
#define BOTH_PROCESSORS(suite)                                                                                         \
    INSTANTIATE_TEST_SUITE_P(BothProcessors, suite, testing::Values(Processor::arm, Processor::host), ProcessorName)

} // namespace fixture
