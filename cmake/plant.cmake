# Planted mistakes: tests/planted/NAME.patch changes one source of the modules or of the platform, in a copy. Both
# versions with that mistake go to planted/NAME/. A patch that no longer applies fails the build. For tests alone:
# target `planted` builds them.

function(plant patch)
    get_filename_component(name ${patch} NAME_WE)
    file(STRINGS ${patch} source REGEX "^\\+\\+\\+ b/")
    string(REGEX REPLACE "^\\+\\+\\+ b/" "" source "${source}")
    if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${source})
        message(FATAL_ERROR "${patch} has to change one source")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${patch})
    set(place ${CMAKE_BINARY_DIR}/planted/${name})
    get_filename_component(module ${source} NAME)
    add_custom_command(
        OUTPUT ${place}/${module}
        COMMAND patch --quiet --fuzz=0 -r - -o ${place}/${module} ${CMAKE_SOURCE_DIR}/${source} ${patch}
        DEPENDS ${CMAKE_SOURCE_DIR}/${source} ${patch})
    set(others ${MODULE_SOURCES})
    list(REMOVE_ITEM others ${CMAKE_SOURCE_DIR}/${source})
    set(platform $<FILTER:$<TARGET_OBJECTS:platform>,EXCLUDE,/${module}[.]>)
    foreach(version ${BOOT_VERSIONS})
        image_name(image ${version})
        set(target planted-${name}-${version})
        module_objects(objects fixed-${image} "${others}")
        add_executable(${target} EXCLUDE_FROM_ALL ${platform} ${objects} ${place}/${module})
        target_include_directories(${target} PRIVATE ${CMAKE_BINARY_DIR}/settings/${version} ${FIXED_RECORD}
                                                     ${MODULE_INCLUDES} ${PLATFORM}
                                                     ${CMAKE_SOURCE_DIR}/platform/common)
        target_compile_options(${target} PRIVATE -Wno-unused) # what a mistake forgets to call
        set_target_properties(${target} PROPERTIES OUTPUT_NAME ${image} SUFFIX .elf RUNTIME_OUTPUT_DIRECTORY ${place})
        link_image(${target} ${place}/${image}.map)
        add_dependencies(planted ${target})
    endforeach()
endfunction()

add_custom_target(planted)
file(GLOB PLANTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/planted/*.patch)
foreach(patch ${PLANTS})
    plant(${patch})
endforeach()
