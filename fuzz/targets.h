// The fuzz targets: routines that take any bytes at all. main.cpp hands them to the fuzzer, tests/fuzz/corpus_test.cpp
// runs them on the committed corpora.
#pragma once

#include "harness/fuzz_input.h"

namespace fixture {

struct FuzzTarget {
    const char *name; // of its corpus, too
    void (*run)(std::span<const std::uint8_t> input);
};
std::span<const FuzzTarget> FuzzTargets();

using FuzzRoutine = void(std::span<const std::uint8_t> input);
FuzzRoutine FuzzDescriptor, FuzzManifest, FuzzImage, FuzzSlot, FuzzParameters, FuzzPicture, FuzzChipFiles, FuzzElf,
    FuzzPng, FuzzTexts, FuzzGdb, FuzzUpdate, FuzzReplies, FuzzRequests, FuzzSemihosting, FuzzWriters, FuzzDoctor;

} // namespace fixture
