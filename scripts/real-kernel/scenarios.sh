# Scenarios of the test guest, sourced by its /init. /dev/flash points at the
# partitions of one driver at a time; every check reads the MTD devices back.
# Test files are in /data (made by scripts/real-kernel.sh on the host).

PHY_LINE="extractLinuxVerFromQim Found Linux partition and version - 0x4020800"
JUNK_LOG="Error zel_tftp_client_request__handle_data_message: ignoring invalid data packet"

tr '\000' '\377' </dev/zero | head -c $((6 * 1024 * 1024)) >/tmp/ff

fail() { WHY="$*"; return 1; }
scenario() {
  NAME=$DRV/$1
  shift
  WHY=""
  say "INFO AT $(cut -d' ' -f1 /proc/uptime) $NAME" # when it started: where the run's time goes
  if "$@"; then say "PASS $NAME"; else say "FAIL $NAME: ${WHY:-no reason recorded}"; fi
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

# good_is NAME FILE: the partition's good blocks, read in order skipping the
# bad ones, hold FILE followed by erased bytes, without an uncorrectable ECC
# error on the way.
good_is() {
  guest_helper good /dev/flash/$1 >/tmp/good || fail "reading the good blocks of $1 failed" || return 1
  size=$(wc -c </tmp/good)
  n=$(wc -c <"$2")
  [ "$n" -le "$size" ] || fail "$2 is larger than the good blocks of $1" || return 1
  { cat "$2"; head -c $((size - n)) /tmp/ff; } | cmp -s - /tmp/good ||
    fail "the good blocks of $1 do not hold $(basename "$2") ($n bytes) followed by erased flash"
}

# bad_are NAME LIST: the partition's bad blocks (numbers inside it).
bad_are() {
  bad=$(guest_helper bad /dev/flash/$1)
  [ "$bad" = "$2" ] || fail "bad blocks of $1: '$bad', expected '$2'"
}

# logged TEXT: the kernel logged TEXT (the simulator says when it fakes a fault).
logged() { dmesg | grep -qF -- "$1" || fail "the kernel did not log '$1'"; }

# done_ok: brivlo wrote and said so, with no write error.
done_ok() {
  grep -q "Brivlo done" /tmp/out && grep -q "Flash write complete." /tmp/out ||
    fail "no 'Flash write complete.' and 'Brivlo done' ($(tail -n 2 /tmp/err | tr '\n' ' '))" || return 1
  ! grep -q "Error writing to flash" /tmp/err || fail "$(grep Error /tmp/err | head -n 2 | tr '\n' ' ')"
}

# timed COMMAND...: runs COMMAND, its wall time in microseconds in T.
timed() {
  guest_helper time /tmp/usec "$@"
  rc=$?
  T=$(cat /tmp/usec)
  return $rc
}

# Erase blocks the kernel erases, counted by a probe on mtd_erase that records
# each request's offset and length (struct erase_info, the 2nd argument).
# counted ARGS...: run brivlo ARGS as run does; ERASED lists the first
# offsets erased, ERASES counts the erase blocks (EB bytes each).
TRACE=/sys/kernel/tracing
mount -t tracefs nodev $TRACE 2>/dev/null
echo 'p:brivlo_erase mtd_erase addr=+0(%r1):u64 len=+8(%r1):u64' >>$TRACE/kprobe_events 2>/dev/null
counted() {
  [ -d $TRACE/events/kprobes/brivlo_erase ] || fail "no erase probe (kprobe events)" || return 1
  echo >$TRACE/trace
  echo 1 >$TRACE/events/kprobes/brivlo_erase/enable
  run "$@"
  echo 0 >$TRACE/events/kprobes/brivlo_erase/enable
  grep -E '^ *brivlo-[0-9]+ .*brivlo_erase:' $TRACE/trace | sed 's/.*addr=\([0-9]*\) len=\([0-9]*\).*/\1 \2/' >/tmp/erased
  ERASED=$(awk 'NR <= 4 { printf "%s%s", sep, $1; sep = "," } NR == 5 { printf ",..." }' /tmp/erased)
  ERASES=$(awk -v eb="$EB" '{ n += $2 / eb } END { print n + 0 }' /tmp/erased)
}

status_is() { [ "$RC" -eq "$1" ] || fail "exit status $RC, expected $1 ($(tail -n 2 /tmp/err | tr '\n' ' '))"; }
err_has() { grep -qF -- "$1" /tmp/err || fail "no line '$1' on standard error"; }
out_has() { grep -qF -- "$1" /tmp/out || fail "no line '$1' on standard output"; }

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
  # The 4th block of userarea is bad from the start: the image goes around it.
  wipe userarea && run local /data/ua.bin userarea && status_is 0 && done_ok && good_is userarea /data/ua.bin &&
    bad_are userarea 3
}
# -D with flash that already holds the image: nothing erased or written.
s_same_image() {
  SAME_ERASES=none
  wipe boot && flashcp /data/big4m.bin /dev/flash/boot || fail "flashcp failed" || return 1
  counted local /data/big4m.bin boot -D
  SAME_ERASES=$ERASES
  status_is 0 && done_ok &&
    { [ "$ERASES" = 0 ] || fail "erased $ERASES blocks at $ERASED, expected none"; } &&
    out_has "Unchanged blocks skipped: $((4194304 / EB))" && part_is boot /data/big4m.bin
}
# -D with one block changed (16 bytes 1 MiB + 1000 bytes in): that block
# alone is erased and written. boot holds big4m.bin from the scenario before.
s_one_block_changed() {
  { head -c 1049576 /data/big4m.bin; echo -n 0123456789abcdef; tail -c +1049593 /data/big4m.bin; } >/tmp/one.bin
  counted local /tmp/one.bin boot -D
  say "INFO ERASES $DRV same=$SAME_ERASES one=$ERASES at=${ERASED:-none}"
  status_is 0 && done_ok &&
    { [ "$ERASES" = 1 ] && [ "$ERASED" = 1048576 ] || fail "erased $ERASES blocks at $ERASED, expected one at 1048576"; } &&
    out_has "Unchanged blocks skipped: $((4194304 / EB - 1))" && part_is boot /tmp/one.bin
}
# The same 4 MiB image written by mtd-utils' flashcp (erase, write, read back
# and compare) and by brivlo (which reads back too), each onto an erased
# partition; then, with flash holding it, again by brivlo -D, by flashcp -p's
# way (which skips the blocks that hold their data already; guest_helper
# diffcopy, as Debian's flashcp -p crashes) and by plain flashcp. The best
# time of each over several rounds: three on NAND (a round takes seconds),
# nine on phram, where a round is mostly program start-up and one slow start
# under load would decide.
s_flashcp() {
  best_f=999999999 best_b=999999999 best_d=999999999 best_p=999999999 best_r=999999999
  again_failed=""
  for round in $ROUNDS; do
    wipe boot || return 1
    timed flashcp /data/big4m.bin /dev/flash/boot || fail "flashcp failed" || return 1
    [ $T -lt $best_f ] && best_f=$T
    [ $round -gt 1 ] || part_is boot /data/big4m.bin || return 1
    wipe boot || return 1
    timed brivlo local /data/big4m.bin boot >/tmp/out 2>/tmp/err
    RC=$?
    [ $T -lt $best_b ] && best_b=$T
    status_is 0 && done_ok || return 1
    [ $round -gt 1 ] || part_is boot /data/big4m.bin || return 1
    timed brivlo local /data/big4m.bin boot -D >/tmp/out 2>/tmp/err
    RC=$?
    [ $T -lt $best_d ] && best_d=$T
    status_is 0 && done_ok && { [ $round -gt 1 ] || part_is boot /data/big4m.bin; } || again_failed="brivlo -D: $WHY"
    timed guest_helper diffcopy /data/big4m.bin /dev/flash/boot || fail "flashcp -p's copy failed" || return 1
    [ $T -lt $best_p ] && best_p=$T
    timed flashcp /data/big4m.bin /dev/flash/boot || fail "flashcp failed" || return 1
    [ $T -lt $best_r ] && best_r=$T
  done
  # Start-up alone, which qemu's translation of each program's first run of
  # its code makes far slower than on a board.
  start_b=999999999
  start_f=999999999
  fixed_b=999999999
  : >/tmp/empty
  for round in $ROUNDS; do
    timed brivlo -? >/dev/null
    [ $T -lt $start_b ] && start_b=$T
    # What an upgrade costs besides the flash: a 0-byte image.
    timed brivlo local /tmp/empty boot >/dev/null 2>&1
    [ $T -lt $fixed_b ] && fixed_b=$T
    timed flashcp -h >/dev/null 2>&1
    [ $T -lt $start_f ] && start_f=$T
  done
  say "INFO TIME $DRV flashcp_us=$best_f brivlo_us=$best_b flashcp_start_us=$start_f brivlo_start_us=$start_b brivlo_empty_us=$fixed_b"
  flashcp -p /data/big4m.bin /dev/flash/boot >/dev/null 2>&1
  crashed=$?
  [ -z "$again_failed" ] || fail "$again_failed" || return 1
  say "INFO AGAIN $DRV brivlo_D_us=$best_d flashcp_p_us=$best_p flashcp_us=$best_r flashcp_p_status=$crashed"
}

