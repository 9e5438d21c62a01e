#!/usr/bin/env bash
# Runs the real brivlo under Valgrind's memcheck, on a flashsim board, through
# the end-to-end flows: a raw local image, a combined image split into kernel
# and rootfs, a package, and TFTP downloads from Debian's in.tftpd. Every run
# must end as it would without Valgrind, with no invalid access and nothing
# "definitely" or "indirectly" lost; the flash must hold what was written,
# which also proves that the board's preload library reached the program
# under Valgrind. A non-sanitizer build is used (MEMCHECK_BUILD, default
# build/release).
#
#   scripts/memcheck.sh           every flow, larger images, failure paths too
#   scripts/memcheck.sh --short   the four main flows with small images (CI)
set -euo pipefail
cd "$(dirname "$0")/.."

short=0
case ${1:-} in
  --short) short=1 ;;
  "") ;;
  *) echo "usage: scripts/memcheck.sh [--short]" >&2; exit 2 ;;
esac

scripts/deps.sh
build=${MEMCHECK_BUILD:-build/release}
echo "== configure $build"
cmake --preset release -B "$build" >/dev/null
echo "== build $build"
cmake --build "$build" -j2 --target brivlo flashsim flashsim_preload qimtool

brivlo=$(realpath "$build/app/brivlo")
flashsim=$(realpath "$build/tools/flashsim/flashsim")
qimtool=$(realpath "$build/tools/qimtool/qimtool")
work=$(mktemp -d "${TMPDIR:-/tmp}/brivlo-memcheck-XXXXXX")
tftpd_pid=""
cleanup() {
  if [ -n "$tftpd_pid" ]; then
    kill "$tftpd_pid" 2>/dev/null || true
    wait "$tftpd_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

failures=0
runs=0
fail() {
  echo "FAIL $*" >&2
  failures=$((failures + 1))
}

# Deterministic content: N bytes from a seeded stream.
# (openssl ends on SIGPIPE when head has enough, hence the "|| true".)
bytes() { # SEED N
  { openssl enc -aes-128-ctr -nosalt -pass "pass:brivlo$1" -pbkdf2 </dev/zero 2>/dev/null || true; } | head -c "$2"
}
if ! command -v openssl >/dev/null; then
  bytes() { head -c "$2" /dev/urandom; }
fi

# memcheck NAME BOARD EXPECTED_STATUS BRIVLO_ARGS...: one brivlo run on BOARD
# under memcheck; the log goes to $work/NAME.vg, output to $work/NAME.out/.err.
memcheck() {
  local name=$1 board=$2 expected=$3
  shift 3
  runs=$((runs + 1))
  local vg="$work/$name.vg" status=0
  "$flashsim" run "$board" -- valgrind --leak-check=full --show-leak-kinds=definite,indirect \
    --errors-for-leak-kinds=definite,indirect --error-exitcode=99 --log-file="$vg" \
    "$brivlo" "$@" >"$work/$name.out" 2>"$work/$name.err" || status=$?
  # The summary proves that memcheck really ran brivlo (not the bare program).
  if ! grep -q "Command: $brivlo" "$vg" || ! grep -q 'ERROR SUMMARY: 0 errors' "$vg" ||
    [ "$status" -eq 99 ] || grep -qE 'definitely lost: [1-9]|indirectly lost: [1-9]' "$vg"; then
    fail "$name: memcheck errors (exit status $status):"
    sed 's/^/    /' "$vg" >&2
  elif [ "$status" -ne "$expected" ]; then
    fail "$name: exit status $status, expected $expected"
    sed 's/^/    /' "$work/$name.err" >&2
  else
    printf '  ok  %-28s exit %3s  %s\n' "$name" "$status" \
      "$(grep -oE 'total heap usage: [0-9,]+ allocs, [0-9,]+ frees' "$vg")"
  fi
}

# flash_holds NAME BOARD PARTITION FILE [OFFSET LENGTH]: the partition starts
# with the file's bytes (or LENGTH of them from OFFSET).
flash_holds() {
  local name=$1 board=$2 part=$3 file=$4
  local want="$work/$name.want" got="$work/$name.got"
  if [ $# -ge 6 ]; then
    dd if="$file" of="$want" bs=1 skip="$5" count="$6" status=none
  else
    cp "$file" "$want"
  fi
  "$flashsim" dump "$board" "$part" -o "$got.all"
  head -c "$(stat -c %s "$want")" "$got.all" >"$got"
  cmp -s "$want" "$got" || fail "$name: partition $part does not hold the image (was the preload active?)"
}

new_board() { # NAME [INIT OPTIONS...]
  local dir="$work/board-$1"
  shift
  "$flashsim" init "$dir" "$@" >/dev/null
  echo "$dir"
}

if [ "$short" -eq 1 ]; then raw_size=200000; root_size=150000; part_size=120000
else raw_size=3000000; root_size=2500000; part_size=1500000; fi

echo "== memcheck ($([ $short -eq 1 ] && echo short || echo full))"

# 1. Raw local image.
bytes 1 "$raw_size" >"$work/raw.bin"
b=$(new_board raw)
memcheck raw-local "$b" 0 local "$work/raw.bin" fpga
flash_holds raw-local "$b" fpga "$work/raw.bin"

# 2. Combined image, split at the U-Boot header one kernel erase block in:
# kernel length = 65536 + 0x700 + data size.
data_size=100000
{
  bytes 2 65536
  printf '\x27\x05\x19\x56'; head -c 8 /dev/zero
  printf "\\x$(printf %02x $((data_size >> 24 & 255)))\\x$(printf %02x $((data_size >> 16 & 255)))"
  printf "\\x$(printf %02x $((data_size >> 8 & 255)))\\x$(printf %02x $((data_size & 255)))"
  head -c 48 /dev/zero
  bytes 3 $((1728 + data_size))
  bytes 4 "$root_size"
} >"$work/image.bin"
kernel_length=$((65536 + 1792 + data_size))
b=$(new_board image)
memcheck kernel-rootfs "$b" 0 local "$work/image.bin" image
flash_holds kernel-rootfs-k "$b" kernel "$work/image.bin" 0 "$kernel_length"
flash_holds kernel-rootfs-r "$b" rootfs "$work/image.bin" "$kernel_length" "$root_size"

# 3. Package: fpga (kind 2) and config (kind 4) for the board's model,
# userarea (kind 11) for another model.
bytes 5 "$part_size" >"$work/fpga.bin"
bytes 6 40000 >"$work/config.bin"
bytes 7 30000 >"$work/other.bin"
"$qimtool" create -o "$work/fw.qim" --device-code 40 --product-version 0x04030000 \
  --part 2:4.3.0.0:"$work/fpga.bin" --part 4:4.3.0.0:"$work/config.bin" \
  --part 11:4.3.0.0:"$work/other.bin" \
  --model 5445523130300000:0,1 --model 4f54484552000000:2 >/dev/null  # "TER100", "OTHER"
b=$(new_board package)
memcheck package "$b" 0 local "$work/fw.qim" qim
flash_holds package-fpga "$b" fpga "$work/fpga.bin"
flash_holds package-config "$b" config "$work/config.bin"

# 4. TFTP downloads from in.tftpd on a free loopback port.
mkdir -p "$work/tftp"
cp "$work/raw.bin" "$work/tftp/fw.bin"
cp "$work/fw.qim" "$work/tftp/fw.qim"
chmod -R a+rX "$work/tftp"
port=""
for try in 1 2 3 4 5 6 7 8; do
  p=$((20000 + (RANDOM % 40000)))
  /usr/sbin/in.tftpd --listen --foreground --address "127.0.0.1:$p" --secure "$work/tftp" \
    >"$work/tftpd.log" 2>&1 &
  tftpd_pid=$!
  sleep 0.3
  if kill -0 "$tftpd_pid" 2>/dev/null; then port=$p; break; fi
  wait "$tftpd_pid" 2>/dev/null || true
  tftpd_pid=""
done
if [ -z "$port" ]; then
  fail "tftp: in.tftpd did not start: $(cat "$work/tftpd.log")"
else
  b=$(new_board tftp)
  memcheck tftp-raw "$b" 0 "tftp://127.0.0.1:$port" fw.bin fpga
  flash_holds tftp-raw "$b" fpga "$work/raw.bin"
  if [ "$short" -eq 0 ]; then
    b=$(new_board tftp-qim)
    memcheck tftp-package "$b" 0 "tftp://127.0.0.1:$port" fw.qim qim
    flash_holds tftp-package "$b" fpga "$work/fpga.bin"
    b=$(new_board tftp-missing)
    memcheck tftp-missing-file "$b" 2 "tftp://127.0.0.1:$port" no-such.bin fpga
  fi
fi

if [ "$short" -eq 0 ]; then
  # Failure paths: their early returns must release what they hold too.
  cp "$work/fw.qim" "$work/damaged.qim"
  printf '\xff' | dd of="$work/damaged.qim" bs=1 seek=600 conv=notrunc status=none
  b=$(new_board damaged)
  memcheck damaged-package "$b" 4 local "$work/damaged.qim" qim
  b=$(new_board fault --fault fpga:erase:1)
  memcheck erase-fault "$b" 0 local "$work/raw.bin" fpga
  head -c 70000 "$work/image.bin" >"$work/short-image.bin"
  b=$(new_board short-image)
  memcheck short-uboot-image "$b" 0 local "$work/short-image.bin" image
  b=$(new_board wrong-model)
  memcheck foreign-model-only "$b" 15 local "$work/fw.qim" 0000000000000001 -A
  b=$(new_board usage)
  memcheck usage "$b" 5 a b
  mkdir -p "$b/tmp" && printf 'status=2\ntotal=1000\ncurrent=500' >"$b/tmp/brivlo_status"
  memcheck status-query "$b" 225 -S
fi

echo "== memcheck: $runs runs, $failures failures"
[ "$failures" -eq 0 ]
