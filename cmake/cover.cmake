# One program for both measures of coverage: the tests of src/ as they run natively, and the fuzz targets on corpora.
# `make mcdc` and `make fuzz-coverage` say what is made of it.
#
# Lines are counted everywhere. Conditions are counted in the modules alone: elsewhere a decision may have more of them
# than the compiler follows, and nothing asks for them.
find_package(GTest REQUIRED)

foreach(modules native-common native-modules-fixed-own)
    target_compile_options(${modules} PRIVATE -fcoverage-mcdc)
endforeach()

file(GLOB COVER_SOURCES CONFIGURE_DEPENDS tests/src/*.cpp tests/fuzz/*.cpp fuzz/*.cpp)
list(FILTER COVER_SOURCES EXCLUDE REGEX "/fuzz/main\\.cpp$")
add_executable(fixture-cover EXCLUDE_FROM_ALL ${COVER_SOURCES})
target_compile_options(fixture-cover PRIVATE -O0)
target_precompile_headers(fixture-cover PRIVATE <fmt/format.h> <gmock/gmock.h> <gtest/gtest.h> <nlohmann/json.hpp>)
target_include_directories(fixture-cover BEFORE PRIVATE platform/host/include)
target_include_directories(fixture-cover PRIVATE ${MODULE_INCLUDES})
target_link_libraries(fixture-cover PRIVATE native-modules-fixed harness GTest::gtest GTest::gmock GTest::gtest_main
                      ${NATIVE_LINK})
