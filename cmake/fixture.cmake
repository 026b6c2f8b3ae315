# The fixture for this machine: device models, the modules compiled natively, the `fixture` command, tests.

find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(PNG REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(UNICORN REQUIRED IMPORTED_TARGET unicorn)
pkg_check_modules(ELF REQUIRED IMPORTED_TARGET libelf libdw)
pkg_check_modules(CHAFA REQUIRED IMPORTED_TARGET chafa)

option(SANITIZE "build everything with the address and undefined-behaviour sanitizers" OFF)
option(TESTS "build the tests" ${SANITIZE})
option(UNITY "compile the sources of a library sixteen at a time: half the time for all, more for one" ON)

# Modules and fixture share this process's low addresses with the board's SDRAM and the linker-set video region, so
# nothing here may move. The program lies above the SDRAM's address, and with it the heap, which the system puts at
# random up to 1 GiB above it.
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
add_compile_options(-fno-pie)
add_link_options(-no-pie -Wl,-Ttext-segment=0x30000000)
if(SANITIZE)
    # Less optimised, and with line numbers alone: the sanitizers make -O2 slow to compile and no faster to run.
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -O1 -g1)
    add_link_options(-fsanitize=address,undefined)
endif()

if(COVER)
    add_compile_options(-Wno-error) # a newer compiler than those that the tree is written for
endif()

