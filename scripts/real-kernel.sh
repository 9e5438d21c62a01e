#!/usr/bin/env bash
# Runs brivlo on a real 32-bit ARM Linux kernel with real MTD drivers: Debian's
# armhf kernel (armmp) under qemu-system-arm -M virt, booted into an initramfs
# that holds busybox, the ARM C library, the cross-built brivlo, mtd-utils'
# flashcp and flash_erase, and the test files. Its /init
# (scripts/real-kernel/init) loads two flash drivers and runs every scenario of
# scripts/real-kernel/scenarios.sh on each:
#   nand  the kernel's NAND simulator (nandsim): 2 KiB pages, 128 KiB erase
#         blocks, one chip split into the partitions, one block marked bad;
#         later loaded again with other faults (bad blocks, failing erase and
#         program, bit flips, a page that reads back garbage);
#   nor   phram (write size 1, 64 KiB erase blocks) over RAM the kernel leaves
#         alone (mem=), built here out of tree from Debian's kernel source.
# Downloads go to the host's in.tftpd on a loopback port and to qemu's own TFTP
# server, both reached from the guest as 10.0.2.2 through qemu's user-mode
# network. Prints one PASS/FAIL line per scenario, the flashcp comparisons,
# the erases of brivlo -D, and "N passed, N failed"; exits 1 on any failure.
#
# Run as root (it installs qemu-system-arm and the cross compiler with
# scripts/deps.sh). Downloads and builds are kept in build/kernel (or
# BRIVLO_KERNEL_BUILD); the armhf brivlo is the one in the board's Debian
# package, made by scripts/package.sh in build/arm.
#
# BRIVLO_KERNEL_XFAIL lists scenarios (driver/name) that are known to fail
# with this code base; they print XFAIL and do not count as failures (and
# XPASS, counted as passed, when they pass).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
started=$SECONDS

xfail=${BRIVLO_KERNEL_XFAIL-""}
work=$root/${BRIVLO_KERNEL_BUILD:-build/kernel}
triple=arm-linux-gnueabihf
jobs=$(nproc 2>/dev/null || echo 2)

BRIVLO_DEPS_EXTRA="qemu-system-arm g++-$triple cpio xz-utils openssl ${BRIVLO_DEPS_EXTRA:-}" scripts/deps.sh
. scripts/debian-fetch.sh
mkdir -p "$work"

# --- Debian packages (once) ----------------------------------------------------
deps=$work/deps
if [ ! -f "$deps/fetched" ]; then
  echo "== fetch Debian's armhf kernel, busybox, libc and mtd-utils"
  rm -rf "$deps/debs"
  fetch_debs "$deps" linux-image-armmp:armhf
  # The kernel package that the meta package names, and the headers, source
  # and kbuild tools of exactly that version for building phram.
  dep=$(dpkg-deb -f "$deps"/debs/linux-image-armmp_*.deb Depends)
  image=$(sed -n 's/^\(linux-image-[^ ]*\) (= \(.*\))$/\1/p' <<<"$dep")
  version=$(sed -n 's/^\(linux-image-[^ ]*\) (= \(.*\))$/\2/p' <<<"$dep")
  [ -n "$image" ] || { echo "real-kernel.sh: cannot read the kernel package from: $dep" >&2; exit 1; }
  abi=${image#linux-image-}
  series=$(cut -d. -f1,2 <<<"$version")
  fetch_debs "$deps" "$image:armhf=$version" "linux-headers-$abi:armhf=$version" \
    "linux-headers-${abi%-armmp}-common=$version" "linux-kbuild-$series:$(dpkg --print-architecture)=$version" \
    "linux-source-$series=$version" busybox-static:armhf libc6:armhf mtd-utils:armhf
  echo "$abi" >"$deps/abi"
  rm -rf "$work/x"
  touch "$deps/fetched"
fi
abi=$(cat "$deps/abi")
x=$work/x # unpacked packages
if [ ! -d "$x" ]; then
  rm -rf "$x.tmp"
  for d in "$deps"/debs/*.deb; do
    case $d in */linux-source-*) continue ;; esac # only phram.c is taken from it, below
    dpkg-deb -x "$d" "$x.tmp"
  done
  mv "$x.tmp" "$x"
fi
modules=$x/lib/modules/$abi/kernel

