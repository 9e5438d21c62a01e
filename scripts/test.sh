#!/usr/bin/env bash
# Builds brivlo and runs every test: once as a normal -Werror build, once under
# AddressSanitizer + UndefinedBehaviorSanitizer. Installs missing packages first.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  echo "== configure $dir"
  cmake -S . -B "$dir" -DBRIVLO_WERROR=ON "$@" >/dev/null
  echo "== build $dir"
  cmake --build "$dir" -j"$jobs"
  echo "== test $dir"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure
}

run_suite build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite build/sanitize -DCMAKE_BUILD_TYPE=Debug -DBRIVLO_SANITIZE=ON

# CI also runs brivlo under valgrind (short flows, on the normal build above),
# every fuzz target for about a minute (two at a time on the two cores), the
# whole suite again cross-built for the board's 32-bit ARM, under qemu, and
# that ARM brivlo on a real ARM kernel with its MTD drivers (qemu-system-arm).
if [ "${CI:-}" = "true" ]; then
  scripts/memcheck.sh --short
  FUZZ_JOBS=2 fuzz/run 60
  scripts/arm.sh
  scripts/real-kernel.sh
fi
