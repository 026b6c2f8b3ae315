# The bootloader for the board: bootloader.elf, .bin, .map, libbootloader.a with the list of symbols it needs, a second
# version of it, both again with the fixed build record that tests compare with, and the demo programs.

set(ARM_FLAGS -mcpu=arm926ej-s -marm -ffunction-sections)
set(ARM_CXX_FLAGS -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-use-cxa-atexit)
add_compile_options(${ARM_FLAGS} $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
                    $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics> $<$<COMPILE_LANGUAGE:CXX>:-fno-use-cxa-atexit>)

set(PLATFORM ${CMAKE_SOURCE_DIR}/platform/at91sam9263)
file(GLOB PLATFORM_SOURCES CONFIGURE_DEPENDS ${PLATFORM}/*.cpp ${PLATFORM}/*.S ${CMAKE_SOURCE_DIR}/platform/common/*.cpp)

# Everything is kept, called or not, so that each routine can be reached by its symbol.
function(link_image target map)
    target_link_options(${target} PRIVATE -mcpu=arm926ej-s -marm -nostartfiles -T ${PLATFORM}/linker.ld
                        -Wl,-Map=${map} -Wl,--no-warn-rwx-segments)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PLATFORM}/linker.ld)
endfunction()

add_library(platform STATIC ${PLATFORM_SOURCES})
target_include_directories(platform PRIVATE ${MODULE_INCLUDES})

# One image: the modules with a version and a build record of their own, on the reference platform.
function(add_image name directory record version)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/${directory})
    set(settings ${CMAKE_BINARY_DIR}/settings/${version})
    string(REGEX MATCH "^([0-9]+)\\.([0-9]+)\\.(.+)$" _ ${version})
    file(CONFIGURE OUTPUT ${settings}/boot_version.h @ONLY CONTENT "// Made by the build.
#pragma once

inline constexpr int kBootVersionMajor = ${CMAKE_MATCH_1};
inline constexpr int kBootVersionMinor = ${CMAKE_MATCH_2};
inline constexpr const char *kBootVersionBuild = \"${CMAKE_MATCH_3}\";
")
    set(target image-${directory}-${name})
    string(REPLACE "/" "-" target ${target})
    add_library(${target}-modules STATIC ${MODULE_SOURCES})
    target_include_directories(${target}-modules BEFORE PRIVATE ${settings} ${record})
    target_include_directories(${target}-modules PRIVATE ${MODULE_INCLUDES})
    add_dependencies(${target}-modules build-record)
    add_executable(${target} ${PLATFORM}/entry_point.cpp)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${directory})
    target_include_directories(${target} PRIVATE ${MODULE_INCLUDES})
    target_link_libraries(${target} PRIVATE -Wl,--whole-archive ${target}-modules platform -Wl,--no-whole-archive)
    link_image(${target} ${CMAKE_BINARY_DIR}/${directory}/${name}.map)
    add_custom_command(TARGET ${target} POST_BUILD COMMAND ${CMAKE_OBJCOPY} -O binary $<TARGET_FILE:${target}>
                       ${CMAKE_BINARY_DIR}/${directory}/${name}.bin)
endfunction()

foreach(version ${BOOT_VERSIONS})
    if(version STREQUAL 1.9.0)
        set(name bootloader)
    else()
        set(name bootloader-${version})
    endif()
    add_image(${name} . ${BUILD_RECORD} ${version})
    add_image(${name} fixed ${FIXED_RECORD} ${version})
endforeach()
