# Cross-compiling for the board: 32-bit ARM (hard-float EABI) Linux with
# Debian's g++-arm-linux-gnueabihf. Use:
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
# Programs built this way run on a PC under qemu-user (package qemu-user-static);
# scripts/arm.sh sets that up and runs the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(BRIVLO_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${BRIVLO_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${BRIVLO_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${BRIVLO_CROSS_TRIPLE})

# The cross C library and its dynamic loader live here; qemu needs the same
# directory as its prefix (-L, or QEMU_LD_PREFIX for programs started through
# binfmt_misc) to find them when it runs an ARM program.
set(BRIVLO_CROSS_ROOT /usr/${BRIVLO_CROSS_TRIPLE} CACHE PATH "Root of the ARM C library")
set(CMAKE_FIND_ROOT_PATH ${BRIVLO_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# How CMake itself runs ARM programs (test discovery, ctest): explicitly through
# qemu, so that this works whether or not binfmt_misc knows ARM binaries.
find_program(BRIVLO_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(BRIVLO_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${BRIVLO_QEMU_ARM} -L ${BRIVLO_CROSS_ROOT})
endif()
