#!/usr/bin/env bash
# Fetches Debian's zlib1g-dev:armhf into <build>/deps (a private package list;
# the machine's package configuration stays untouched) and prints the path of
# its static library. The ARM tests check the CRC against zlib's, and the ARM
# benchmark measures against it.
#   scripts/arm_zlib.sh <build directory>
set -euo pipefail
cd "$(dirname "$0")/.."
triple=arm-linux-gnueabihf
deps=$(pwd)/$1/deps
zlib_lib=$deps/root/usr/lib/$triple/libz.a
if [ ! -f "$zlib_lib" ]; then
  echo "== fetch zlib1g-dev:armhf" >&2
  mkdir -p "$deps/lists/partial" "$deps/cache/archives/partial" "$deps/debs"
  apt_armhf=(apt-get -q -o "Dir::State::Lists=$deps/lists" -o "Dir::Cache=$deps/cache"
             -o APT::Architecture=armhf -o APT::Architectures::=armhf -o APT::Sandbox::User=root)
  # An index of some other suite may fail to come; the download says whether
  # the one that holds zlib did.
  "${apt_armhf[@]}" update >"$deps/update.log" 2>&1 || true
  if ! (cd "$deps/debs" && "${apt_armhf[@]}" download zlib1g-dev:armhf >"$deps/download.log" 2>&1); then
    cat "$deps/update.log" "$deps/download.log" >&2
    echo "arm_zlib.sh: cannot fetch zlib1g-dev:armhf" >&2
    exit 1
  fi
  dpkg-deb -x "$deps"/debs/zlib1g-dev_*_armhf.deb "$deps/root"
fi
echo "$zlib_lib"
