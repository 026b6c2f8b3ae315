# The fuzz targets, with a link to their one program under each target's name: `make fuzz` says how they are run.

# The modules' routines are called by their names, with no regard to how many arguments each has; and what is copied at
# every start need not be counted.
set_source_files_properties(platform/host/native_processor.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON
                            COMPILE_OPTIONS "-fno-sanitize=function,fuzzer-no-link;-O2")

file(GLOB FUZZ_SOURCES CONFIGURE_DEPENDS fuzz/*.cpp)
add_executable(fixture-fuzz ${FUZZ_SOURCES})
target_include_directories(fixture-fuzz BEFORE PRIVATE platform/host/include)
target_include_directories(fixture-fuzz PRIVATE ${MODULE_INCLUDES})
target_link_options(fixture-fuzz PRIVATE -fsanitize=fuzzer)
target_link_libraries(fixture-fuzz PRIVATE native-modules-fixed harness ${NATIVE_LINK})

file(GLOB FUZZ_CORPORA RELATIVE ${CMAKE_SOURCE_DIR}/fuzz/corpus CONFIGURE_DEPENDS fuzz/corpus/*)
foreach(target ${FUZZ_CORPORA})
    file(CREATE_LINK fixture-fuzz ${CMAKE_BINARY_DIR}/${target}-fuzz SYMBOLIC)
endforeach()