# One library a folder, each on top of those before it: docs/architecture.md says what belongs where.
function(add_bench_library name folder)
    file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp ${folder}/*/*.cpp)
    list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
    target_link_libraries(${name} PUBLIC ${ARGN})
    # What the sources share is then read and instantiated once for sixteen. A name in an unnamed namespace is one of
    # the whole library; the compiler refuses a second one.
    set_target_properties(${name} PROPERTIES UNITY_BUILD ${UNITY} UNITY_BUILD_BATCH_SIZE 16)
    # It takes a class of a source that is included for one of a header.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endfunction()

add_bench_library(board fixture fmt::fmt PkgConfig::UNICORN)
add_bench_library(formats formats fmt::fmt PNG::PNG PkgConfig::ELF gif)

# The modules, and with them the stand-ins that both platforms share, joined into one object. Its kernel names are
# re-pointed to the host platform; its data lie in sections of their own, so that every start can begin with freshly
# loaded data.
file(GLOB SHARED_PLATFORM_SOURCES CONFIGURE_DEPENDS platform/common/*.cpp)
function(add_native_objects name)
    add_library(${name} OBJECT EXCLUDE_FROM_ALL ${ARGN})
    target_compile_options(${name} PRIVATE -g2)
    target_include_directories(${name} BEFORE PRIVATE ${CMAKE_SOURCE_DIR}/platform/host/include)
    target_include_directories(${name} PRIVATE ${MODULE_INCLUDES})
endfunction()
set(COMMON_SOURCES ${MODULE_SOURCES} ${SHARED_PLATFORM_SOURCES})
list(REMOVE_ITEM COMMON_SOURCES ${RECORD_SOURCES}) # a version is nothing that a native build has of its own
add_native_objects(native-common ${COMMON_SOURCES})
function(add_native_modules name record)
    add_native_objects(${name}-own ${RECORD_SOURCES})
    target_include_directories(${name}-own BEFORE PRIVATE ${record})
    add_dependencies(${name}-own build-record)
    set(objects $<TARGET_OBJECTS:native-common> $<TARGET_OBJECTS:${name}-own>)
    set(joined ${CMAKE_BINARY_DIR}/${name}.o)
    add_custom_command(
        OUTPUT ${joined}
        COMMAND ${CMAKE_LINKER} -r -o ${joined}.tmp ${objects}
        COMMAND ${CMAKE_OBJCOPY} --redefine-syms=${CMAKE_SOURCE_DIR}/platform/host/kernel_names.txt
                --rename-section .data=boot_data --rename-section .bss=boot_bss ${joined}.tmp ${joined}
        DEPENDS ${objects} ${CMAKE_SOURCE_DIR}/platform/host/kernel_names.txt
        COMMAND_EXPAND_LISTS)
    add_custom_target(${name}-joined DEPENDS ${joined})
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${joined})
    add_dependencies(${name} ${name}-joined)
endfunction()
add_native_modules(native-modules ${BUILD_RECORD})
add_native_modules(native-modules-fixed ${FIXED_RECORD})

file(GLOB HOST_PLATFORM_SOURCES CONFIGURE_DEPENDS platform/host/*.cpp)
add_library(host-platform STATIC ${HOST_PLATFORM_SOURCES})
target_include_directories(host-platform BEFORE PRIVATE platform/host/include)
target_include_directories(host-platform PRIVATE ${MODULE_INCLUDES} platform/common)
target_link_libraries(host-platform PUBLIC board)

add_bench_library(machine machine host-platform formats)
# The page that a report fills in is a document of its own.
file(READ machine/report_page.html REPORT_PAGE)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS machine/report_page.html)
configure_file(cmake/report_page.cpp.in ${CMAKE_BINARY_DIR}/made/report_page.cpp @ONLY)
target_sources(machine PRIVATE ${CMAKE_BINARY_DIR}/made/report_page.cpp)
add_bench_library(sweep sweep machine nlohmann_json::nlohmann_json)
add_bench_library(tools tools sweep CLI11::CLI11 nlohmann_json::nlohmann_json)
file(READ docs/report.schema.json REPORT_SCHEMA)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS docs/report.schema.json)
configure_file(cmake/report_schema.cpp.in ${CMAKE_BINARY_DIR}/made/report_schema.cpp @ONLY)
target_sources(tools PRIVATE ${CMAKE_BINARY_DIR}/made/report_schema.cpp)
# The one source that knows its revision.
set_property(SOURCE tools/version.cpp PROPERTY INCLUDE_DIRECTORIES ${BUILD_RECORD})
add_dependencies(tools build-record)

# Where the modules find what a linker script gives them on the board.
set(NATIVE_LINK -rdynamic -Wl,--defsym=image_load_buf=0x23000000
                -Wl,--defsym=__ghsbegin_mr_rwec__videobuffer=0x22F00000)

add_executable(fixture tools/main.cpp)
target_link_libraries(fixture PRIVATE native-modules tools ${NATIVE_LINK})

# A program of its own: its library's licence and the emulator's cannot meet in one (docs/licences.md).
add_executable(fixture-preview tools/preview/main.cpp)
target_link_libraries(fixture-preview PRIVATE PkgConfig::CHAFA)
add_dependencies(fixture fixture-preview)

# What a program is made of.
function(add_bill target)
    set(bill ${CMAKE_BINARY_DIR}/${target}.spdx.json)
    add_custom_command(
        OUTPUT ${bill}
        COMMAND ${CMAKE_SOURCE_DIR}/cmake/bill.py $<TARGET_FILE:${target}> ${bill}
                --record ${BUILD_RECORD}/build_record.h --uses ${ARGN}
        DEPENDS ${target} ${CMAKE_SOURCE_DIR}/cmake/bill.py)
    add_custom_target(${target}-bill ALL DEPENDS ${bill})
endfunction()
if(NOT SANITIZE AND NOT FUZZ AND NOT COVER)
    add_bill(fixture ${CLI11_DIR} ${nlohmann_json_DIR})
    add_bill(fixture-preview)
    include(cmake/install.cmake)
endif()

add_bench_library(harness harness tools)
set_target_properties(harness PROPERTIES EXCLUDE_FROM_ALL ON) # no user of the command needs it
if(SANITIZE)
    set(plain -O0)
else()
    set(plain -O1)
endif()
foreach(library sweep tools harness) # not where the time goes, but long to compile otherwise
    target_compile_options(${library} PRIVATE ${plain})
endforeach()

file(GLOB BENCH_SOURCES CONFIGURE_DEPENDS bench/*.cpp)
add_executable(fixture-bench EXCLUDE_FROM_ALL ${BENCH_SOURCES})
target_include_directories(fixture-bench PRIVATE ${MODULE_INCLUDES})
target_link_libraries(fixture-bench PRIVATE native-modules-fixed harness ${NATIVE_LINK})

if(TESTS)
    find_package(GTest REQUIRED)
    enable_testing()
    include(GoogleTest)
    file(GLOB TEST_SOURCES CONFIGURE_DEPENDS tests/*/*.cpp fuzz/*.cpp)
    list(FILTER TEST_SOURCES EXCLUDE REGEX "/fuzz/main\\.cpp$")
    add_executable(fixture-tests ${TEST_SOURCES})
    target_compile_options(fixture-tests PRIVATE -O0) # what they call is optimised; they would compile twice as long
    add_dependencies(fixture-tests fixture) # a recipe of the documents is run on it
    set_target_properties(fixture-tests PROPERTIES UNITY_BUILD ${UNITY} UNITY_BUILD_BATCH_SIZE 8)
    target_compile_options(fixture-tests PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    target_precompile_headers(fixture-tests PRIVATE <fmt/format.h> <gmock/gmock.h> <gtest/gtest.h> <nlohmann/json.hpp>)
    target_include_directories(fixture-tests BEFORE PRIVATE platform/host/include)
    target_include_directories(fixture-tests PRIVATE ${MODULE_INCLUDES})
    target_link_libraries(fixture-tests PRIVATE native-modules-fixed harness
                          GTest::gtest GTest::gmock GTest::gtest_main ${NATIVE_LINK})
    add_test(NAME Protocol.IsSafeAndComesToItsEnd COMMAND ${CMAKE_SOURCE_DIR}/proof/check.sh ${CMAKE_BINARY_DIR}/proof)
    add_test(NAME Protocol.HasEveryEdgeOfTheProgram
             COMMAND ${CMAKE_SOURCE_DIR}/proof/refine_test.sh $<TARGET_FILE:fixture> ${CMAKE_BINARY_DIR}/proof
                     ${CMAKE_SOURCE_DIR}/build/arm/planted)
    set_tests_properties(Protocol.IsSafeAndComesToItsEnd PROPERTIES TIMEOUT 300 FIXTURES_SETUP edges)
    set_tests_properties(Protocol.HasEveryEdgeOfTheProgram PROPERTIES TIMEOUT 300 FIXTURES_REQUIRED edges)
    add_dependencies(fixture-tests fixture) # some tests run the command as a process of its own
    gtest_discover_tests(fixture-tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300
                         WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_SOURCE_DIR}/tests/costs.cmake)

    # The tool that makes mutants, on a tree of its own.
    add_test(NAME Mutants.AreMadeTriedAndMerged COMMAND ${CMAKE_SOURCE_DIR}/tests/mutants/toy_test.py)

    # Why the fast sums are exact, for a solver.
    file(GLOB LEMMAS CONFIGURE_DEPENDS tests/lemmas/*.smt2)
    foreach(file ${LEMMAS})
        get_filename_component(name ${file} NAME_WE)
        add_test(NAME lemmas.${name} COMMAND ${CMAKE_SOURCE_DIR}/tests/lemmas/check.sh ${file})
    endforeach()

    # The firmware is the same bytes, wherever and whenever it is built.
    add_test(NAME Build.IsReproducible COMMAND ${CMAKE_SOURCE_DIR}/cmake/reproducible.sh)

    # A second platform, built from the archive as the guide says, comes to its launch.
    add_test(NAME Port.LaunchesFromFilesInMemory
             COMMAND ${CMAKE_SOURCE_DIR}/examples/port/build.sh $<TARGET_FILE:fixture> ${CMAKE_BINARY_DIR}/port)

    # Every command that a document shows.
    add_test(NAME Documents.CommandsRun COMMAND ${CMAKE_SOURCE_DIR}/tests/documents/run.py $<TARGET_FILE:fixture>)

    # No line of the image's ledger grows unseen.
    set(image ${CMAKE_SOURCE_DIR}/build/arm/fixed/bootloader)
    add_test(NAME size.ledger COMMAND ${CMAKE_SOURCE_DIR}/cmake/size_ledger.sh arm-none-eabi-nm ${image}.map
                                      ${image}.elf ${CMAKE_SOURCE_DIR}/docs/size.txt)
endif()
