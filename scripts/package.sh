#!/usr/bin/env bash
# Makes the Debian packages from the CMake install rules (CPack), checks them
# with lintian and installs the PC's package into a throwaway root:
#   brivlo_<version>_armhf.deb             the board's brivlo (cross-built in
#                                          build/arm, as scripts/arm.sh does)
#   brivlo-host-tools_<version>_<arch>.deb qimtool and flashsim (build/release)
# Both land in <build>/packages. Installs what it needs first.
#
#   scripts/package.sh          both packages, lintian, the install test
#   scripts/package.sh board    only the board's package; prints its path
#
# An existing build directory is reused (CI: the release suite's and
# scripts/arm.sh's), only the packaged targets are built; BRIVLO_HOST_BUILD
# and BRIVLO_ARM_BUILD name others.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$SECONDS

what=${1:-all}
case $what in
  all | board) ;;
  *) echo "usage: scripts/package.sh [board]" >&2; exit 2 ;;
esac
triple=arm-linux-gnueabihf
host_build=${BRIVLO_HOST_BUILD:-build/release}
arm_build=${BRIVLO_ARM_BUILD:-build/arm}
jobs=$(nproc 2>/dev/null || echo 2)

extra="g++-$triple binutils-$triple googletest dpkg-dev"
[ "$what" = all ] && extra="$extra lintian"
BRIVLO_DEPS_EXTRA="$extra ${BRIVLO_DEPS_EXTRA:-}" scripts/deps.sh >&2

# Runs cpack in a build directory for the one component that build packages
# and prints the package's path.
make_package() {
  local build=$1
  rm -rf "$build/packages"
  cpack --config "$build/CPackConfig.cmake" >"$build/cpack.log" 2>&1 || { cat "$build/cpack.log" >&2; return 1; }
  local debs=("$build"/packages/*.deb)
  [ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "package.sh: expected one package in $build/packages" >&2; return 1; }
  echo "${debs[0]}"
}

# --- the board: brivlo for armhf ----------------------------------------------
# Configured as scripts/arm.sh configures it (the same directory serves both).
if [ ! -f "$arm_build/CMakeCache.txt" ]; then
  prefix=$(scripts/arm_libs.sh "$arm_build")
  echo "== configure $arm_build" >&2
  cmake --preset arm -B "$arm_build" -DZLIB_INCLUDE_DIR="$prefix/include" \
    -DZLIB_LIBRARY="$prefix/lib/$triple/libz.a" -DSODIUM_INCLUDE_DIR="$prefix/include" \
    -DSODIUM_LIBRARY="$prefix/lib/$triple/libsodium.a" >&2
fi
echo "== build the board's package ($arm_build)" >&2
cmake --build "$arm_build" -j"$jobs" --target brivlo man_pages brivlo_changelog >&2
board_deb=$(make_package "$arm_build")
if [ "$what" = board ]; then
  echo "$board_deb"
  exit 0
fi

# --- the PC: qimtool and flashsim -----------------------------------------------
[ -f "$host_build/CMakeCache.txt" ] || cmake --preset release -B "$host_build" >/dev/null
echo "== build the PC's package ($host_build)"
cmake --build "$host_build" -j"$jobs" --target qimtool flashsim flashsim_preload man_pages brivlo_changelog brivlo
host_deb=$(make_package "$host_build")

for deb in "$board_deb" "$host_deb"; do
  echo "== $deb"
  dpkg-deb -I "$deb"
  dpkg-deb -c "$deb"
done

# --- lintian: no error, no warning ------------------------------------------------
echo "== lintian"
lintian --fail-on error,warning --display-info "$board_deb" "$host_deb"
echo "lintian: clean"

# --- installed as a user would: dpkg into a throwaway root -------------------------
tests/package/install_test.sh "$host_deb" "$host_build/app/brivlo"
echo "package stage: $((SECONDS - started)) s"