# --- phram, out of tree --------------------------------------------------------
# Debian's armmp kernel has nandsim but no write-size-1 RAM driver; phram.c
# from the same version's source builds against the packaged headers. The
# kbuild tools are the host's, whose modpost does not know the ARM layout of
# device tables, so the (unneeded) table for device-tree probing is left out.
phram=$work/phram
if [ ! -f "$phram/phram.ko" ]; then
  echo "== build phram.ko"
  rm -rf "$phram" && mkdir -p "$phram"
  series=$(basename "$x"/usr/lib/linux-kbuild-*)
  series=${series#linux-kbuild-}
  dpkg-deb --fsys-tarfile "$deps"/debs/linux-source-*.deb | tar -xO "./usr/src/linux-source-$series.tar.xz" |
    xz -dc | tar -x -C "$phram" --strip-components=4 "linux-source-$series/drivers/mtd/devices/phram.c"
  sed -i '/MODULE_DEVICE_TABLE/d' "$phram/phram.c"
  echo 'obj-m := phram.o' >"$phram/Kbuild"
  headers=$x/usr/src/linux-headers-$abi
  # The headers' Makefile includes the common headers by absolute path.
  sed -i "s|^include /usr/src/|include $x/usr/src/|" "$headers/Makefile"
  make -s -C "$headers" M="$phram" DEB_BUILD_ARCH=host DEB_HOST_ARCH=armhf DEB_HOST_GNU_TYPE=$triple modules
fi

# --- brivlo for the board (its package), qimtool for the PC, the guest helper ------
# The guest runs the brivlo of the board's Debian package, byte for byte what
# is shipped (scripts/package.sh builds it in build/arm, as scripts/arm.sh does).
echo "== the board's package"
board_deb=$(scripts/package.sh board)
package_version=$(dpkg-deb -f "$board_deb" Version)
rm -rf "$work/board-package" && dpkg-deb -x "$board_deb" "$work/board-package"
# The guest's C library (Debian's libc6:armhf) is one the package accepts.
libc_min=$(dpkg-deb -f "$board_deb" Depends | sed -n 's/^libc6 (>= \(.*\))$/\1/p')
libc_guest=$(dpkg-deb -f "$deps"/debs/libc6_*_armhf.deb Version)
dpkg --compare-versions "$libc_guest" ge "$libc_min" ||
  { echo "real-kernel.sh: the guest's libc6 $libc_guest is older than the package's libc6 (>= $libc_min)" >&2; exit 1; }
if [ -f build/release/CMakeCache.txt ]; then
  host_build=build/release
else
  host_build=$work/host
  cmake -S . -B "$host_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIVLO_WERROR=ON -DBRIVLO_TESTS=OFF >/dev/null
fi
echo "== build qimtool ($host_build)"
cmake --build "$host_build" -j"$jobs" --target qimtool >/dev/null
qimtool=$host_build/tools/qimtool/qimtool
$triple-g++ -std=c++17 -O2 -Wall -Wextra -Werror -static -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 \
  -o "$work/guest_helper" scripts/real-kernel/guest_helper.cpp

# --- test files ------------------------------------------------------------------
echo "== make test files"
ir=$work/initramfs
rm -rf "$ir" "$work/tftp-host" "$work/tftp-qemu"
mkdir -p "$ir"/{bin,data,dev,proc,sys,tmp,lib/modules,lib/$triple} "$work/tftp-host" "$work/tftp-qemu"
data=$ir/data
# Test data comes from a seed, so a failing run replays byte for byte with
# BRIVLO_KERNEL_SEED set to the seed printed here. seeded NAME N: N bytes of
# AES-CTR over zeros keyed by the seed and NAME (every stream differs).
seed=${BRIVLO_KERNEL_SEED:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}
echo "== test data seed $seed (BRIVLO_KERNEL_SEED=$seed replays it)"
seeded() { head -c "$2" /dev/zero | openssl enc -aes-128-ctr -nosalt -pbkdf2 -iter 1 -pass "pass:$seed/$1"; }
random() { seeded "$1" "$2" >"$data/$1"; }
ff() { head -c "$1" /dev/zero | tr '\000' '\377'; }
kib=1024
mib=$((1024 * kib))
random odd.bin 300001          # not a multiple of the NAND page
random exact.bin $mib          # as large as the partition "config"
random big.bin $((mib + 1))    # one byte more
random lic.bin $((100 * kib))
random tftp.bin $((300 * kib))
random ua.bin $((600 * kib))   # across the bad block (the 4th of "userarea")
random big4m.bin $((4 * mib))
random fpga-part.bin $((768 * kib))
random config-part.bin $((64 * kib))
# The capability record, padded to a whole NAND page.
"$qimtool" capability -o "$work/cap.rec" --mfgc 544553544d464700 --model 5445523130300000
{ cat "$work/cap.rec"; ff $((2048 - $(stat -c %s "$work/cap.rec"))); } >"$data/cap.bin"
# Combined kernel + root file system images for each driver's erase block E:
# E bytes, the U-Boot header with its data, 1728 more bytes, then the root file
# system. Sizes are whole NAND pages on both sides of the split.
seeded uimage.data $((200 * kib + 256)) >"$work/uimage.data"
mkimage -A arm -O linux -T kernel -C none -a 0 -e 0 -n brivlo-test -d "$work/uimage.data" "$work/uimage" >/dev/null
for d in nand:131072 nor:65536; do
  drv=${d%:*} e=${d#*:}
  { seeded "$drv-head" "$e"; cat "$work/uimage"; seeded "$drv-gap" 1728; seeded "$drv-rootfs" $((300 * kib)); } \
    >"$data/split-$drv.bin"
  echo $((e + 1792 + 200 * kib + 256)) >"$data/split-$drv.klen"
  # A package for this board's model (5445...3130...: the Linux image and the
  # FPGA image) and another model (the Linux image and a config part).
  "$qimtool" create -o "$data/pkg-$drv.qim" --device-code 40 --product-version 0x01020304 \
    --mfgc 544553544d464700 --part "image:4.2.8.0:$data/split-$drv.bin" --part "fpga:1.0.0.0:$data/fpga-part.bin" \
    --part "config:1.0.0.0:$data/config-part.bin" \
    --model 5445523130300000:0,1 --model 5445523230300000:0,2 >/dev/null
  cp "$data/pkg-$drv.qim" "$work/tftp-host/"
done
cp "$data/tftp.bin" "$work/tftp-host/"
cp "$data/tftp.bin" "$work/tftp-qemu/"
chmod -R a+rX "$work/tftp-host" "$work/tftp-qemu"

# --- initramfs -------------------------------------------------------------------
cp "$x/bin/busybox" "$work/board-package/usr/bin/brivlo" "$work/guest_helper" "$x/usr/sbin/flashcp" "$x/usr/sbin/flash_erase" "$ir/bin/"
cp "$x/lib/$triple/ld-linux-armhf.so.3" "$x/lib/$triple/libc.so.6" "$ir/lib/$triple/"
ln -s "$triple/ld-linux-armhf.so.3" "$ir/lib/ld-linux-armhf.so.3"
cp "$modules/drivers/mtd/nand/raw/nandsim.ko" "$modules/drivers/virtio/virtio_mmio.ko" \
  "$modules/net/core/failover.ko" "$modules/drivers/net/net_failover.ko" "$modules/drivers/net/virtio_net.ko" \
  "$phram/phram.ko" "$ir/lib/modules/"
cp scripts/real-kernel/init scripts/real-kernel/scenarios.sh "$ir/"
chmod +x "$ir/init"
(cd "$ir" && find . | cpio -o -H newc --quiet >"$work/initramfs.cpio")

# --- the host's TFTP server on a free loopback port ------------------------------
tftpd_pid=
cleanup() { [ -n "$tftpd_pid" ] && kill "$tftpd_pid" 2>/dev/null; true; }
trap cleanup EXIT
echo "ready $work" >"$work/tftp-host/probe"
chmod 644 "$work/tftp-host/probe"
for _ in 1 2 3 4 5 6 7 8; do
  port=$((20000 + RANDOM % 40000))
  /usr/sbin/in.tftpd --foreground --address "127.0.0.1:$port" --secure --user root -v "$work/tftp-host" \
    >"$work/tftpd.log" 2>&1 &
  tftpd_pid=$!
  sleep 0.2
  rm -f "$work/probe.got"
  if (cd "$work" && timeout 5 tftp -m binary 127.0.0.1 "$port" -c get probe probe.got) >/dev/null 2>&1 &&
     [ "$(cat "$work/probe.got" 2>/dev/null)" = "ready $work" ]; then
    break
  fi
  cleanup
  tftpd_pid=
done
[ -n "$tftpd_pid" ] || { cat "$work/tftpd.log" >&2; echo "real-kernel.sh: in.tftpd did not come up" >&2; exit 1; }

# --- boot ------------------------------------------------------------------------
# 512 MiB of RAM, of which the kernel uses 448 MiB (mem=); phram maps the rest.
# Block 70 is the 4th block of "userarea" on the NAND (see the layout in init).
echo "== boot the guest (in.tftpd on 127.0.0.1:$port)"
boot_started=$SECONDS
set +e
timeout 900 qemu-system-arm -M virt -m 512 -nographic -no-reboot \
  -kernel "$x/boot/vmlinuz-$abi" -initrd "$work/initramfs.cpio" \
  -append "console=ttyAMA0 mem=448M quiet loglevel=3 brivlo.tftp_port=$port brivlo.phram_base=0x5c000000 brivlo.bad_block=70" \
  -netdev "user,id=n0,tftp=$work/tftp-qemu" -device virtio-net-device,netdev=n0 </dev/null >"$work/console.log" 2>&1
qemu_status=$?
set -e
boot_time=$((SECONDS - boot_started))

# --- results -----------------------------------------------------------------------
passed=0 failed=0 expected=0
listed() { [[ " $xfail " == *" $1 "* ]]; }
secs() { awk -v us="$1" 'BEGIN { printf "%.3f s", us / 1e6 }'; } # from microseconds
# ratio A B TARGET: A / B, and whether it is within TARGET
ratio() { awk -v a="$1" -v b="$2" -v t="$3" 'BEGIN { r = a / b; printf "%.2f (target <= %s: %s)", r, t, r <= t ? "met" : "NOT met" }'; }
ended=false
while IFS= read -r line; do
  line=${line%$'\r'}
  case $line in
    "@@ PASS "*)
      name=${line#@@ PASS }
      passed=$((passed + 1))
      if listed "$name"; then echo "XPASS $name (listed in BRIVLO_KERNEL_XFAIL: remove it)"; else echo "PASS $name"; fi ;;
    "@@ FAIL "*)
      rest=${line#@@ FAIL }
      name=${rest%%:*}
      if listed "$name"; then
        expected=$((expected + 1))
        echo "XFAIL $rest"
      else
        failed=$((failed + 1))
        echo "FAIL $rest"
      fi ;;
    "@@ INFO TIME "*)
      read -r drv fc bc fs bs be <<<"${line#@@ INFO TIME }"
      fc=${fc#*=} bc=${bc#*=} fs=${fs#*=} bs=${bs#*=} be=${be#*=}
      echo "flashcp vs brivlo, 4 MiB onto erased $drv, both reading back: flashcp $(secs "$fc"), brivlo $(secs "$bc")," \
        "ratio $(ratio "$bc" "$fc" 1.0) (start-up alone: flashcp $(secs "$fs"), brivlo $(secs "$bs");" \
        "brivlo writing a 0-byte image $(secs "$be"))" ;;
    "@@ INFO AGAIN "*)
      read -r drv bd fp fr fs <<<"${line#@@ INFO AGAIN }"
      bd=${bd#*=} fp=${fp#*=} fr=${fr#*=} fs=${fs#*=}
      echo "the same 4 MiB again on $drv: brivlo -D $(secs "$bd");" \
        "flashcp -p's way $(secs "$fp"), ratio $(ratio "$bd" "$fp" 1.0);" \
        "flashcp $(secs "$fr"), ratio $(ratio "$bd" "$fr" 0.2) (Debian's flashcp -p itself: exit status $fs)" ;;
    "@@ INFO ERASES "*)
      read -r drv same one at <<<"${line#@@ INFO ERASES }"
      echo "blocks erased by brivlo -D on $drv: the same 4 MiB image ${same#*=} (target 0)," \
        "one block changed ${one#*=} (target 1; at offset ${at#*=})" ;;
    "@@ INFO POLL "*) echo "brivlo -S answers, ${line#@@ INFO POLL }" ;;
    "@@ END") ended=true ;;
  esac
done <"$work/console.log"
if ! $ended; then
  failed=$((failed + 1))
  echo "FAIL guest: the run did not finish (qemu status $qemu_status); the console's end:"
  tail -n 30 "$work/console.log" | sed 's/^/    /'
fi
echo "brivlo: $(basename "$board_deb"), version $package_version"
echo "guest run: $boot_time s; whole script: $((SECONDS - started)) s; console log: $work/console.log"
[ "$expected" -eq 0 ] || echo "($expected expected failures, BRIVLO_KERNEL_XFAIL=\"$xfail\")"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
