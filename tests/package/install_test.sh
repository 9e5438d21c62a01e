#!/usr/bin/env bash
# Installs the PC's package as a user would, with dpkg, into a throwaway root,
# uses the installed qimtool and flashsim there, and removes the package:
#   tests/package/install_test.sh <brivlo-host-tools .deb> <PC build of brivlo>
# The root's dpkg database holds this machine's records of exactly the
# packages the package depends on (whose files the installed programs use),
# so dpkg checks the package's Depends against real installed versions. The
# installed flashsim runs the given brivlo on a simulated board: a package
# that the installed qimtool made goes into the board's flash. Every check
# prints what it saw when it fails; the test exits 1 then. The root lives
# beside the package and is deleted at the end.
set -euo pipefail

deb=$(realpath "$1")
brivlo=$(realpath "$2")
work=$(mktemp -d "$(dirname "$deb")/install-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
admin=$root/var/lib/dpkg
failures=0
fail() { echo "FAIL install: $*" >&2; failures=$((failures + 1)); }
dpkg_root() { dpkg --root="$root" "$@"; }

name=$(dpkg-deb -f "$deb" Package)
version=$(dpkg-deb -f "$deb" Version)
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
for dep in $(dpkg-deb -f "$deb" Depends | sed 's/([^)]*)//g; s/[,|]/ /g'); do
  dpkg-query -s "$dep" >>"$admin/status" 2>/dev/null || continue
  echo >>"$admin/status"
  touch "$admin/info/$(dpkg-query -W -f '${binary:Package}' "$dep").list" # their files are the machine's
done
tree() { (cd "$root" && find . -path ./var/lib/dpkg -prune -o -print | sort); }
before=$(tree)

echo "== dpkg --root $root -i $(basename "$deb")"
dpkg_root -i "$deb"
status=$(dpkg-query --root="$root" -W -f '${Status} ${Version}' "$name")
[ "$status" = "install ok installed $version" ] || fail "dpkg-query after -i: '$status'"
dpkg-query --root="$root" -L "$name"

# --- the installed programs ------------------------------------------------------
bin=$root/usr/bin
got=$("$bin/qimtool" --version) || fail "qimtool --version exited with $?"
[ "$got" = "qimtool $version" ] || fail "qimtool --version: '$got', the package's version is $version"

head -c 200000 /dev/urandom >"$work/fpga.bin"
head -c 5000 /dev/urandom >"$work/config.bin"
"$bin/qimtool" create -o "$work/fw.qim" --device-code 40 --product-version 0x01020304 \
  --part "fpga:1.0.0.0:$work/fpga.bin" --part "config:2.0.0.0:$work/config.bin" \
  --model 0000000000000000:0,1 >/dev/null || fail "qimtool create exited with $?"
"$bin/qimtool" verify "$work/fw.qim" || fail "qimtool verify exited with $?"
"$bin/qimtool" info "$work/fw.qim" >"$work/info.txt" || fail "qimtool info exited with $?"

board=$work/board
"$bin/flashsim" init "$board" || fail "flashsim init exited with $?"
preload=$(env -u FLASHSIM_PRELOAD "$bin/flashsim" run "$board" -- /bin/sh -c 'echo "$LD_PRELOAD"')
[ "$preload" = "$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/flashsim/libflashsim_preload.so" ] ||
  fail "flashsim run did not preload the installed library: LD_PRELOAD='$preload'"
set +e
timeout 60 env -u FLASHSIM_PRELOAD "$bin/flashsim" run "$board" -- "$brivlo" local "$work/fw.qim" qim \
  >"$work/brivlo.out" 2>&1
rc=$?
set -e
[ $rc -eq 0 ] && grep -q "^Brivlo done" "$work/brivlo.out" || { fail "brivlo on the board: status $rc"; cat "$work/brivlo.out" >&2; }
for part in fpga:fpga.bin config:config.bin; do
  p=${part%%:*} f=$work/${part#*:}
  "$bin/flashsim" dump "$board" "$p" -o "$work/$p.dump" || fail "flashsim dump $p exited with $?"
  cmp -s -n "$(stat -c %s "$f")" "$work/$p.dump" "$f" || fail "partition $p does not hold the package's part"
done
"$bin/flashsim" show "$board" fpga | grep -q . || fail "flashsim show printed nothing"

# --- removed, nothing is left behind ---------------------------------------------
echo "== dpkg --root $root -r $name"
dpkg_root -r "$name"
status=$(dpkg-query --root="$root" -W -f '${Status}' "$name" 2>/dev/null || true)
case $status in "" | "unknown ok not-installed" | "deinstall ok not-installed") ;; *) fail "dpkg-query after -r: '$status'" ;; esac
after=$(tree)
[ "$before" = "$after" ] || fail "left behind after dpkg -r: $(comm -13 <(echo "$before") <(echo "$after") | tr '\n' ' ')"
ls "$admin/info/$name".* >/dev/null 2>&1 && fail "dpkg keeps files of $name: $(ls "$admin/info/$name".*)"

if [ $failures -ne 0 ]; then
  echo "install test: $failures failed" >&2
  exit 1
fi
echo "install test: installed with dpkg, qimtool $version made and checked a package, flashsim ran brivlo"
echo "on a board with the installed preload library, both parts in flash, dpkg -r left nothing behind"
