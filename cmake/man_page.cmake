# Writes a manual page for installation:
#   cmake -DIN=<page.1> -DOUT=<page.1.gz> -DVERSION=<version> -P man_page.cmake
# The title line's fourth field (the source) becomes "brivlo <version>", and the
# page is compressed as man-db and Debian expect (gzip -9n: no name, no time).
cmake_minimum_required(VERSION 3.16)
file(READ ${IN} text)
string(REGEX REPLACE "(\n|^)(\\.TH [^ ]+ [0-9]+ \"[^\"]*\") \"[^\"]*\"" "\\1\\2 \"brivlo ${VERSION}\"" text "${text}")
if(NOT text MATCHES "\\.TH [^\n]*\"brivlo ${VERSION}\"")
  message(FATAL_ERROR "${IN}: no title line (.TH NAME SECTION \"date\" \"source\" ...)")
endif()
set(plain ${OUT}.tmp)
file(WRITE ${plain} "${text}")
execute_process(COMMAND gzip -9nc ${plain} OUTPUT_FILE ${OUT} RESULT_VARIABLE rc)
file(REMOVE ${plain})
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip of ${IN} failed")
endif()
