#!/usr/bin/env bash
# Fetches Debian's zlib1g-dev:armhf and libsodium-dev:armhf into <build>/deps
# (a private package list; the machine's package configuration stays
# untouched) and prints the prefix that holds their headers and static
# libraries (<build>/deps/root/usr). brivlo links libsodium statically to
# check release signatures; the ARM tests and the ARM benchmark compare the
# CRC with zlib's.
#   scripts/arm_libs.sh <build directory>
set -euo pipefail
cd "$(dirname "$0")/.."
triple=arm-linux-gnueabihf
deps=$(pwd)/$1/deps
prefix=$deps/root/usr
if [ ! -f "$prefix/lib/$triple/libz.a" ] || [ ! -f "$prefix/lib/$triple/libsodium.a" ]; then
  echo "== fetch zlib1g-dev:armhf libsodium-dev:armhf" >&2
  . scripts/debian-fetch.sh
  fetch_debs "$deps" zlib1g-dev:armhf libsodium-dev:armhf >&2
  for pkg in zlib1g-dev libsodium-dev; do
    dpkg-deb -x "$deps"/debs/${pkg}_*_armhf.deb "$deps/root"
  done
fi
echo "$prefix"
