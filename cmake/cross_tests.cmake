# Tests of a cross build (see cmake/arm-linux-gnueabihf.cmake). They run on the
# build machine under qemu-user, so they need:
#  - GoogleTest compiled for the target, from the sources Debian ships (package
#    googletest): the host's libgtest is a host library. The targets are named
#    as find_package(GTest) names them: GTest::gtest, GTest::gtest_main,
#    GTest::gmock (and GTest::gmock_main).
#  - QEMU_LD_PREFIX in their environment: ctest starts a test through
#    CMAKE_CROSSCOMPILING_EMULATOR, but the ARM programs a test starts itself
#    (brivlo, qimtool, flashsim) go through binfmt_misc, and qemu then learns
#    where the ARM C library is only from this variable.
#  - longer time limits: everything runs several times slower.
# Sets BRIVLO_TEST_PROPERTIES for gtest_discover_tests.
set(BRIVLO_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources (Debian package googletest)")
if(NOT EXISTS ${BRIVLO_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest sources not found in ${BRIVLO_GTEST_SOURCE_DIR}: "
                      "install the Debian package googletest (scripts/arm.sh does), "
                      "or configure with -DBRIVLO_TESTS=OFF")
endif()

set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
# Third-party code: built without the project's warnings (nothing is set for
# the whole tree), but with its view of the C library's types, which the
# tests share with it.
add_subdirectory(${BRIVLO_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
foreach(lib gtest gtest_main gmock gmock_main)
  target_link_libraries(${lib} PRIVATE brivlo_platform)
endforeach()

foreach(lib gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${lib})
    add_library(GTest::${lib} ALIAS ${lib})
  endif()
endforeach()

set(BRIVLO_CROSS_TEST_TIMEOUT 600 CACHE STRING "Time limit of one test under emulation, in seconds")
set(BRIVLO_TEST_PROPERTIES TIMEOUT ${BRIVLO_CROSS_TEST_TIMEOUT})
if(BRIVLO_CROSS_ROOT)
  list(APPEND BRIVLO_TEST_PROPERTIES ENVIRONMENT "QEMU_LD_PREFIX=${BRIVLO_CROSS_ROOT}")
endif()
