#!/usr/bin/env bash
# Cross-builds everything for the board (32-bit ARM Linux, arm-linux-gnueabihf)
# in build/arm, runs the test suite on this PC under qemu-user emulation, and
# prints the size of a stripped ARM brivlo. Installs what it needs first.
#
# The tests and every ARM program they start (brivlo, qimtool, flashsim with
# its ARM preload library) run under qemu-arm: ctest starts the test programs
# through the emulator named in the toolchain file, and the kernel's
# binfmt_misc hands each ARM program a test starts to qemu-arm as well. Where
# binfmt_misc cannot be set up, only the unit tests run (see below); in CI
# (CI=true) that is a failure, so a green run always includes the end-to-end
# suites.
# BRIVLO_ARM_BUILD names another build directory.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$SECONDS

triple=arm-linux-gnueabihf
cross_root=/usr/$triple
build=${BRIVLO_ARM_BUILD:-build/arm}
jobs=$(nproc 2>/dev/null || echo 2)

BRIVLO_DEPS_EXTRA="g++-$triple qemu-user-static binfmt-support googletest ${BRIVLO_DEPS_EXTRA:-}" scripts/deps.sh

# --- zlib and libsodium for ARM ------------------------------------------------
# brivlo checks release signatures with libsodium, and the ARM tests compare
# the CRC with zlib's: both are Debian's armhf packages, linked statically.
prefix=$(scripts/arm_libs.sh "$build")
arm_libs=(-DZLIB_INCLUDE_DIR="$prefix/include" -DZLIB_LIBRARY="$prefix/lib/$triple/libz.a"
          -DSODIUM_INCLUDE_DIR="$prefix/include" -DSODIUM_LIBRARY="$prefix/lib/$triple/libsodium.a")

# --- build --------------------------------------------------------------------
echo "== configure $build"
cmake --preset arm -B "$build" "${arm_libs[@]}" >/dev/null
echo "== build $build"
cmake --build "$build" -j"$jobs"
build_done=$SECONDS

# --- binfmt_misc: ARM programs started by tests go to qemu-arm ------------------
. scripts/arm_binfmt.sh
# qemu started through binfmt_misc finds the ARM C library only through this.
export QEMU_LD_PREFIX=$cross_root
binfmt_ok=false
if register_arm; then
  # Registered is not enough: the ARM brivlo must really start (usage: status 5).
  set +e
  "$build/app/brivlo" -? >/dev/null 2>&1
  [ $? -eq 5 ] && binfmt_ok=true
  set -e
fi

# --- tests ----------------------------------------------------------------------
# qemu-user answers every ptrace request with ENOSYS; the one test that
# traces brivlo (to make its sockets fail) skips itself there
# (e2e::canFailSockets). qemu-user 7.2 also lacks the socket option
# IP_MULTICAST_IF, which the log's network destination sets; no test depends
# on it.
if $binfmt_ok; then
  echo "== test $build under qemu-arm"
  ctest --test-dir "$build" -j"$jobs" --output-on-failure
elif [ "${CI:-}" = true ]; then
  echo "arm.sh: binfmt_misc cannot hand ARM programs to qemu-arm on this machine, so the" >&2
  echo "   end-to-end, flashsim and qimtool suites cannot run: failing (CI=true)" >&2
  exit 1
else
  echo "== binfmt_misc cannot hand ARM programs to qemu-arm on this machine:" >&2
  echo "   only the unit tests run (each through qemu-arm -L $cross_root); the" >&2
  echo "   tests that start brivlo, qimtool or flashsim (e2e, flashsim, qimtool) cannot." >&2
  for t in "$build"/tests/*/test_*; do
    [ -x "$t" ] || continue
    case $(basename "$t") in
      test_e2e | test_flashsim | test_qimtool) continue ;;
    esac
    echo "== $(basename "$t")"
    qemu-arm-static -L "$cross_root" "$t" --gtest_brief=1
  done
fi
tests_done=$SECONDS

# --- what goes onto the board -------------------------------------------------
stripped=$build/brivlo.stripped
$triple-strip -o "$stripped" "$build/app/brivlo"
needed=$($triple-readelf -d "$build/app/brivlo" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
for lib in $needed; do
  case $lib in
    libc.so.* | libstdc++.so.* | libgcc_s.so.* | libm.so.* | ld-linux-armhf.so.*) ;;
    *) echo "arm.sh: brivlo needs $lib, more than the C and C++ runtime" >&2; exit 1 ;;
  esac
done
echo "ARM brivlo needs: $needed"
echo "ARM brivlo stripped: $(stat -c %s "$stripped") bytes"
echo "ARM stage: $((SECONDS - started)) s (build $((build_done - started)) s, tests $((tests_done - build_done)) s)"
