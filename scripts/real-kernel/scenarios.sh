# Scenarios of the test guest, sourced by its /init. /dev/flash points at the
# partitions of one driver at a time; every check reads the MTD devices back.
# Test files are in /data (made by scripts/real-kernel.sh on the host).

ERASE_FAIL="writeImageToFlash: Error erasing flash partition 'userarea'"
PHY_LINE="extractLinuxVerFromQim Found Linux partition and version - 0x4020800"
JUNK_LOG="Error zel_tftp_client_request__handle_data_message: ignoring invalid data packet"

tr '\000' '\377' </dev/zero | head -c $((6 * 1024 * 1024)) >/tmp/ff

fail() { WHY="$*"; return 1; }
scenario() {
  NAME=$DRV/$1
  shift
  WHY=""
  if "$@"; then say "PASS $NAME"; else say "FAIL $NAME: ${WHY:-no reason recorded}"; fi
}

# Centiseconds since boot.
now() {
  read -r up _ </proc/uptime
  echo $((${up%.*} * 100 + 1${up#*.} - 100))
}

wipe() {
  for p in "$@"; do flash_erase -q /dev/flash/$p 0 0 >/dev/null 2>&1 || fail "flash_erase $p failed" || return 1; done
}

# run ARGS...: brivlo with ARGS, its output in /tmp/out and /tmp/err, status in RC.
run() {
  brivlo "$@" >/tmp/out 2>/tmp/err
  RC=$?
}

# part_is NAME FILE: the whole partition holds FILE followed by erased bytes.
part_is() {
  size=$(cat /tmp/sizes/$DRV.$1)
  n=$(wc -c <"$2")
  [ "$n" -le "$size" ] || fail "$2 is larger than $1" || return 1
  { cat "$2"; head -c $((size - n)) /tmp/ff; } | cmp -s - /dev/flash/$1 ||
    fail "$1 does not hold $(basename "$2") ($n bytes) followed by erased flash"
}

status_is() { [ "$RC" -eq "$1" ] || fail "exit status $RC, expected $1 ($(tail -n 2 /tmp/err | tr '\n' ' '))"; }
err_has() { grep -qF -- "$1" /tmp/err || fail "no line '$1' on standard error"; }

# The package's split image: the kernel partition gets the first klen bytes.
split_parts() {
  klen=$(cat /data/split-$DRV.klen)
  head -c "$klen" /data/split-$DRV.bin >/tmp/kernel.part
  tail -c +$((klen + 1)) /data/split-$DRV.bin >/tmp/rootfs.part
}

# poll DOWNLOAD ARGS...: runs brivlo ARGS in the background and starts
# brivlo -S until it has ended; SEQ is the sequence of distinct answers, the
# last one after the end. Once the download (DOWNLOAD 1) is over, the upgrade
# runs at a lower priority than the queries, as under a busy supervisor: on
# the one guest CPU, a write to phram would otherwise be over between two
# queries.
poll() {
  download=$1
  shift
  brivlo "$@" >/tmp/out 2>/tmp/err &
  pid=$!
  SEQ=""
  POLLS=0
  last=x
  lowered=no
  while :; do
    read -r _ _ state _ 2>/dev/null </proc/$pid/stat || break
    [ "$state" = Z ] && break
    brivlo -S
    s=$?
    POLLS=$((POLLS + 1))
    [ "$s" = "$last" ] || SEQ="$SEQ $s"
    last=$s
    if [ $lowered = no ] && { [ "$download" = 0 ] || { [ "$s" != 1 ] && [ "${SEQ#* 1}" != "$SEQ" ]; }; }; then
      renice -n 10 -p $pid >/dev/null
      lowered=yes
    fi
  done
  wait $pid
  RC=$?
  brivlo -S
  s=$?
  [ "$s" = "$last" ] || SEQ="$SEQ $s"
}

# seq_ok DOWNLOAD: SEQ went 1 (download; only when DOWNLOAD is 1), then
# rising values 200..250 (0 allowed before the first), then 0 at the end.
seq_ok() {
  echo "$SEQ" | awk -v dl="$1" '{
    ok = 1; saw1 = 0; saw2 = 0; prev = 0
    for (i = 1; i <= NF; i++) {
      v = $i + 0
      if (v == 1) { if (!dl || saw2) ok = 0; saw1 = 1 }
      else if (v >= 200 && v <= 250) { if (dl && !saw1 || v < prev) ok = 0; prev = v; saw2 = 1 }
      else if (v == 0) { if (saw2 && i != NF) ok = 0 }
      else ok = 0
    }
    if (!saw2 || $NF != 0 || dl && !saw1) ok = 0
    exit !ok
  }' || fail "brivlo -S answered:$SEQ ($POLLS queries)" || return 1
  say "INFO POLL $NAME:$SEQ ($POLLS queries)"
}

package_written() {
  split_parts
  part_is kernel /tmp/kernel.part && part_is rootfs /tmp/rootfs.part && part_is fpga /data/fpga-part.bin &&
    part_is config /dev/null && part_is image /dev/null
}

# --- scenarios ---------------------------------------------------------------
s_capability() {
  wipe capability && run local /data/cap.bin capability && status_is 0 && part_is capability /data/cap.bin
}
s_raw_odd() {
  wipe config && run local /data/odd.bin config && status_is 0 && part_is config /data/odd.bin
}
s_raw_exact() {
  wipe config && run local /data/exact.bin config && status_is 0 && part_is config /data/exact.bin
}
s_raw_too_large() {
  # config still holds exact.bin from the scenario before.
  run local /data/big.bin config && status_is 0 &&
    err_has "writeImageToFlash: Error - image of size $(wc -c </data/big.bin) too large for flash partition config" &&
    { ! grep -q Erasing /tmp/out || fail "erased before refusing"; } && part_is config /data/exact.bin
}
s_split() {
  wipe kernel rootfs image && run local /data/split-$DRV.bin image && status_is 0 && split_parts &&
    part_is kernel /tmp/kernel.part && part_is rootfs /tmp/rootfs.part && part_is image /dev/null
}
s_package() {
  wipe kernel rootfs fpga config image && run local /data/pkg-$DRV.qim qim && status_is 0 &&
    err_has "$PHY_LINE" && { ! grep -q validateFirmwareSupport /tmp/err || fail "PHY check refused"; } &&
    package_written
}
s_tftp() { # URL
  wipe fpga && run "$1" tftp.bin fpga && status_is 0 && part_is fpga /data/tftp.bin
}
s_tftp_missing() { # URL
  wipe fpga && run "$1" missing.bin fpga && status_is 2 && part_is fpga /dev/null
}
s_poll() {
  wipe kernel rootfs fpga config image && poll 1 tftp://10.0.2.2:$TFTP_PORT pkg-$DRV.qim qim && status_is 0 &&
    seq_ok 1 && package_written
}
s_protected() {
  wipe license && run local /data/lic.bin license && status_is 0 &&
    { ! grep -q "unlock failed" /tmp/out || fail "$(grep "unlock failed" /tmp/out)"; } && part_is license /data/lic.bin
}
s_bad_block() {
  # A pattern in the first blocks shows that the blocks before the bad one
  # were erased; nothing of the image may be written anywhere.
  wipe userarea && flashcp /data/ua-pattern.bin /dev/flash/userarea && part_is userarea /data/ua-pattern.bin &&
    run local /data/ua.bin userarea && status_is 0 && err_has "$ERASE_FAIL" && part_is userarea /dev/null
}
# The same 4 MiB image with mtd-utils' flashcp (erase, write, read back and
# compare) and with brivlo, five times each in turn; the best time of each.
s_flashcp() {
  best_f=999999
  best_b=999999
  for round in 1 2 3 4 5; do
    wipe boot || return 1
    t0=$(now)
    flashcp /data/big4m.bin /dev/flash/boot || fail "flashcp failed" || return 1
    t1=$(now)
    part_is boot /data/big4m.bin && wipe boot || return 1
    t2=$(now)
    run local /data/big4m.bin boot
    t3=$(now)
    status_is 0 && part_is boot /data/big4m.bin || return 1
    [ $((t1 - t0)) -lt $best_f ] && best_f=$((t1 - t0))
    [ $((t3 - t2)) -lt $best_b ] && best_b=$((t3 - t2))
  done
  # Start-up alone, which qemu's translation of each program's first run of
  # its code makes far slower than on a board.
  start_b=999999
  start_f=999999
  for round in 1 2 3 4 5; do
    t0=$(now)
    brivlo -? >/dev/null
    t1=$(now)
    flashcp -h >/dev/null 2>&1
    t2=$(now)
    [ $((t1 - t0)) -lt $start_b ] && start_b=$((t1 - t0))
    [ $((t2 - t1)) -lt $start_f ] && start_f=$((t2 - t1))
  done
  say "INFO TIME $DRV flashcp_cs=$best_f brivlo_cs=$best_b flashcp_start_cs=$start_f brivlo_start_cs=$start_b"
}

run_driver() { # DRIVER
  DRV=$1
  ln -sfn /dev/$DRV /dev/flash
  scenario capability-record s_capability
  scenario raw-odd-length s_raw_odd
  scenario raw-partition-size s_raw_exact
  scenario raw-one-byte-too-large s_raw_too_large
  scenario kernel-rootfs-split s_split
  scenario package-capability s_package
  scenario tftp-host-in.tftpd s_tftp tftp://10.0.2.2:$TFTP_PORT
  scenario tftp-qemu-builtin s_tftp tftp://10.0.2.2
  scenario tftp-host-missing-file s_tftp_missing tftp://10.0.2.2:$TFTP_PORT
  scenario tftp-qemu-missing-file s_tftp_missing tftp://10.0.2.2
  scenario status-poll s_poll
  scenario protected-partition s_protected
  [ "$DRV" = nand ] && scenario bad-erase-block s_bad_block
  scenario flashcp-4MiB s_flashcp
}

# --- past 2038 -----------------------------------------------------------------
s_y2038_stamp() {
  guest_helper settime 2223376440 || fail "cannot set the clock to 2040" || return 1 # 2040-06-15 12:34:00 UTC
  guest_helper tftp-junk 6970 >/tmp/junk 2>&1 &
  helper=$!
  i=0
  while ! grep -q listening /tmp/junk && [ $i -lt 100 ]; do usleep 50000; i=$((i + 1)); done
  run tftp://127.0.0.1:6970 junk.bin config
  wait $helper
  status_is 2 && err_has "$JUNK_LOG" &&
    { grep -q "^Jun 15 12:3[4-9]:[0-5][0-9] $JUNK_LOG" /tmp/err || fail "log stamp: $(grep -F "$JUNK_LOG" /tmp/err)"; }
}
s_y2038_status() {
  guest_helper settime 2223376500 || fail "cannot set the clock to 2040" || return 1
  wipe kernel rootfs fpga config image && poll 0 local /data/pkg-$DRV.qim qim && status_is 0 && seq_ok 0 && package_written
}

run_y2038() {
  DRV=nand
  ln -sfn /dev/$DRV /dev/flash
  scenario y2038-log-stamp s_y2038_stamp
  scenario y2038-status-query s_y2038_status
}
