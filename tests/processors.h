// Tests that run on both processors.
#pragma once

#include "harness/started_board.h"

#include <cstring>
#include <gtest/gtest.h>

namespace fixture {

inline std::string ProcessorName(const testing::TestParamInfo<Processor> &info) {
    return info.param == Processor::arm ? "arm" : "host";
}
#define BOTH_PROCESSORS(suite)                                                                                         \
    INSTANTIATE_TEST_SUITE_P(BothProcessors, suite, testing::Values(Processor::arm, Processor::host), ProcessorName)

// A board that is started up, with chips and files of its own.
class OnBoard : public testing::TestWithParam<Processor> {
protected:
    template <typename... Arguments> int call(const std::string &routine, Arguments... arguments) {
        return static_cast<int>(started.call(routine.c_str(), arguments...));
    }
    // The same for a routine that takes one text.
    int call_with(const std::string &routine, const std::string &text) {
        return call(routine, started.scratch_text(text));
    }
    // What a routine gave the address of, on this board or on another one.
    const char *given(std::uint32_t address, StartedBoard *on = nullptr) {
        const void *const place = GetParam() == Processor::arm
                                      ? (on ? *on : started).at(address)
                                      : reinterpret_cast<const void *>(std::uintptr_t{address});
        return static_cast<const char *>(place);
    }
    template <typename Value> void store(std::uint32_t address, const Value &value) {
        std::memcpy(started.at(address), &value, sizeof value);
    }
    template <typename Value> Value stored(const void *at) {
        Value value;
        std::memcpy(&value, at, sizeof value);
        return value;
    }

    TemporaryDirectory volume;
    Chips chips;
    StartedBoard started{GetParam(), chips, volume.path()};
};

} // namespace fixture
