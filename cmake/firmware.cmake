# The bootloader for the board: bootloader.elf, .bin, .map, libbootloader.a with the list of symbols it needs, a second
# version of it, both again with the fixed build record that tests compare with, and the demo programs.

set(ARM_FLAGS -mcpu=arm926ej-s -marm)
add_compile_options(${ARM_FLAGS} $<$<COMPILE_LANGUAGE:CXX>:-g>
                    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
                    $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics> $<$<COMPILE_LANGUAGE:CXX>:-fno-use-cxa-atexit>)

# No image knows where it was built: debug data name sources from the tree's root, like ./src/main.cpp.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=./build)

# Archives without times, owners and modes.
set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_APPEND "<CMAKE_AR> qD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")

set(PLATFORM ${CMAKE_SOURCE_DIR}/platform/at91sam9263)
file(GLOB PLATFORM_SOURCES CONFIGURE_DEPENDS ${PLATFORM}/*.cpp ${PLATFORM}/*.S
     ${CMAKE_SOURCE_DIR}/platform/common/*.cpp)

# How a module is compiled. What is done for every byte of an image or a picture is compiled for speed. The rest runs a
# few times in a boot and is compiled for size, in the 16-bit instruction set but for two: the two-wire bus is timed by
# its own instructions, and main is called by whoever starts the program, in the set of the entry.
set(FAST_MODULES src/LCDPixels.cpp src/Sums.cpp src/driver/nandbus.cpp src/driver/nandflash.cpp
                 bsp/ol_at91sam926x_spi.cpp bsp/ol_at91sam926x_dataflash.cpp)
set(WIDE_MODULES ${FAST_MODULES} src/main.cpp bsp/at91sam9263_sw_i2c.cpp)
foreach(file ${MODULE_SOURCES})
    file(RELATIVE_PATH name ${CMAKE_SOURCE_DIR} ${file})
    set(options -Os -mthumb)
    if(name IN_LIST WIDE_MODULES)
        set(options -Os)
    endif()
    if(name IN_LIST FAST_MODULES)
        set(options -O2)
    endif()
    set_source_files_properties(${file} PROPERTIES COMPILE_OPTIONS "${options}")
endforeach()

# Every routine of the library is kept, called or not, so that each can be reached by its symbol. The C library is the
# small one, in the 16-bit set.
function(link_image target map)
    target_link_options(${target} PRIVATE -mcpu=arm926ej-s -mthumb --specs=nano.specs -nostartfiles
                        -T ${PLATFORM}/linker.ld -Wl,-Map=${map} -Wl,--no-warn-rwx-segments -Wl,-z,noexecstack)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PLATFORM}/linker.ld)
endfunction()

add_library(platform OBJECT ${PLATFORM_SOURCES})
target_compile_options(platform PRIVATE -Os)
target_include_directories(platform PRIVATE ${MODULE_INCLUDES} ${CMAKE_SOURCE_DIR}/platform/common)

# What all images have in common of the modules. No source of it may ask for a version or a record.
set(common ${CMAKE_BINARY_DIR}/settings/common)
foreach(header boot_version build_record)
    file(CONFIGURE OUTPUT ${common}/${header}.h @ONLY CONTENT "// Made by the build.
#error \"who includes this differs from image to image: it belongs in CMakeLists.txt's lists\"
")
endforeach()
set(COMMON_SOURCES ${MODULE_SOURCES})
list(REMOVE_ITEM COMMON_SOURCES ${VERSION_SOURCES} ${RECORD_SOURCES})
add_library(common-modules OBJECT ${COMMON_SOURCES})
target_include_directories(common-modules BEFORE PRIVATE ${common})
target_include_directories(common-modules PRIVATE ${MODULE_INCLUDES})

# The objects of some modules for one image, in the order of their sources.
function(module_objects result target sources)
    set(objects)
    foreach(file ${sources})
        set(library common-modules)
        if(file IN_LIST VERSION_SOURCES OR file IN_LIST RECORD_SOURCES)
            set(library ${target}-own)
        endif()
        get_filename_component(name ${file} NAME)
        list(APPEND objects $<FILTER:$<TARGET_OBJECTS:${library}>,INCLUDE,/${name}[.]>)
    endforeach()
    set(${result} ${objects} PARENT_SCOPE)
endfunction()

# One image: the modules with a version and a build record of their own, on the reference platform. Kind `board` is the
# one for boards, `fixed` the one for tests, in a directory of its own.
function(add_image name kind record version)
    set(place ${CMAKE_BINARY_DIR})
    if(kind STREQUAL fixed)
        set(place ${CMAKE_BINARY_DIR}/fixed)
    endif()
    set(settings ${CMAKE_BINARY_DIR}/settings/${version})
    string(REGEX MATCH "^([0-9]+)\\.([0-9]+)\\.(.+)$" _ ${version})
    file(CONFIGURE OUTPUT ${settings}/boot_version.h @ONLY CONTENT "// Made by the build.
#pragma once

inline constexpr int kBootVersionMajor = ${CMAKE_MATCH_1};
inline constexpr int kBootVersionMinor = ${CMAKE_MATCH_2};
inline constexpr const char *kBootVersionBuild = \"${CMAKE_MATCH_3}\";
")
    set(target ${kind}-${name})
    add_library(${target}-own OBJECT ${VERSION_SOURCES} ${RECORD_SOURCES})
    target_include_directories(${target}-own BEFORE PRIVATE ${settings} ${record})
    target_include_directories(${target}-own PRIVATE ${MODULE_INCLUDES})
    add_dependencies(${target}-own build-record)
    module_objects(objects ${target} "${MODULE_SOURCES}")
    add_library(${target}-modules STATIC ${objects})
    set_target_properties(${target}-modules PROPERTIES LINKER_LANGUAGE CXX)
    add_executable(${target} $<TARGET_OBJECTS:platform>)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} SUFFIX .elf RUNTIME_OUTPUT_DIRECTORY ${place})
    target_link_libraries(${target} PRIVATE -Wl,--whole-archive ${target}-modules -Wl,--no-whole-archive)
    link_image(${target} ${place}/${name}.map)
    add_custom_command(TARGET ${target} POST_BUILD COMMAND ${CMAKE_OBJCOPY} -O binary $<TARGET_FILE:${target}>
                       ${place}/${name}.bin)
endfunction()

function(image_name result version)
    if(version STREQUAL 1.9.0)
        set(${result} bootloader PARENT_SCOPE)
    else()
        set(${result} bootloader-${version} PARENT_SCOPE)
    endif()
endfunction()

foreach(version ${BOOT_VERSIONS})
    image_name(name ${version})
    add_image(${name} board ${BUILD_RECORD} ${version})
    add_image(${name} fixed ${FIXED_RECORD} ${version})
endforeach()

include(${CMAKE_SOURCE_DIR}/cmake/plant.cmake)

# The modules alone, for another kernel, with what they need from it.
set(needs ${CMAKE_BINARY_DIR}/libbootloader.needs)
add_custom_command(
    OUTPUT ${CMAKE_BINARY_DIR}/libbootloader.a ${needs}
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:board-bootloader-modules> ${CMAKE_BINARY_DIR}/libbootloader.a
    COMMAND ${CMAKE_SOURCE_DIR}/cmake/needed_symbols.sh ${CMAKE_NM} ${CMAKE_BINARY_DIR}/libbootloader.a > ${needs}
    DEPENDS board-bootloader-modules ${CMAKE_SOURCE_DIR}/cmake/needed_symbols.sh)
add_custom_target(libbootloader ALL DEPENDS ${CMAKE_BINARY_DIR}/libbootloader.a)

# What the image is made of, and the notices that have to go with it.
add_custom_command(
    OUTPUT ${CMAKE_BINARY_DIR}/bootloader.spdx.json ${CMAKE_BINARY_DIR}/NOTICE
    COMMAND ${CMAKE_SOURCE_DIR}/cmake/bill.py $<TARGET_FILE:board-bootloader> ${CMAKE_BINARY_DIR}/bootloader.spdx.json
            --map ${CMAKE_BINARY_DIR}/bootloader.map --notice ${CMAKE_BINARY_DIR}/NOTICE
            --record ${BUILD_RECORD}/build_record.h
    DEPENDS board-bootloader ${CMAKE_SOURCE_DIR}/cmake/bill.py)
add_custom_target(image-bill ALL DEPENDS ${CMAKE_BINARY_DIR}/bootloader.spdx.json)

# Demo programs that a board can launch: flat binaries.
file(GLOB DEMOS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/assets/demo-*)
foreach(directory ${DEMOS})
    get_filename_component(name ${directory} NAME)
    file(GLOB sources CONFIGURE_DEPENDS ${directory}/*.cpp ${directory}/*.S)
    add_executable(${name} ${sources})
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/platform/include)
    target_link_options(${name} PRIVATE -mcpu=arm926ej-s -marm -nostdlib -T ${directory}/linker.ld
                        -Wl,--no-warn-rwx-segments -Wl,-z,noexecstack)
    add_custom_command(TARGET ${name} POST_BUILD COMMAND ${CMAKE_OBJCOPY} -O binary $<TARGET_FILE:${name}>
                       ${CMAKE_BINARY_DIR}/${name}.bin)
endforeach()
