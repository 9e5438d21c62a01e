# Debian's atftpd and atftp, unpacked into the build directory by
# scripts/atftp-fetch.sh (never installed: atftpd conflicts with tftpd-hpa).
# The tests and the benchmarks run them from BRIVLO_ATFTP_ROOT.
set(BRIVLO_ATFTP_ROOT ${CMAKE_BINARY_DIR}/deps/atftp/root)
if(NOT TARGET atftp_unpacked)
  add_custom_command(OUTPUT ${BRIVLO_ATFTP_ROOT}/usr/sbin/atftpd
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/atftp-fetch.sh ${CMAKE_BINARY_DIR}/deps/atftp
    COMMENT "Unpacking Debian's atftpd and atftp")
  add_custom_target(atftp_unpacked DEPENDS ${BRIVLO_ATFTP_ROOT}/usr/sbin/atftpd)
endif()
