# shellcheck shell=bash
# Sourced by scripts/arm.sh and bench/run --arm: register_arm makes
# binfmt_misc hand 32-bit ARM programs to qemu-arm-static, so ARM programs
# started by other ARM programs (tests, benchmarks) run too. Returns non-zero
# where binfmt_misc cannot be set up (a container without the privilege).
binfmt=/proc/sys/fs/binfmt_misc
arm_registered() { [ -r $binfmt/qemu-arm ] && [ "$(head -n1 $binfmt/qemu-arm)" = enabled ]; }
register_arm() {
  [ -e $binfmt/register ] || mount -t binfmt_misc binfmt_misc $binfmt 2>/dev/null || return 1
  arm_registered && return 0
  update-binfmts --enable qemu-arm >/dev/null 2>&1 || true
  arm_registered && return 0
  # By hand: 32-bit little-endian ARM ELF executables. F opens the interpreter
  # now, so it also serves programs in other mount namespaces.
  printf '%s' ':qemu-arm:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-arm-static:F' \
    >$binfmt/register 2>/dev/null || return 1
  arm_registered
}
