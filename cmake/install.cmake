# What `make install` puts where, and the Debian packages of `make deb`. Below the prefix:
#
#   bin/fixture, libexec/fixture/fixture-preview     the command and its helper
#   share/fixture/                                   the images for boards, their notices and bill, the JSON schema
#   share/man, share/bash-completion, ...            made by the command itself, from its own options
#   lib/fixture, include/fixture, lib/cmake/Fixture  component `development`: the board and the formats as libraries
#
# The images come from build/arm: `make install` builds them first.
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME command)
set(arm ${CMAKE_SOURCE_DIR}/build/arm)
set(data ${CMAKE_INSTALL_DATADIR}/fixture)

install(TARGETS fixture RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS fixture-preview RUNTIME DESTINATION libexec/fixture)
foreach(version bootloader bootloader-1.9.1)
    install(FILES ${arm}/${version}.elf ${arm}/${version}.bin ${arm}/${version}.map DESTINATION ${data})
endforeach()
install(FILES ${arm}/demo-application.bin ${arm}/demo-rescue.bin ${arm}/libbootloader.a ${arm}/libbootloader.needs
              ${arm}/NOTICE ${arm}/bootloader.spdx.json docs/report.schema.json DESTINATION ${data})
install(FILES ${CMAKE_BINARY_DIR}/fixture.spdx.json ${CMAKE_BINARY_DIR}/fixture-preview.spdx.json DESTINATION ${data})
file(GLOB documents docs/*.md)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/fixture RENAME copyright)
install(FILES README.md LICENSE ${documents} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/fixture)

# Manual pages and completion.
set(made ${CMAKE_BINARY_DIR}/described)
file(MAKE_DIRECTORY ${made}/man)
add_custom_command(
    OUTPUT ${made}/fixture.bash ${made}/_fixture ${made}/fixture.fish
    COMMAND fixture describe bash >${made}/fixture.bash
    COMMAND fixture describe zsh >${made}/_fixture
    COMMAND fixture describe fish >${made}/fixture.fish
    COMMAND fixture describe man --into ${made}/man
    DEPENDS fixture)
add_custom_target(described ALL DEPENDS ${made}/fixture.bash)
install(FILES ${made}/fixture.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME fixture)
install(FILES ${made}/_fixture DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${made}/fixture.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(DIRECTORY ${made}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 FILES_MATCHING PATTERN "*.1")

# The board and the formats for other programs: find_package(Fixture), then Fixture::board, Fixture::formats.
# They are made for programs that stay where they are linked, out of the way of the board's SDRAM.
foreach(library board formats)
    target_link_options(${library} INTERFACE $<INSTALL_INTERFACE:-no-pie>
                                             $<INSTALL_INTERFACE:-Wl,-Ttext-segment=0x30000000>)
endforeach()
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/Fixture)
install(TARGETS board formats EXPORT FixtureTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}/fixture
        COMPONENT development INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fixture)
install(EXPORT FixtureTargets NAMESPACE Fixture:: DESTINATION ${package} COMPONENT development)
install(FILES cmake/FixtureConfig.cmake DESTINATION ${package} COMPONENT development)
install(DIRECTORY fixture formats DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fixture COMPONENT development
        FILES_MATCHING PATTERN "*.h")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME fixture)
set(CPACK_PACKAGE_VERSION 1.0)
set(CPACK_PACKAGE_CONTACT "the authors <authors@fixture.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "virtual stage-lighting fixture and the tools of its secondary bootloader")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME fixture)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME fixture-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "fixture (= 1.0), libfmt-dev, libpng-dev, libgif-dev, libelf-dev, libdw-dev, libunicorn-dev")
include(CPack)
