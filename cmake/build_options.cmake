# The flags every target of the project compiles and links with, as INTERFACE
# targets that each target links PRIVATE. Nothing is set for the whole
# directory tree, so third-party code built here (GoogleTest from source in a
# cross build) and targets that need other flags (flashsim's preload library)
# take only what they ask for.
#
#   brivlo_warnings        -Wall -Wextra, and -Werror with BRIVLO_WERROR
#   brivlo_platform        the C library's 64-bit file offsets and time
#   brivlo_sanitizers      ASan + UBSan with BRIVLO_SANITIZE
#   brivlo_build_options   all three; what the project's own targets link

add_library(brivlo_warnings INTERFACE)
target_compile_options(brivlo_warnings INTERFACE -Wall -Wextra $<$<BOOL:${BRIVLO_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # GCC notes on ARM that the calling convention for some standard types
  # changed in GCC 7.1; everything here is built with one compiler.
  target_compile_options(brivlo_warnings INTERFACE -Wno-psabi)
endif()

# Package files and flash images can exceed 2 GiB offsets on the 32-bit
# target, and the board lives past 2038. Everything that shares structures
# with the C library (off_t, time_t, struct stat, struct timeval) must agree
# on these, hence one target for both.
add_library(brivlo_platform INTERFACE)
target_compile_definitions(brivlo_platform INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

add_library(brivlo_sanitizers INTERFACE)
if(BRIVLO_SANITIZE)
  target_compile_options(brivlo_sanitizers INTERFACE -fsanitize=address,undefined
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(brivlo_sanitizers INTERFACE -fsanitize=address,undefined)
endif()

add_library(brivlo_build_options INTERFACE)
target_link_libraries(brivlo_build_options INTERFACE brivlo_warnings brivlo_platform brivlo_sanitizers)
# One section per function and object, so that the board binary's link can
# drop library code that nothing calls (--gc-sections on brivlo).
target_compile_options(brivlo_build_options INTERFACE -ffunction-sections -fdata-sections)
