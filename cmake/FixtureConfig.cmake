# find_package(Fixture): the virtual board (Fixture::board, headers "fixture/...") and the product's byte layouts
# (Fixture::formats, headers "formats/...").
include(CMakeFindDependencyMacro)
find_dependency(fmt)
find_dependency(PNG)
find_dependency(PkgConfig)
pkg_check_modules(UNICORN REQUIRED IMPORTED_TARGET unicorn)
pkg_check_modules(ELF REQUIRED IMPORTED_TARGET libelf libdw)
include(${CMAKE_CURRENT_LIST_DIR}/FixtureTargets.cmake)
