#!/usr/bin/env bash
# Runs flows of the end-to-end suite (tests/e2e) with the real brivlo under
# Valgrind's memcheck: the suite starts brivlo behind the command prefix in
# BRIVLO_TEST_WRAPPER, on each test's flashsim board, so every run is checked
# by the test's own expectations (output, exit status, flash content, which
# also prove that the board's preload library reached the program under
# Valgrind). A memory error or a leak ("definitely" or "indirectly" lost)
# makes brivlo end with status 99, which no test expects; every Valgrind log
# with an error is printed. A non-sanitizer build is used (MEMCHECK_BUILD,
# default build/release).
#
#   scripts/memcheck.sh           raw images, the kernel + rootfs split,
#                                 packages, downloads, hostile TFTP peers,
#                                 signed upgrades: success and failure paths
#   scripts/memcheck.sh --short   one local raw image, one split and a
#                                 package downloaded with TFTP (CI)
# MEMCHECK_FILTER replaces the choice with a GoogleTest filter of its own.
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
  --short)
    mode=short
    filter='Table/RawImage.*/FullChunksAndRemainder:Table/KernelRootfs.*/KernelAndRootfs'
    filter+=':PackageWrite.PackageFetchedFromTftpd'
    ;;
  "")
    mode=full
    filter='Table/RawImage.*:Table/KernelRootfs.*:RawImageStatus.*:PackageWrite.*:*/PackageRun.*'
    filter+=':Table/FaultyFlash.*:Table/FaultySplit.*:Table/OnlyChangedBlocks.*'
    filter+=':Download.FileFromTftpd*:Download.MissingFile*:Table/HostileTftp.*:E2e/Signed*:Table/CommandLine.*'
    ;;
  *) echo "usage: scripts/memcheck.sh [--short]" >&2; exit 2 ;;
esac
filter=${MEMCHECK_FILTER:-$filter}

scripts/deps.sh
build=${MEMCHECK_BUILD:-build/release}
echo "== configure $build"
cmake --preset release -B "$build" >/dev/null
echo "== build $build"
cmake --build "$build" -j2 --target brivlo flashsim flashsim_preload flashsim_testclient qimtool test_e2e

brivlo=$(realpath "$build/app/brivlo")
logs=$(realpath "$build")/memcheck
rm -rf "$logs" && mkdir -p "$logs"
export BRIVLO_TEST_WRAPPER="valgrind --leak-check=full --show-leak-kinds=definite,indirect
  --errors-for-leak-kinds=definite,indirect --error-exitcode=99 --log-file=$logs/vg.%p"

echo "== memcheck ($mode): $filter"
status=0
"$build/tests/e2e/test_e2e" --gtest_filter="$filter" --gtest_brief=1 || status=$?

# Every log must come from brivlo itself (not a bare program) and be clean.
runs=0
bad=0
for vg in "$logs"/vg.*; do
  [ -e "$vg" ] || continue
  runs=$((runs + 1))
  if ! grep -q "Command: $brivlo" "$vg" || ! grep -q 'ERROR SUMMARY: 0 errors' "$vg" ||
    grep -qE 'definitely lost: [1-9]|indirectly lost: [1-9]' "$vg"; then
    bad=$((bad + 1))
    echo "FAIL $vg:" >&2
    sed 's/^/    /' "$vg" >&2
  fi
done
echo "== memcheck: $runs brivlo runs, $bad with errors, tests exit status $status"
if [ "$runs" -eq 0 ]; then
  echo "memcheck.sh: no brivlo run reached Valgrind" >&2
  exit 1
fi
[ "$bad" -eq 0 ] && [ "$status" -eq 0 ]
