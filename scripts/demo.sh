#!/usr/bin/env bash
# Main job: a full upgrade against a simulated board. Builds brivlo and
# flashsim, makes a fresh board, serves a raw firmware image from a local
# in.tftpd on a free loopback port, runs
#   flashsim run BOARD -- brivlo tftp://127.0.0.1:PORT fw.bin fpga
# and shows the partition afterwards. in.tftpd changes its root directory, so
# this runs as root (deps.sh uses sudo for the packages otherwise).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

build=build/release
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs" --target brivlo flashsim flashsim_preload >/dev/null
brivlo=$PWD/$build/app/brivlo
flashsim=$PWD/$build/tools/flashsim/flashsim

work=$(mktemp -d /tmp/brivlo-demo.XXXXXX)
tftpd_pid=""
cleanup() {
    [ -n "$tftpd_pid" ] && kill "$tftpd_pid" 2>/dev/null && wait "$tftpd_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

board=$work/board
serve=$work/tftp
mkdir -p "$serve"
chmod 755 "$work" "$serve"

echo "== a fresh simulated board"
"$flashsim" init "$board"

echo "== a 1 MB raw firmware image"
head -c 1000000 /dev/urandom >"$serve/fw.bin"
chmod 644 "$serve/fw.bin"

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

echo "== flashsim run BOARD -- brivlo tftp://127.0.0.1:$port fw.bin fpga"
status=0
"$flashsim" run "$board" -- "$brivlo" "tftp://127.0.0.1:$port" fw.bin fpga || status=$?
echo "== brivlo exit status: $status"

echo "== flashsim show BOARD fpga"
"$flashsim" show "$board" fpga

if cmp -s <(head -c 1000000 "$board/flash/fpga") "$serve/fw.bin"; then
    echo "== the fpga partition holds the served image byte for byte"
else
    echo "== the fpga partition does NOT hold the served image" >&2
    exit 1
fi
exit "$status"
