#!/usr/bin/env bash
# Builds brivlo and runs every test: once as a normal -Werror build, once under
# AddressSanitizer + UndefinedBehaviorSanitizer. Installs missing packages first.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

# Each suite is a preset (CMakePresets.json) with the build directory of its
# name: build/release, build/sanitize.
run_suite() {
  local preset=$1
  echo "== configure build/$preset"
  cmake --preset "$preset" >/dev/null
  echo "== build build/$preset"
  cmake --build --preset "$preset" -j"$jobs"
  echo "== test build/$preset"
  ctest --preset "$preset" -j"$jobs"
}

run_suite release
run_suite sanitize

# CI also runs clang-tidy over every source (scripts/tidy.sh --all, on the
# normal build's compile commands), brivlo under valgrind (short flows, on the normal build above),
# every fuzz target for about a minute (two at a time on the two cores), the
# whole suite again cross-built for the board's 32-bit ARM, under qemu, the
# Debian packages from those two builds (lintian, an install test), and the
# packaged ARM brivlo on a real ARM kernel with its MTD drivers (qemu-system-arm).
if [ "${CI:-}" = "true" ]; then
  scripts/tidy.sh --all
  scripts/memcheck.sh --short
  FUZZ_JOBS=2 fuzz/run 60
  scripts/arm.sh
  scripts/package.sh
  scripts/real-kernel.sh
fi
