#!/usr/bin/env bash
# Main job: full upgrades against simulated boards. Builds brivlo, flashsim and
# qimtool, serves firmware from a local in.tftpd on a free loopback port, and
#   1. writes a raw image into one partition:
#        flashsim run BOARD -- brivlo tftp://127.0.0.1:PORT fw.bin fpga
#   2. upgrades a fresh board (with a capability record) from a QIM package
#      holding a Linux image (kernel + rootfs split at its U-Boot header, made
#      by mkimage), an FPGA image and a configuration:
#        flashsim run BOARD -- brivlo tftp://127.0.0.1:PORT fw.qim qim
#      while `brivlo -S` polls the progress from a second process.
# Each partition is then compared byte for byte with what was served.
# in.tftpd changes its root directory, so this runs as root (deps.sh uses sudo
# for the packages otherwise).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/release
jobs=$(nproc 2>/dev/null || echo 2)
cmake --preset release >/dev/null
cmake --build "$build" -j"$jobs" --target brivlo flashsim flashsim_preload qimtool >/dev/null
brivlo=$PWD/$build/app/brivlo
flashsim=$PWD/$build/tools/flashsim/flashsim
qimtool=$PWD/$build/tools/qimtool/qimtool

work=$(mktemp -d /tmp/brivlo-demo.XXXXXX)
tftpd_pid=""
poller_pid=""
cleanup() {
    [ -n "$poller_pid" ] && kill "$poller_pid" 2>/dev/null && wait "$poller_pid" 2>/dev/null
    [ -n "$tftpd_pid" ] && kill "$tftpd_pid" 2>/dev/null && wait "$tftpd_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

serve=$work/tftp
parts=$work/parts
mkdir -p "$serve" "$parts"
chmod 755 "$work" "$serve"
failed=0

# Compares the first bytes of a partition with a file.
check_partition() {  # BOARD PARTITION FILE
    if cmp -s <(head -c "$(stat -c %s "$3")" "$1/flash/$2") "$3"; then
        echo "   $2: holds $(basename "$3") byte for byte"
    else
        echo "   $2: does NOT hold $(basename "$3")" >&2
        failed=1
    fi
}

# A partition's block of `flashsim show` without its log lines.
show_partition() {  # BOARD PARTITION
    "$flashsim" show "$1" "$2" | sed '/^log$/,$d' | grep -v '^board \|^phy'
}

# A free UDP port on loopback: in.tftpd exits at once when it cannot bind the
# port it was given, so try random high ports until one stays up.
port=""
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    candidate=$((20000 + RANDOM % 40000))
    /usr/sbin/in.tftpd --foreground --address "127.0.0.1:$candidate" --secure \
        --user "$(id -un)" "$serve" >"$work/tftpd.log" 2>&1 &
    tftpd_pid=$!
    sleep 0.3
    if kill -0 "$tftpd_pid" 2>/dev/null; then
        port=$candidate
        break
    fi
    wait "$tftpd_pid" 2>/dev/null || true
    tftpd_pid=""
done
if [ -z "$port" ]; then
    echo "in.tftpd did not start (it must run as root):" >&2
    cat "$work/tftpd.log" >&2
    exit 1
fi
echo "== in.tftpd serving $serve on 127.0.0.1:$port"

echo
echo "######## 1. a raw image into the fpga partition"
board=$work/raw-board
"$flashsim" init "$board"
head -c 1000000 /dev/urandom >"$serve/fw.bin"
chmod 644 "$serve/fw.bin"
echo "== flashsim run BOARD -- brivlo tftp://127.0.0.1:$port fw.bin fpga"
status=0
"$flashsim" run "$board" -- "$brivlo" "tftp://127.0.0.1:$port" fw.bin fpga || status=$?
echo "== brivlo exit status: $status"
[ "$status" -eq 0 ] || failed=1
show_partition "$board" fpga
check_partition "$board" fpga "$serve/fw.bin"

echo
echo "######## 2. a QIM package on a board with a capability record"
board=$work/pkg-board
# The default record names manufacturer "TESTMFG" and model "TER100"; the
# board's Ethernet chip is a KSZ9897, which needs Linux newer than 4.3.0.x.
"$flashsim" init "$board" --phy 0x9897
mfgc=544553544d464700   # "TESTMFG"
model=5445523130300000  # "TER100"

# The combined Linux image: the kernel partition's first erase block, a
# U-Boot header with its data, the rest of the kernel portion (0x700 bytes
# after the header in all), then the root file system. Sizes are whole erase
# blocks, so the progress count ends exactly at the package's total.
erase=65536
data_size=$((3 * 1048576 - 0x700))
head -c "$data_size" /dev/urandom >"$parts/kernel.data"
mkimage -A arm -O linux -T kernel -C none -a 0x8000 -e 0x8000 -n demo-kernel \
    -d "$parts/kernel.data" "$parts/uImage" >/dev/null
head -c "$erase" /dev/urandom >"$parts/kernel.bin"
cat "$parts/uImage" >>"$parts/kernel.bin"
head -c $((0x700 - 64)) /dev/urandom >>"$parts/kernel.bin"
head -c $((8 * 1048576)) /dev/urandom >"$parts/rootfs.bin"
cat "$parts/kernel.bin" "$parts/rootfs.bin" >"$parts/image.bin"
head -c $((2 * 1048576)) /dev/urandom >"$parts/fpga.bin"
head -c "$erase" /dev/urandom >"$parts/config.bin"

"$qimtool" create -o "$serve/fw.qim" --device-code 40 --product-version 0x04030100 --mfgc "$mfgc" \
    --part image:4.3.1.0:"$parts/image.bin" --part fpga:2.1.0.0:"$parts/fpga.bin" \
    --part config:1.0.0.0:"$parts/config.bin" --model "$model:0,1,2"
chmod 644 "$serve/fw.qim"

# `brivlo -S` answers 1 while downloading and 200 + half the percentage while
# a package is written; print every change.
poll_progress() {
    local last="" s text
    while :; do
        s=0
        "$flashsim" run "$board" -- "$brivlo" -S || s=$?
        case $s in
            0) text="no upgrade in progress (or no progress yet)" ;;
            1) text="downloading" ;;
            *) if [ "$s" -ge 200 ]; then text="writing the package: $(((s - 200) * 2))%"; else text="status $s"; fi ;;
        esac
        if [ "$text" != "$last" ]; then
            echo "   [brivlo -S exit status $s] $text"
            last=$text
        fi
        [ -e "$work/upgrade-done" ] && break
        sleep 0.02
    done
}

echo "== flashsim run BOARD -- brivlo tftp://127.0.0.1:$port fw.qim qim   (polling brivlo -S)"
poll_progress &
poller_pid=$!
status=0
"$flashsim" run "$board" -- "$brivlo" "tftp://127.0.0.1:$port" fw.qim qim >"$work/upgrade.out" 2>"$work/upgrade.err" ||
    status=$?
touch "$work/upgrade-done"
wait "$poller_pid" || true
poller_pid=""
echo "== brivlo's standard output"
cat "$work/upgrade.out"
echo "== brivlo's standard error"
cat "$work/upgrade.err"
echo "== brivlo exit status: $status"
[ "$status" -eq 0 ] || failed=1

echo "== flashsim show BOARD (the partitions the package wrote)"
for p in kernel rootfs fpga config; do
    show_partition "$board" "$p"
done
check_partition "$board" kernel "$parts/kernel.bin"
check_partition "$board" rootfs "$parts/rootfs.bin"
check_partition "$board" fpga "$parts/fpga.bin"
check_partition "$board" config "$parts/config.bin"
if [ -e "$board/tmp/brivlo_status" ]; then
    echo "   the status file was left behind" >&2
    failed=1
fi
exit "$failed"