run_driver() { # DRIVER ERASE-BLOCK-SIZE
  DRV=$1
  EB=$2
  ROUNDS="1 2 3"
  [ "$DRV" = nor ] && ROUNDS="1 2 3 4 5 6 7 8 9"
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
  [ "$DRV" = nand ] && scenario bad-block-in-raw-image s_bad_block
  scenario again-D-same-image s_same_image
  scenario again-D-one-block-changed s_one_block_changed
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

# --- faulty NAND ------------------------------------------------------------------
# Each group reloads the simulator with its faults on a fresh chip. Block and
# page numbers count from the start of the chip (64 pages of 2 KiB a block).
# nand_block NAME INDEX: the chip's number of block INDEX of partition NAME.
nand_block() {
  want=$1 index=$2 first=0
  set -- $nand_blocks
  for n in $NAMES; do
    [ "$n" = "$want" ] && { echo $((first + index)); return; }
    first=$((first + $1))
    shift
  done
}

# Factory bad blocks inside each half of a split image.
s_split_bad() {
  run local /data/split-nand.bin image && status_is 0 && done_ok && split_parts &&
    good_is kernel /tmp/kernel.part && good_is rootfs /tmp/rootfs.part && bad_are kernel 1 && bad_are rootfs 1
}
# A block whose erase fails (boot's 2nd): marked bad, its data in the next one.
s_weak_block() {
  run local /data/odd.bin boot && status_is 0 && done_ok && logged "erase failure in erase block $WEAK_BLOCK" &&
    err_has "Block 1 of flash partition 'boot' failed, marked bad" && good_is boot /data/odd.bin && bad_are boot 1
}
# A page whose program fails (the 6th of userarea's 2nd block): the block is
# marked bad and its data goes into the next one.
s_weak_page() {
  run local /data/ua.bin userarea && status_is 0 && done_ok && logged "write failure in page $WEAK_PAGE" &&
    err_has "Block 1 of flash partition 'userarea' failed, marked bad" && good_is userarea /data/ua.bin &&
    bad_are userarea 1
}
# Random bit flips on reading, one at a time: the ECC corrects them and the
# upgrade succeeds. A flip hits about one page read in 1024; brivlo reads the
# 2048 pages of a 4 MiB image back, so up to four runs make sure one happens.
s_bit_flips() {
  for try in 1 2 3 4; do
    before=$(guest_helper ecc /dev/flash/boot)
    run local /data/big4m.bin boot
    after=$(guest_helper ecc /dev/flash/boot)
    status_is 0 && done_ok && good_is boot /data/big4m.bin || return 1
    [ "${before#* }" = "${after#* }" ] || fail "uncorrectable ECC errors: $before -> $after" || return 1
    [ "${before% *}" = "${after% *}" ] || return 0
  done
  fail "no corrected bit flip while brivlo read flash back (ECC counters $after)"
}
# A page of fpga that reads back garbage: the package fails, never "done".
s_grave_page() {
  run local /data/pkg-nand.qim qim
  [ "$RC" -ne 0 ] || fail "exit status 0 ($(tail -n 1 /tmp/out))" || return 1
  ! grep -q "Brivlo done" /tmp/out || fail "said Brivlo done" || return 1
  logged "read error in page $GRAVE_PAGE" && err_has "Error verifying flash partition 'fpga' at offset" &&
    { grep -q "Failed to write QIM file. Exiting." /tmp/out /tmp/err || fail "no 'Failed to write QIM file. Exiting.'"; }
}

run_nand_faults() {
  DRV=nand
  EB=131072
  ln -sfn /dev/$DRV /dev/flash
  WEAK_BLOCK=$(nand_block boot 1)
  WEAK_PAGE=$(($(nand_block userarea 1) * 64 + 5))
  load_nand badblocks=$(nand_block kernel 1),$(nand_block rootfs 1) weakblocks=$WEAK_BLOCK:0 weakpages=$WEAK_PAGE:0
  scenario bad-blocks-in-split-image s_split_bad
  scenario erase-fails s_weak_block
  scenario program-fails s_weak_page
  GRAVE_PAGE=$(($(nand_block fpga 1) * 64 + 10))
  load_nand bitflips=1 gravepages=$GRAVE_PAGE:0
  flashcp /data/cap.bin /dev/flash/capability || say "FAIL nand/capability-record-for-faults: flashcp failed"
  scenario bit-flips-corrected s_bit_flips
  scenario page-reads-garbage s_grave_page
  # Back to the board the other scenarios expect.
  load_nand badblocks=$BAD_BLOCK
  flashcp /data/cap.bin /dev/flash/capability || say "FAIL nand/capability-record-again: flashcp failed"
}
