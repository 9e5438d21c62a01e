# Checks `cmake --install` of a built tree into a private prefix:
#   cmake -DBUILD_DIR=<build tree> -DLIBDIR=<flashsim library dir> -DCROSS=<bool> -P check_install.cmake
# Expects brivlo and qimtool with their (compressed) manual pages and both
# packages' copyright and changelog everywhere; flashsim, its
# preload library and its page only in a host build (CROSS false), where the
# installed flashsim must also find the installed library on its own.
cmake_minimum_required(VERSION 3.16)

foreach(var BUILD_DIR LIBDIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

set(prefix ${BUILD_DIR}/install-check)
file(REMOVE_RECURSE ${prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${rc}):\n${out}${err}")
endif()

set(expected bin/brivlo bin/qimtool share/man/man1/brivlo.1.gz share/man/man1/qimtool.1.gz
    share/doc/brivlo/copyright share/doc/brivlo/changelog.gz
    share/doc/brivlo-host-tools/copyright share/doc/brivlo-host-tools/changelog.gz)
set(host_only bin/flashsim ${LIBDIR}/libflashsim_preload.so share/man/man1/flashsim.1.gz)
if(CROSS)
  set(absent ${host_only})
else()
  list(APPEND expected ${host_only})
  set(absent "")
endif()

set(problems "")
foreach(f ${expected})
  if(NOT EXISTS ${prefix}/${f})
    string(APPEND problems "missing: ${f}\n")
  endif()
endforeach()
foreach(f ${absent})
  if(EXISTS ${prefix}/${f})
    string(APPEND problems "installed although it has no use on the board: ${f}\n")
  endif()
endforeach()

# Manual pages must format without a single groff warning.
find_program(GROFF groff)
if(GROFF)
  foreach(page brivlo qimtool flashsim)
    set(file ${prefix}/share/man/man1/${page}.1.gz)
    if(EXISTS ${file})
      execute_process(COMMAND gzip -dc ${file} COMMAND ${GROFF} -man -ww -z
                      RESULT_VARIABLE rc ERROR_VARIABLE err)
      if(NOT rc EQUAL 0 OR NOT err STREQUAL "")
        string(APPEND problems "${page}.1 does not format cleanly:\n${err}")
      endif()
    endif()
  endforeach()
endif()

# The installed flashsim finds the installed library (relative to itself) and
# puts a program on a board with it.
if(NOT CROSS AND EXISTS ${prefix}/bin/flashsim)
  set(board ${prefix}/board)
  execute_process(COMMAND ${prefix}/bin/flashsim init ${board} RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(APPEND problems "installed flashsim init failed (${rc}): ${err}\n")
  else()
    execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=FLASHSIM_PRELOAD
                            ${prefix}/bin/flashsim run ${board} -- /bin/sh -c "echo $LD_PRELOAD"
                    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0 OR NOT out MATCHES "${prefix}/${LIBDIR}/libflashsim_preload.so")
      string(APPEND problems "installed flashsim did not run with the installed library (${rc}): ${out}${err}\n")
    endif()
  endif()
endif()

if(problems)
  message(FATAL_ERROR "cmake --install into ${prefix}:\n${problems}")
endif()
file(REMOVE_RECURSE ${prefix})
message(STATUS "cmake --install into a private prefix: complete")
