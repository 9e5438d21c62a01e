# brivlo_libc_dependency(<objdump> <binary> <out variable>)
# Sets <out variable> to "libc6 (>= V)", V being the newest GLIBC_ symbol
# version among the symbols the binary takes from the C library: the oldest
# C library it starts with. Fails if the binary needs any other library than
# the C library's own (libc, libm, the dynamic loader): the board package
# names libc6 alone.
function(brivlo_libc_dependency objdump binary out)
  execute_process(COMMAND ${objdump} -p -T ${binary} RESULT_VARIABLE rc OUTPUT_VARIABLE dump ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${objdump} -p -T ${binary} failed: ${err}")
  endif()
  string(REGEX MATCHALL "NEEDED +[^\n]+" needed "${dump}")
  foreach(entry ${needed})
    string(REGEX REPLACE "NEEDED +" "" lib "${entry}")
    if(NOT lib MATCHES "^(libc\\.so\\.6|libm\\.so\\.6|ld-linux-armhf\\.so\\.3)$")
      message(FATAL_ERROR "${binary} needs ${lib}: only the C library is a dependency of the package")
    endif()
  endforeach()
  # Imported symbols: "00000000      DF *UND*  00000000  GLIBC_2.34  __libc_start_main"
  string(REGEX MATCHALL "\\*UND\\*[^\n]* \\(?GLIBC_[0-9.]+" imports "${dump}")
  set(newest "")
  foreach(entry ${imports})
    string(REGEX REPLACE ".*GLIBC_" "" v "${entry}")
    if(newest STREQUAL "" OR v VERSION_GREATER newest)
      set(newest ${v})
    endif()
  endforeach()
  if(newest STREQUAL "")
    message(FATAL_ERROR "${binary} takes no versioned symbol from the C library: not the expected dynamic binary")
  endif()
  message(STATUS "${binary}: newest C library symbol version GLIBC_${newest}")
  set(${out} "libc6 (>= ${newest})" PARENT_SCOPE)
endfunction()
